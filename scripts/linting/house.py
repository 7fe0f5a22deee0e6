"""Layout, comments and what else can be seen line by line."""
import re
import subprocess

from sources import Finding, is_source, lines_of

# A comment of another form: one that a documentation generator wants, or a block that begins a line and fills it.
COMMENT = re.compile(r"(^|\s)//[/!]|^\s*/\*(?!.*\*/\s*\S)")
# What a reader of the repository can't look up.
OUTSIDE = re.compile(r"\bPart [0-9]|\bspec\.md\b|\b[Aa]s\s+specified\b|\b[Ii]ssue #?[0-9]")


def check_layout(files):
    """clang-format on every source file: one finding a file, at the first place that differs."""
    sources = list(filter(is_source, files))
    places = {}
    chunks = [sources[i:i + 64] for i in range(0, len(sources), 64)]
    for chunk in chunks:
        done = subprocess.run(["clang-format-16", "--dry-run", "-Werror", *chunk], capture_output=True, text=True)
        hits = re.findall(r"^(\S+):(\d+):\d+: error: code should be clang-formatted", done.stderr, re.M)
        if done.returncode != 0 and not hits:
            raise RuntimeError("clang-format-16: " + done.stderr.strip())
        for path, line in hits:
            places[path] = min(int(line), places.get(path, int(line)))
    return [Finding(path, line, f"layout differs from .clang-format: clang-format-16 -i {path}")
            for path, line in places.items()]


def check_lines(files):
    findings = []
    for path in files:
        with open(path, "rb") as file:
            if b"\0" in file.read(8192):
                continue
        lines = lines_of(path)
        if lines != [""] and lines[-1] != "":
            findings.append(Finding(path, len(lines), "no newline at the end"))
        for number, line in enumerate(lines, 1):
            if "\t" in line:
                findings.append(Finding(path, number, "a tab"))
            if line != line.rstrip():
                findings.append(Finding(path, number, "blanks at the end of the line"))
            if is_source(path) and COMMENT.search(line):
                findings.append(Finding(path, number, "comments begin with //"))
            if found := OUTSIDE.search(line):
                findings.append(Finding(path, number, f"\"{found[0]}\": say what holds, not where it is written"))
    return findings


def check_scripts(files):
    """bash -n on every bash script."""
    findings = []
    for path in files:
        with open(path, "rb") as file:
            first = file.readline(64)
        if not re.match(rb"#!.*\bbash\b", first):
            continue
        done = subprocess.run(["bash", "-n", path], capture_output=True, text=True)
        if done.returncode != 0:
            found = re.search(r"line (\d+): (.*)", done.stderr)
            findings.append(Finding(path, int(found[1]) if found else 1, found[2] if found else done.stderr.strip()))
    return findings
