#!/usr/bin/env python3
"""Checks that the includes of src/ point the way that include_order.txt tells.

Also checks what every file of src/ keeps to: includes are written as paths from src/ and name a
file that is there, a source includes its own header first, and a header has #pragma once.
"""

import argparse
import fnmatch
import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')


class Order:
    """The content of the list file."""

    def __init__(self, text):
        self.folders = []
        self.free = []
        self.formats = []
        self.knots = []
        self.apart = []
        for number, line in enumerate(text.splitlines(), 1):
            words = line.split('#', 1)[0].split()
            if not words:
                continue
            kind, rest = words[0], words[1:]
            if kind == 'order':
                self.folders = rest
            elif kind == 'free' and len(rest) == 1:
                self.free += rest
            elif kind == 'format' and len(rest) == 1:
                self.formats += rest
            elif kind == 'knot' and len(rest) == 2:
                self.knots.append(tuple(rest))
            elif kind == 'apart' and len(rest) >= 2:
                self.apart.append((rest[0], rest[1:]))
            else:
                raise ValueError(f'line {number} of the list is not understood: {line}')

    def rank(self, file):
        folder = file.split('/')[0]
        return self.folders.index(folder) if folder in self.folders else None

    def is_format(self, file):
        return any(fnmatch.fnmatch(file, pattern) for pattern in self.formats)

    def fault(self, file, included):
        """Why `file` may not include `included`; None if it may."""
        if file in self.free and included not in self.free:
            return 'is for everyone and may include only what else is'
        if self.is_format(file) and not self.is_format(included):
            return 'is a format and may include formats only'
        for pattern, refused in self.apart:
            if fnmatch.fnmatch(file, pattern):
                if any(fnmatch.fnmatch(included, name) for name in refused):
                    return 'stands apart from that'
        if included in self.free or self.is_format(included) or (file, included) in self.knots:
            return None
        mine, other = self.rank(file), self.rank(included)
        if mine is None or other is None:
            return 'lies in a folder that the order does not name'
        return 'points upwards' if other > mine else None


def includes_of(text):
    """(line number, written in quotes, name) of every include."""
    for number, line in enumerate(text.splitlines(), 1):
        match = INCLUDE.match(line)
        if match:
            yield number, match.group(1) == '"', match.group(2)


def faults_of(source, order):
    """Every fault of a tree of sources, as one line of text each."""
    files = sorted(p for p in source.rglob('*') if p.suffix in ('.h', '.cpp'))
    names = {p.relative_to(source).as_posix() for p in files}
    for path in files:
        file = path.relative_to(source).as_posix()
        text = path.read_text(encoding='utf-8')
        if path.suffix == '.h' and not re.search(r'^#pragma once$', text, re.MULTILINE):
            yield f'{file}: has no #pragma once'
        included = list(includes_of(text))
        own = file[:-len('.cpp')] + '.h'
        if path.suffix == '.cpp' and own in names and (not included or included[0][2] != own):
            yield f'{file}: does not include its own header first'
        for number, quoted, name in included:
            if not quoted:
                if name in names:
                    yield f'{file}:{number}: <{name}> is the project\'s and belongs in quotes'
            elif name not in names:
                yield f'{file}:{number}: "{name}" is no path from src/'
            else:
                fault = order.fault(file, name)
                if fault:
                    yield f'{file}:{number}: includes "{name}" but {fault}'


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--source', type=pathlib.Path, required=True, help='the folder src')
    parser.add_argument('--order', type=pathlib.Path,
                        default=pathlib.Path(__file__).with_name('include_order.txt'))
    options = parser.parse_args()
    faults = list(faults_of(options.source, Order(options.order.read_text(encoding='utf-8'))))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
