#!/usr/bin/env python3
"""Every behaviour in docs/deliberate.md is kept by a test, and every test it names is there."""

import argparse
import re
import sys
from pathlib import Path


def named_tests(page):
    """The tests of the page as (line number, name); a line that names none as (number, None)."""
    entry = re.compile(r"^- \*\*")
    name = re.compile(r"\b(Keeps\w+|test_keeps_\w+)")
    lines = page.read_text(encoding="utf-8").splitlines()
    for number, line in enumerate(lines, start=1):
        if not entry.match(line):
            continue
        text = line
        for further in lines[number:]:
            if not further.startswith("  "):
                break
            text += f" {further.strip()}"
        names = name.findall(text)
        yield from ((number, found) for found in names or [None])


def existing_tests(tests):
    text = "".join(path.read_text(encoding="utf-8")
                   for suffix in ("*.cpp", "*.py") for path in sorted(tests.rglob(suffix)))
    gtest = re.findall(r"\bTEST(?:_[FP])?\(\s*\w+,\s*(Keeps\w+)\s*\)", text)
    return set(gtest) | set(re.findall(r"\bdef (test_keeps_\w+)\(", text))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--page", type=Path, required=True, help="docs/deliberate.md")
    parser.add_argument("--tests", type=Path, required=True, help="the tests' folder")
    options = parser.parse_args()
    there = existing_tests(options.tests)
    failures = 0
    for number, name in named_tests(options.page):
        if name is None:
            print(f"{options.page}:{number}: names no test that keeps it")
        elif name not in there:
            print(f"{options.page}:{number}: no test is called {name}")
        else:
            continue
        failures += 1
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
