"""scripts/lint on a small repository of its own: the good one passes, and each thing that is wrong with it is found at
its file and line, alone."""
import os
import re
import shutil
import subprocess
import tempfile
import unittest

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

TABLES = """# House

<!-- floors: drawn by scripts/lint --redraw -->
<!-- end of floors -->

## Who may include whom

### Upper

| Folder | May include |
|---|---|
| `upper/roof` | `upper/*`, `lower/{ground,host}/*` |
| `upper/wall` | `lower/ground` |

### Lower

| Folder | May include |
|---|---|
| `lower/ground` | nothing |
| `lower/host/include` | nothing |

## After it

| `not/a/row` | `of/the/tables` |
"""

# The compile commands are those of g++, with what clang doesn't know.
GOOD = {
    "docs/architecture.md": TABLES,
    ".gitignore": "/build/\n",
    "CMakeLists.txt": "cmake_minimum_required(VERSION 3.25)\nproject(small CXX)\n"
                      "set(CMAKE_EXPORT_COMPILE_COMMANDS ON)\nset(CMAKE_CXX_STANDARD 20)\n"
                      "add_compile_options(-Wall -Werror -fno-gnu-unique -Wno-restrict)\n"
                      "file(GLOB_RECURSE sources upper/*.cpp)\n"
                      "add_library(small STATIC ${sources})\n"
                      "target_include_directories(small PRIVATE ${CMAKE_SOURCE_DIR})\n",
    "CMakePresets.json": '{"version": 5, "configurePresets": [{"name": "release", "generator": "Ninja",\n'
                         ' "binaryDir": "${sourceDir}/build/release"}]}\n',
    "scripts/install-dependencies": "#!/usr/bin/env bash\n",
    "scripts/tool": "#!/usr/bin/env bash\nif true; then\n  echo\nfi\n",
    "lower/ground/Stone.h": "#pragma once\n\n#include <vector>\n",
    "lower/host/include/Door.h": "#pragma once\n",
    "upper/wall/Wall.h": '#pragma once\n\n#include "lower/ground/Stone.h"\n\n'
                         "// Names /* nothing */.\nint wall(int /*unused*/);\n/*still*/ int door();\n",
    "upper/wall/Wall.cpp": '#include "upper/wall/Wall.h"\n\nint wall(int /*unused*/) {\n    return 1;\n}\n',
    "upper/roof/Roof.cpp": '#include <lower/ground/Stone.h>\n\n#include "../wall/Wall.h"\n\n'
                           "int roof() {\n    return wall(2);\n}\n",
}

# A finding's place and the start of its reason, for each change: path -> text, None to delete, or (old, new).
CASES = {
    "layout": ({"upper/roof/Roof.cpp": ("roof() {", "roof()  {")},
               "upper/roof/Roof.cpp:5: layout differs"),
    "braces left out": ({"upper/roof/Roof.cpp": ("return wall(2);", "if (wall(2))\n        return 1;\n    return 2;")},
                        "upper/roof/Roof.cpp:6: layout differs"),
    "third slash": ({"upper/wall/Wall.h": ("// Names", "/// Names")}, "upper/wall/Wall.h:5: comments begin"),
    "slashes behind code": ({"upper/wall/Wall.h": ("unused*/);", "unused*/);  ///< or not")},
                            "upper/wall/Wall.h:6: comments begin"),
    "block comment": ({"upper/wall/Wall.h": ("// Names /* nothing */.", "/* Names\n   nothing. */")},
                      "upper/wall/Wall.h:5: comments begin"),
    "upward arrow": ({"lower/ground/Stone.h": ("<vector>", '"upper/wall/Wall.h"')},
                     "lower/ground/Stone.h:3: lower/ground may not include upper/wall"),
    "upward arrow, relative": ({"lower/ground/Stone.h": ("<vector>", '"../../upper/wall/Wall.h"')},
                               "lower/ground/Stone.h:3: lower/ground may not include upper/wall"),
    "upward arrow in brackets": ({"lower/ground/Stone.h": ("<vector>", "<upper/wall/Wall.h>")},
                                 "lower/ground/Stone.h:3: lower/ground may not include upper/wall"),
    "file missing": ({"upper/wall/Wall.h": ("lower/ground/Stone.h", "Stones.h")}, "upper/wall/Wall.h:3: no file of the project"),
    "file missing, in brackets": ({"upper/roof/Roof.cpp": ("Stone.h", "Stones.h")},
                                  "upper/roof/Roof.cpp:1: no file of the project"),
    "file deleted": ({"lower/host/include/Door.h": None}, "docs/architecture.md:29: lower/host/include holds no source"),
    "include by a macro": ({"lower/ground/Stone.h": ("<vector>", "STONES")}, "lower/ground/Stone.h:3: no file"),
    "folder without a row": ({"lower/cellar/Rat.h": "#pragma once\n"}, "lower/cellar/Rat.h:1: lower/cellar has no row"),
    "circle": ({"docs/architecture.md": ("| `lower/ground` | nothing |", "| `lower/ground` | `upper/{roof,wall}` |")},
               "docs/architecture.md:21: a circle: upper/roof -> lower/ground -> upper/roof",
               "docs/architecture.md:28: a circle: lower/ground -> upper/wall -> lower/ground"),
    "row twice": ({"docs/architecture.md": ("## After", "| `lower/ground` | nothing |\n\n## After")},
                  "docs/architecture.md:31: lower/ground has a second row"),
    "unknown folder in a row": ({"docs/architecture.md": ("{ground,host}", "{ground,host,attic}")},
                                "docs/architecture.md:21: upper/roof may include lower/attic/*, which has no row"),
    "picture out of date": ({"docs/architecture.md": ("| `lower/host/include` | nothing |",
                                                      "| `lower/host/include` | `lower/ground` |")},
                            "docs/architecture.md:10: the picture isn't what"),
    "tab": ({"CMakeLists.txt": ("project(small CXX)", "project(small\tCXX)")}, "CMakeLists.txt:2: a tab"),
    "trailing blank": ({"docs/architecture.md": ("# House", "# House ")}, "docs/architecture.md:1: blanks"),
    "carriage return": ({"scripts/tool": ("bash\n", "bash\r\n")}, "scripts/tool:1: blanks"),
    "no newline at the end": ({".gitignore": "/build/"}, ".gitignore:1: no newline"),
    "a place that nobody can look up": ({"docs/architecture.md": ("# House", "# House, Par" "t 5.1")},
                                        'docs/architecture.md:1: "Par' 't 5"'),
    "the same in a comment": ({"upper/wall/Wall.h": ("Names", "A" "s specified, names")},
                              'upper/wall/Wall.h:5: "A' 's specified"'),
    "script that doesn't parse": ({"scripts/tool": ("fi\n", "")}, "scripts/tool:4: syntax error"),
}


class LintTest(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="lint-")
        self.addCleanup(shutil.rmtree, self.root)
        os.makedirs(f"{self.root}/scripts")
        shutil.copytree(f"{PROJECT}/scripts/linting", f"{self.root}/scripts/linting")
        for name in ("scripts/lint", ".clang-format", ".clang-tidy"):
            shutil.copy(f"{PROJECT}/{name}", f"{self.root}/{name}")
        for path, text in GOOD.items():
            self.write(path, text)
        os.chmod(f"{self.root}/scripts/install-dependencies", 0o755)
        self.assertEqual(self.lint("--redraw", "--fast"), (0, []))
        self.git("init", "--quiet")
        self.commit()

    def write(self, path, text):
        os.makedirs(os.path.dirname(f"{self.root}/{path}") or self.root, exist_ok=True)
        with open(f"{self.root}/{path}", "w", encoding="utf-8", newline="") as file:
            file.write(text)

    def change(self, path, how):
        if how is None:
            os.remove(f"{self.root}/{path}")
        elif isinstance(how, tuple):
            with open(f"{self.root}/{path}", encoding="utf-8") as file:
                text = file.read()
            self.assertIn(how[0], text)
            self.write(path, text.replace(*how, 1))
        else:
            self.write(path, how)

    def git(self, *arguments):
        subprocess.run(["git", "-c", "user.name=Lint", "-c", "user.email=lint@localhost", *arguments], cwd=self.root,
                       check=True, stdout=subprocess.DEVNULL)

    def commit(self):
        self.git("add", "--all")
        self.git("commit", "--quiet", "--allow-empty", "--message", "state")

    def lint(self, *arguments):
        """Exit code and the findings."""
        done = subprocess.run([f"{self.root}/scripts/lint", *arguments], capture_output=True, text=True)
        self.output = done.stdout + done.stderr
        return done.returncode, re.findall(r"^\S+:\d+: .*$", done.stdout, re.M)

    def assert_found(self, result, *expected):
        code, findings = result
        self.assertEqual(code, 1, self.output)
        self.assertEqual(len(findings), len(expected), self.output)
        for finding, start in zip(findings, expected):
            self.assertEqual(finding[:len(start)], start, self.output)

    def test_each_fault_is_found_where_it_is(self):
        for name, (changes, *expected) in CASES.items():
            self.git("checkout", "--quiet", ".")
            self.git("clean", "--quiet", "--force", "-d")
            with self.subTest(name):
                for path, how in changes.items():
                    self.change(path, how)
                self.assert_found(self.lint("--fast"), *expected)

    def test_all_checks_run_before_the_end(self):
        self.change(".gitignore", "/build/")
        self.change("scripts/tool", ("fi\n", ""))
        self.change("upper/roof/Roof.cpp", ("roof() {", "roof()  {"))
        self.assert_found(self.lint("--fast"), "upper/roof/Roof.cpp:5: layout", ".gitignore:1: no newline",
                          "scripts/tool:4: syntax error")

    def test_clang_tidy_looks_at_what_changed(self):
        fault = ("return 1;", "int* never = nullptr;\n    return *never;")
        found = "upper/wall/Wall.cpp:5: Dereference of null pointer"
        # Not committed, committed last, and older than the last commit.
        self.commit()
        self.change("upper/wall/Wall.cpp", fault)
        self.assert_found(self.lint(), found)
        self.commit()
        self.assert_found(self.lint(), found)
        self.commit()
        self.assertEqual(self.lint(), (0, []), self.output)
        self.assert_found(self.lint("HEAD~2"), found)
        self.assert_found(self.lint("--all"), found)
        self.assertEqual(self.lint("HEAD~9")[0], 1)
        # No earlier commit is there.
        shutil.rmtree(f"{self.root}/.git")
        self.git("init", "--quiet")
        self.commit()
        self.assert_found(self.lint(), found)
        # Mended, and looked at in vain before: a header's change reaches the file through it.
        self.change("upper/wall/Wall.cpp", ("*never", "never == nullptr"))
        self.assertEqual(self.lint(), (0, []), self.output)
        self.assertEqual(self.lint(), (0, []), self.output)
        self.assertIn("clang-tidy: 0 of 2 files", self.output)
        self.commit()
        self.change("lower/ground/Stone.h", ("<vector>\n", "<vector>\n\ninline int* stone() {\n    return 0;\n}\n"))
        self.assert_found(self.lint("HEAD"), "lower/ground/Stone.h:6: use nullptr")

    def test_a_check_that_could_not_run_has_failed(self):
        for path, how in ((".clang-tidy", "Checks: [\n"), (".clang-tidy", ("bugprone-", "bugbear-")), ("CMakeLists.txt", ("project", "projekt")),
                          ("upper/wall/Wall.cpp", ("return", "retorn"))):
            with self.subTest(path):
                self.change(path, how)
                self.assertEqual(self.lint("HEAD~0" if path.endswith(".cpp") else "--all")[0], 1, self.output)
                self.assertIn("failed: clang-tidy", self.output)
                self.git("checkout", "--quiet", ".")

    def test_time_is_bounded_and_what_is_left_is_named(self):
        self.assertEqual(self.lint("--minutes", "-1"), (0, []), self.output)
        self.assertIn("not looked at within -1 minutes, --minutes N allows more: "
                      "upper/roof/Roof.cpp upper/wall/Wall.cpp\n", self.output)


if __name__ == "__main__":
    unittest.main()
