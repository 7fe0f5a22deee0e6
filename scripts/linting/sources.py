"""The files of the repository, and what a check reports of them."""
import os
import subprocess
from collections import namedtuple

Finding = namedtuple("Finding", "path line reason")


def git(*arguments):
    """What git prints; None when it fails, as it does outside of a checkout."""
    done = subprocess.run(["git", *arguments], capture_output=True, text=True)
    return done.stdout if done.returncode == 0 else None


def all_files():
    """Every file that is the project's own: tracked or about to be, not what .gitignore names."""
    listed = git("ls-files", "-z", "-co", "--exclude-standard")
    if listed is not None:
        return sorted(path for path in set(listed.split("\0")) if os.path.isfile(path))
    found = []
    for folder, folders, names in os.walk("."):
        folders[:] = [name for name in folders if not name.startswith(("build", ".deps", ".git"))]
        found += [os.path.normpath(os.path.join(folder, name)) for name in names]
    return sorted(found)


def is_source(path):
    return path.endswith((".h", ".cpp"))


def lines_of(path):
    with open(path, encoding="utf-8", errors="replace", newline="") as file:
        return file.read().split("\n")
