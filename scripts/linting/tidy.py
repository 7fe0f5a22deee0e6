"""clang-tidy over what changed: every changed .cpp, and for each changed header a .cpp that sees it."""
import concurrent.futures
import hashlib
import json
import os
import posixpath
import re
import shlex
import subprocess
import time

from sources import Finding, git, is_source

TOOL = "clang-tidy-16"
PRESET = "build/release"
OUTPUT = "build/lint"
# What the compile commands say to g++ alone.
OTHER_COMPILER = re.compile(r"-fno-gnu-unique|-Werror|-Wno-(restrict|array-bounds|stringop-\w+)")
# Longer than any file takes, by far.
FILE_TIMEOUT_S = 600


def changed_files(commit, files):
    """What differs from the commit, uncommitted and new files with it; without one (no earlier commit is there, as in a
    clone of depth 1) everything counts."""
    base = commit or (git("rev-parse", "--verify", "--quiet", "HEAD~1^{commit}") or "").strip()
    if not base:
        return "no earlier commit", set(files)
    names = git("diff", "--name-only", "-z", "--no-renames", base)
    if names is None:
        raise SystemExit(f"scripts/lint: no such commit: {base}")
    new = git("ls-files", "-z", "-o", "--exclude-standard")
    return f"since {git('rev-parse', '--short', base).strip()}", set((names + new).split("\0")) & set(files)


def closure(path, includes, seen=None):
    """The project's files that a file sees, itself with them."""
    seen = set() if seen is None else seen
    if path not in seen:
        seen.add(path)
        for include in includes.get(path, []):
            if include.target:
                closure(include.target, includes, seen)
    return seen


def units_for(changed, includes):
    """The .cpp files to look at. A header that none of the changed ones sees is seen through the .cpp of its name, or
    through the one that sees least besides it, outside of the tests where there is one."""
    sees = {path: closure(path, includes) for path in includes if path.endswith(".cpp")}
    units = sorted((path for path in changed if path in sees), key=lambda path: (path.startswith("tests/"), path))
    covered = set().union(*(sees[unit] for unit in units))
    for header in sorted(path for path in changed if is_source(path) and path not in sees):
        if header not in covered:
            candidates = [path for path in sees if header in sees[path]]
            best = min(candidates, default=None, key=lambda path: (
                posixpath.splitext(path)[0] != posixpath.splitext(header)[0], path.startswith("tests/"),
                len(sees[path]), path))
            if best is not None:
                units.append(best)
                covered |= sees[best]
    return units


def run(*command):
    """What it prints; RuntimeError when it fails."""
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {(done.stderr + done.stdout).strip()}")
    return done.stdout


def write_database(units):
    """Compile commands that clang understands, one a file, also for what the preset leaves out (fuzzers)."""
    run("cmake", "--preset", "release")
    root = os.getcwd()
    with open(f"{PRESET}/compile_commands.json", encoding="utf-8") as file:
        built = {os.path.relpath(entry["file"], root): entry for entry in reversed(json.load(file))}
    entries = {}
    for unit in units:
        arguments = ["c++", "-std=c++20", f"-I{root}", f"-I{root}/host/include", "-c", f"{root}/{unit}"]
        if unit in built:
            words = [word for word in shlex.split(built[unit]["command"]) if not OTHER_COMPILER.fullmatch(word)]
            # What comes from outside isn't looked at, however a target finds it.
            arguments = [word.replace("-I", "-isystem", 1) if word.startswith("-I/") and
                         not word.startswith(f"-I{root}") else word for word in words]
        entries[unit] = {"directory": root, "file": f"{root}/{unit}", "arguments": arguments}
    os.makedirs(OUTPUT, exist_ok=True)
    with open(f"{OUTPUT}/compile_commands.json", "w", encoding="utf-8") as file:
        json.dump(list(entries.values()), file, indent=1)
    return entries


def digest(unit, entry, includes, version):
    """Changes with anything that the outcome depends on, apart from the system's headers."""
    result = hashlib.sha256((version + json.dumps(entry)).encode())
    for path in [".clang-tidy", *sorted(closure(unit, includes))]:
        with open(path, "rb") as file:
            result.update(path.encode() + b"\0" + file.read() + b"\0")
    return result.hexdigest()


def look_at(unit):
    try:
        done = subprocess.run([TOOL, "--quiet", "-p", OUTPUT, unit], capture_output=True, text=True,
                              timeout=FILE_TIMEOUT_S)
    except subprocess.TimeoutExpired:
        return [Finding(unit, 1, f"{TOOL} did not end within {FILE_TIMEOUT_S} s")]
    hits = re.findall(r"^(/\S+?):(\d+):\d+: (?:error|warning): (.*)$", done.stdout, re.M)
    findings = [Finding(os.path.relpath(path), int(line), text.replace(",-warnings-as-errors", ""))
                for path, line, text in hits]
    if done.returncode != 0 and not findings:
        findings = [Finding(unit, 1, f"{TOOL} ended with {done.returncode}: {(done.stdout + done.stderr).strip()[-500:]}")]
    return findings


def check(commit, everything, minutes, files, includes):
    """Findings as they come."""
    since, changed = ("everything", set(files)) if everything else changed_files(commit, files)
    units = units_for(changed, includes)
    if not units:
        print(f"clang-tidy: nothing to look at ({since})", flush=True)
        return
    entries = write_database(units)
    # It would pass over a configuration that it can't read.
    run(TOOL, "--verify-config", "--config-file=.clang-tidy")
    version = run(TOOL, "--version")
    clean = {unit: f"{OUTPUT}/clean/{digest(unit, entries[unit], includes, version)}" for unit in units}
    os.makedirs(f"{OUTPUT}/clean", exist_ok=True)
    due = [unit for unit in units if not os.path.exists(clean[unit])]
    print(f"clang-tidy: {len(due)} of {len(units)} files ({since}; the others were looked at before) ...", flush=True)

    deadline = None if everything else time.monotonic() + 60 * minutes
    left = []

    def examine(unit):
        if deadline is not None and time.monotonic() > deadline:
            left.append(unit)
            return []
        findings = look_at(unit)
        if not findings:
            open(clean[unit], "w", encoding="utf-8").close()
        return findings

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count() or 1) as pool:
        for done in concurrent.futures.as_completed([pool.submit(examine, unit) for unit in due]):
            yield from done.result()
    if left:
        print(f"clang-tidy: not looked at within {minutes:g} minutes, --minutes N allows more: " + " ".join(sorted(left)))
