#!/usr/bin/env python3
"""Checks that the includes of src/ and tools/tarnctl/ point the way that include_order.txt says.

Also checks what every file keeps to: includes are written as paths from src/ or tools/ and name a
file that exists, a source includes its own header first, and a header has #pragma once and a line
that says which threads may use it.
"""

import argparse
import fnmatch
import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')
TOOL = "tarnctl"


class Order:
    """The content of the list file."""

    def __init__(self, text):
        self.folders = []
        self.shared = []
        self.apart = []
        self.made = []
        for number, line in enumerate(text.splitlines(), 1):
            words = line.split("#", 1)[0].split()
            if not words:
                continue
            kind, rest = words[0], words[1:]
            if kind == "order":
                self.folders = rest
            elif kind == "shared":
                self.shared = rest
            elif kind == "made":
                self.made = rest
            elif kind == "apart" and len(rest) >= 2:
                self.apart.append((rest[0], rest[1:]))
            else:
                raise ValueError(f"line {number} of the list is not understood: {line}")

    def rank(self, file):
        """The place of a file of src/ in the order; what lies at the top, as paths.h, is lowest."""
        folder, _, rest = file.partition("/")
        if not rest:
            return -1
        return self.folders.index(folder) if folder in self.folders else None

    def fault(self, file, included):
        """Why `file` may not include `included`; None if it may."""
        if fnmatch.fnmatch(file, "*_format.h") and not fnmatch.fnmatch(included, "*_format.h"):
            return "is a format and may include formats only"
        for pattern, refused in self.apart:
            if fnmatch.fnmatch(file, pattern):
                if any(fnmatch.fnmatch(included, name) for name in refused):
                    return "has to do without it"
        if file.startswith(TOOL + "/"):
            return self._fault_of_tool(file, included)
        if included.startswith(TOOL + "/"):
            return "is part of the daemon, which knows nothing of its tools"
        mine, other = self.rank(file), self.rank(included)
        if mine is None or other is None:
            return "lies in a folder that the order does not name"
        return "points upwards" if other > mine else None

    def _fault_of_tool(self, file, included):
        """Sub-commands include themselves, the shared folders and src/; the top includes all."""
        if not included.startswith(TOOL + "/") or file.count("/") == 1:
            return None
        if included.count("/") == 1:
            return "points upwards"
        mine, other = file.split("/")[1], included.split("/")[1]
        if mine == other:
            return None
        if other not in self.shared:
            return "belongs to another sub-command"
        if mine in self.shared and self.shared.index(other) > self.shared.index(mine):
            return "points upwards"
        return None


def includes_of(text):
    """(line number, written in quotes, name) of every include."""
    for number, line in enumerate(text.splitlines(), 1):
        match = INCLUDE.match(line)
        if match:
            yield number, match.group(1) == '"', match.group(2)


def files_of(root):
    return [path for path in sorted(root.rglob("*")) if path.suffix in (".h", ".cpp")]


def faults_of(source, order, tools=None):
    """Every fault of the sources below `source`, and of tools/tarnctl/, as one line of text each."""
    files = {path.relative_to(source).as_posix(): path for path in files_of(source)}
    if tools is not None:
        files |= {path.relative_to(tools).as_posix(): path
                  for path in files_of(tools / TOOL)}
    for file, path in files.items():
        text = path.read_text(encoding="utf-8")
        if path.suffix == ".h" and not re.search(r"^#pragma once$", text, re.MULTILINE):
            yield f"{file}: has no #pragma once"
        if path.suffix == ".h" and not re.search(r"^ *//.*\bThreads: \S", text, re.MULTILINE):
            yield f"{file}: has no comment that says Threads:"
        included = list(includes_of(text))
        own = file[:-len(".cpp")] + ".h"
        if path.suffix == ".cpp" and own in files and (not included or included[0][2] != own):
            yield f"{file}: does not include its own header first"
        for number, quoted, name in included:
            if not quoted:
                if name in files:
                    yield f"{file}:{number}: <{name}> is the project's and belongs in quotes"
            elif name not in files and name not in order.made:
                yield f'{file}:{number}: "{name}" is no path from src/ or tools/'
            else:
                fault = order.fault(file, name)
                if fault:
                    yield f'{file}:{number}: includes "{name}" but {fault}'


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--source", type=pathlib.Path, required=True, help="the folder src")
    parser.add_argument("--tools", type=pathlib.Path, help="the folder tools")
    parser.add_argument("--order", type=pathlib.Path,
                        default=pathlib.Path(__file__).with_name("include_order.txt"))
    options = parser.parse_args()
    order = Order(options.order.read_text(encoding="utf-8"))
    faults = list(faults_of(options.source, order, options.tools))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
