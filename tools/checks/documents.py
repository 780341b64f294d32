#!/usr/bin/env python3
"""Checks the pages of the tree: what they name exists, and they have one form.

- A link leads to a file that exists.
- A path in backticks exists, and so does a file name, anywhere in the tree.
- A type in backticks, as `ShmEventPipe`, occurs in the sources.
- docs/testing.md names every system test.
- The README of a folder of src/ has its headings from one list, in one order.
- Prose is at most 100 characters wide.
- A page describes what is: words that describe former states are refused.
"""

import argparse
import re
import subprocess
import sys
from pathlib import Path

WIDTH = 100
HEADINGS = ["Files, in reading order", "Owners", "How it works", "Threads", "Formats",
            "Deliberate oddities", "Tests"]
HISTORY = re.compile(r"\b(no longer|formerly|previously|used to be|any ?more|recently|originally|"
                     r"has been (changed|renamed|moved)|in the past|from now on)\b", re.IGNORECASE)
# What a page may name although the tree does not hold it: results of builds and what others own.
SUFFIXES = {".cpp", ".h", ".py", ".md", ".json", ".txt", ".cmake", ".conf", ".service", ".yml"}
LINK = re.compile(r"(?<!!)\[[^\]]*\]\(([^)#\s]+)(?:#[^)]*)?\)")
CODE = re.compile(r"`([^`\n]+)`")
TYPE = re.compile(r"^(?:\w+::)*[A-Z][a-z0-9]+(?:[A-Z][A-Za-z0-9]*)+$")
TOP = ("src/", "tools/", "tests/", "docs/", "bench/", "fuzz/", "samples/", "scripts/", "packaging/",
       "cmake/")


def tracked(tree):
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=tree, check=True,
                            capture_output=True, text=True).stdout
    return [name for name in listed.splitlines() if (tree / name).is_file()]


def prose(text):
    """(line number, line) of what is neither a code block nor indented code."""
    fenced = False
    for number, line in enumerate(text.splitlines(), 1):
        if line.lstrip().startswith("```"):
            fenced = not fenced
        elif not fenced and not line.startswith("    "):
            yield number, line


def expanded(name):
    """`engine.{h,cpp}` names two files."""
    match = re.fullmatch(r"(.*)\{([^{}]*)\}(.*)", name)
    if not match:
        return [name]
    return [match.group(1) + part + match.group(3) for part in match.group(2).split(",")]


class Pages:
    def __init__(self, tree, files=None):
        self._tree = tree
        self._files = tracked(tree) if files is None else files
        self._names = {Path(name).name for name in self._files}
        self._folders = {str(parent) for name in self._files for parent in Path(name).parents}
        sources = "".join((tree / name).read_text(encoding="utf-8", errors="replace")
                          for name in self._files if name.endswith((".cpp", ".h", ".py", ".cmake")))
        self._words = set(re.findall(r"\w+", sources))

    def faults(self):
        for name in self._files:
            if name.endswith(".md"):
                yield from self._page(name, (self._tree / name).read_text(encoding="utf-8"))
        yield from self._testing()

    def _page(self, name, text):
        for number, line in prose(text):
            where = f"{name}:{number}"
            for target in LINK.findall(line):
                if not self._is_link(name, target):
                    yield f"{where}: the link to {target} leads nowhere"
            for code in CODE.findall(line):
                yield from (f"{where}: `{code}` names {fault}" for fault in self._named(name, code))
            words = HISTORY.search(CODE.sub("", line))
            if words and name != "CHANGELOG.md":
                yield f"{where}: \"{words.group()}\" describes a former state"
            if len(line) > WIDTH and not line.startswith(("|", "<!--")) and not LINK.search(line):
                yield f"{where}: is wider than {WIDTH} characters"
        if re.fullmatch(r"src/\w+/README\.md", name):
            yield from self._headings(name, text)

    def _is_link(self, page, target):
        if re.match(r"[a-z]+:", target):
            return True
        return ((self._tree / page).parent / target).exists()

    def _named(self, page, code):
        """What a text in backticks names and the tree does not have."""
        if TYPE.match(code):
            if code.split("::")[-1] not in self._words:
                yield "a type that no source knows"
            return
        for path in expanded(code):
            if re.search(r"[\s<>*$%=()\"']", path) or path.startswith(("/", "~", "-", "build/")):
                continue
            if path.startswith(TOP) or path.startswith("../"):
                base = self._tree if path.startswith(TOP) else (self._tree / page).parent
                if not list(base.glob(path)) and not (base / path).exists():
                    if not self._matches(path):
                        yield "a path that does not exist"
            elif Path(path).suffix in SUFFIXES and "/" not in path:
                if path not in self._names:
                    yield "a file that does not exist"
            elif Path(path).suffix in (".h", ".cpp", ".md", ".py") and "/" in path:
                if not any(file.endswith("/" + path) or file == path for file in self._files):
                    yield "a file that does not exist"

    def _matches(self, path):
        """A path without its suffix names all files that begin so."""
        return any(file.startswith(path) for file in self._files) or path.rstrip("/") in self._folders

    @staticmethod
    def _headings(name, text):
        found = re.findall(r"^## (.*)$", text, re.MULTILINE)
        places = []
        for heading in found:
            if heading not in HEADINGS:
                yield f"{name}: the heading \"{heading}\" is none of the list"
                return
            places.append(HEADINGS.index(heading))
        if places != sorted(set(places)):
            yield f"{name}: the headings are not in the order of the list"

    def _testing(self):
        page = self._tree / "docs/testing.md"
        text = page.read_text(encoding="utf-8") if page.is_file() else ""
        for name in self._files:
            path = Path(name)
            is_test = path.name.endswith("_test.py") or path.suffix in ("", ".cpp")
            if path.is_relative_to("tests/system") and is_test:
                if f"`{path.name}`" not in text:
                    yield f"docs/testing.md: does not name {name}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tree", type=Path, required=True, help="the top of the tree")
    faults = list(Pages(parser.parse_args().tree).faults())
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
