"""Who includes whom, against the tables in docs/architecture.md.

Below the heading "Who may include whom" each row is a folder and the folders that its files may include besides their
own: `a/{b,c}` is two of them, `a/*` a row of that name and all below it. Each table stands under a heading of its own and
becomes a part of the picture of the floors, which is drawn between two marks in the same document.
"""
import functools
import os
import posixpath
import re
from collections import namedtuple

from sources import Finding, is_source, lines_of

DOCUMENT = "docs/architecture.md"
TITLE = "## Who may include whom"
BEGIN, END = "<!-- floors: drawn by scripts/lint --redraw -->", "<!-- end of floors -->"
# Where an include starts from, apart from the folder of its file.
ROOTS = ("", "host/include")
# Not drawn: what stands on everything.
UNDRAWN = "Proof"

Row = namedtuple("Row", "line part patterns")
Include = namedtuple("Include", "line text target")


def spread(pattern):
    """`a/{b,c}` as a/b and a/c."""
    found = re.fullmatch(r"(.*)\{(.*)\}(.*)", pattern)
    return [found[1] + name.strip() + found[3] for name in found[2].split(",")] if found else [pattern]


class Rooms:
    """The tables: rows by folder, and allowed[folder] = the folders that it may include."""

    def __init__(self, document=DOCUMENT):
        self.findings = []
        self.rows = {}
        part = None
        for number, line in enumerate(lines_of(document), 1):
            if line.startswith("## "):
                part = "" if line == TITLE else None
            elif part is not None and line.startswith("### "):
                part = line[4:]
            elif part is not None and (found := re.match(r"\|\s*`([^`]+)`\s*\|(.*)\|\s*$", line)):
                folder = found[1]
                if folder in self.rows:
                    self.report(number, f"{folder} has a second row")
                self.rows[folder] = Row(number, part, re.findall(r"`([^`]+)`", found[2]))
        if not self.rows:
            self.report(1, f"no table below \"{TITLE}\"")
        self.allowed = {folder: self.expand(folder, row) for folder, row in self.rows.items()}
        self.find_circles()

    def report(self, line, reason):
        self.findings.append(Finding(DOCUMENT, line, reason))

    def expand(self, folder, row):
        result = set()
        for name in (name for pattern in row.patterns for name in spread(pattern)):
            top = name.removesuffix("/*")
            hits = {other for other in self.rows if other == top or name != top and other.startswith(top + "/")}
            if not hits:
                self.report(row.line, f"{folder} may include {name}, which has no row")
            result |= hits
        return result - {folder}

    def find_circles(self):
        done, told = set(), set()

        def visit(folder, way):
            if folder in way:
                circle = way[way.index(folder):]
                if frozenset(circle) not in told:
                    told.add(frozenset(circle))
                    self.report(self.rows[circle[0]].line, "a circle: " + " -> ".join([*circle, folder]))
            elif folder not in done:
                for other in sorted(self.allowed[folder]):
                    visit(other, [*way, folder])
                done.add(folder)

        for folder in self.rows:
            visit(folder, [])

    @functools.cache
    def below(self, folder):
        """Every folder that `folder` reaches through the tables. Only where there is no circle."""
        return self.allowed[folder].union(*map(self.below, self.allowed[folder]))

    @functools.cache
    def floor(self, folder):
        """0 at the bottom."""
        return max((self.floor(other) + 1 for other in self.allowed[folder]), default=0)

    def drawing(self):
        """The picture: folder by folder, what it stands on; what that stands on in turn is left out."""
        parts = {}
        for folder, row in self.rows.items():
            if row.part != UNDRAWN:
                parts.setdefault(row.part, []).append(folder)
        lines = []
        for part, folders in parts.items():
            home = posixpath.commonpath(folders) if len(folders) > 1 else posixpath.dirname(folders[0])

            def short(name, home=home):
                return name[len(home) + 1:] if home and name.startswith(home + "/") else name

            lines += ["", f"{part}: {home}" if home else part] if lines else [f"{part}: {home}" if home else part]
            width = max(len(short(folder)) for folder in folders)
            for folder in sorted(folders, key=lambda name: -self.floor(name)):
                under = self.allowed[folder]
                direct = [name for name in self.rows if name in under and not any(name in self.below(o) for o in under)]
                arrow = " -> " + ", ".join(short(name) for name in direct) if direct else ""
                lines.append(f"{self.floor(folder):4}  {short(folder):{width}}{arrow}".rstrip())
        return ["```", *lines, "```"]

    def place_of_drawing(self):
        """First and last line of the picture in the document, as a slice; None without the marks."""
        lines = lines_of(DOCUMENT)
        if BEGIN not in lines or END not in lines:
            return None
        return slice(lines.index(BEGIN) + 1, lines.index(END))

    def check_drawing(self):
        if self.findings:
            return
        place = self.place_of_drawing()
        if place is None:
            self.report(1, f"the picture's marks \"{BEGIN}\" and \"{END}\" are missing")
            return
        drawn, wanted = lines_of(DOCUMENT)[place], self.drawing()
        if drawn != wanted:
            first = next((i for i, pair in enumerate(zip(drawn, wanted)) if pair[0] != pair[1]),
                         min(len(drawn), len(wanted)))
            self.report(place.start + first + 1, "the picture isn't what the tables say: scripts/lint --redraw")

    def redraw(self):
        place = self.place_of_drawing()
        lines = lines_of(DOCUMENT)
        lines[place] = self.drawing()
        with open(DOCUMENT, "w", encoding="utf-8", newline="") as file:
            file.write("\n".join(lines))


def read_includes(files):
    """Each source file's includes. A target is the project's file, "" where it should be one but isn't there, or None
    for what comes from outside."""
    known = set(files)
    own = {posixpath.relpath(name, root or ".").split("/")[0]
           for root in ROOTS for name in files if is_source(name) and name.startswith(root and root + "/")}
    result = {}
    for path in filter(is_source, files):
        result[path] = []
        for number, line in enumerate(lines_of(path), 1):
            found = re.match(r"\s*#\s*include\s*(?:([\"<])([^\">]+)[\">])?", line)
            if not found:
                continue
            quoted, text = found[1] == '"', found[2]
            if text is None:
                result[path].append(Include(number, line.strip(), ""))
                continue
            starts = ([posixpath.dirname(path)] if quoted else []) + list(ROOTS)
            tries = [posixpath.normpath(posixpath.join(start, text)) for start in starts]
            target = next((name for name in tries if name in known), None)
            if target is None and (quoted or text.split("/")[0] in own):
                target = ""
            result[path].append(Include(number, text, target))
    return result


def check(files, includes):
    rooms = Rooms()
    rooms.check_drawing()
    findings = rooms.findings
    folders = {}
    for path in includes:
        folders.setdefault(posixpath.dirname(path), path)
    for folder, row in rooms.rows.items():
        if folder not in folders:
            rooms.report(row.line, f"{folder} holds no source file")
    for folder, first in folders.items():
        if folder not in rooms.rows:
            findings.append(Finding(first, 1, f"{folder or '.'} has no row in {DOCUMENT}"))
    for path, lines in includes.items():
        here = posixpath.dirname(path)
        for line, text, target in lines:
            there = posixpath.dirname(target) if target else None
            if target == "":
                findings.append(Finding(path, line, f"no file of the project: {text}"))
            elif there is not None and there != here and here in rooms.rows and there not in rooms.allowed[here]:
                findings.append(Finding(path, line, f"{here} may not include {there} ({os.path.basename(target)})"))
    return findings
