"""Runs the checks; see scripts/lint."""
import argparse
import sys

import house
import rooms
import tidy
from sources import all_files


def main():
    parser = argparse.ArgumentParser(prog="scripts/lint")
    parser.add_argument("commit", nargs="?", metavar="COMMIT")
    parser.add_argument("--all", action="store_true", help="clang-tidy over every source file")
    parser.add_argument("--fast", action="store_true", help="without clang-tidy")
    parser.add_argument("--minutes", type=float, default=8, metavar="N", help="time for clang-tidy")
    parser.add_argument("--redraw", action="store_true", help="draw the floors anew")
    options = parser.parse_args()

    if options.redraw:
        rooms.Rooms().redraw()
    files = all_files()
    includes = rooms.read_includes(files)
    checks = {
        "layout": lambda: house.check_layout(files),
        "rooms": lambda: rooms.check(files, includes),
        "lines": lambda: house.check_lines(files),
        "scripts": lambda: house.check_scripts(files),
        "clang-tidy": lambda: tidy.check(options.commit, options.all, options.minutes, files, includes),
    }
    if options.fast:
        del checks["clang-tidy"]
    print(f"Checking {len(files)} files: {', '.join(checks)} ...", flush=True)
    failed = []
    for name, check in checks.items():
        told = set()
        try:
            for finding in check():
                if finding not in told:
                    print("{}:{}: {}".format(*finding), flush=True)
                told.add(finding)
        except (OSError, RuntimeError) as failure:
            print(f"{name}: {failure}", flush=True)
            told.add(failure)
        if told:
            failed.append(name)
    if failed:
        print(f"scripts/lint: failed: {', '.join(failed)}", file=sys.stderr)
    return 1 if failed else 0


sys.exit(main())
