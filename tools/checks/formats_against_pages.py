#!/usr/bin/env python3
"""Compares the tables of docs/formats/ with the offsets and sizes that the compiler gives.

The tables become static assertions in one small source, which is then compiled. How a page marks
its tables is described in README.md beside this script.
"""

import argparse
import pathlib
import re
import subprocess
import sys

MARK = re.compile(r"^\s*<!--\s*check:\s*(\S+)\s+from\s+(\S+?)\s*-->\s*$")
UNCHECKED = re.compile(r"^\s*<!--\s*unchecked:\s*(\S.*?)\s*-->\s*$")
NAME = re.compile(r"`([A-Za-z_][\w.\[\]]*)`")
COLUMNS = ("offset", "size", "field")


class Table:
    """One marked table: a type, its header, and rows of (line, offset, size, member)."""

    def __init__(self, page, line, type_name, header):
        self.page, self.line, self.type_name, self.header = page, line, type_name, header
        self.rows = []


def cells_of(line):
    return [cell.strip() for cell in line.strip().strip("|").split("|")]


def number_of(cell):
    """The number a cell begins with, decimal or hexadecimal; None if there is none."""
    match = re.match(r"`?(0x[0-9a-fA-F]+|\d+)`?$", cell)
    return int(match.group(1), 0) if match else None


def columns_of(line):
    """Where the three columns are, if this line is the head of such a table."""
    heads = [cell.lower() for cell in cells_of(line)] if line.lstrip().startswith("|") else []
    return {name: heads.index(name) for name in COLUMNS} if set(COLUMNS) <= set(heads) else None


def read_page(page, text, faults):
    """The marked tables of one page. What cannot be read is added to the faults."""
    tables = []
    mark, excused, table, columns = None, False, None, None
    for number, line in enumerate(text.splitlines(), 1):
        where = f"{page}:{number}"
        match = MARK.match(line)
        if match or UNCHECKED.match(line) or line.lstrip().startswith("<!-- check"):
            if mark:
                faults.append(f"{page}:{mark[0]}: no table follows")
            mark, excused, table = None, bool(UNCHECKED.match(line)), None
            if match:
                mark = (number, match.group(1), match.group(2))
            elif not excused:
                faults.append(f'{where}: is no mark of the form "check: TYPE from HEADER"')
            continue
        if not line.lstrip().startswith("|"):
            if table and not table.rows:
                faults.append(f"{page}:{table.line}: the table has no row that can be compared")
            table = None
            continue
        if table is None:
            columns = columns_of(line)
            if columns and mark:
                table = Table(page, number, mark[1], mark[2])
                tables.append(table)
            elif columns and not excused:
                faults.append(f"{where}: a table of offsets without a mark")
            if columns:
                mark, excused = None, False
            continue
        cells = cells_of(line)
        if all(re.fullmatch(r":?-+:?", cell) for cell in cells):
            continue
        read_row(table, number, cells, columns, faults)
    if mark:
        faults.append(f"{page}:{mark[0]}: no table follows")
    return tables


def read_row(table, number, cells, columns, faults):
    where = f"{table.page}:{number}"
    if len(cells) <= max(columns.values()):
        faults.append(f"{where}: the row is too short")
        return
    member = NAME.search(cells[columns["field"]])
    if not member:
        return
    offset, size = number_of(cells[columns["offset"]]), number_of(cells[columns["size"]])
    if offset is None or size is None:
        faults.append(f"{where}: offset and size of `{member.group(1)}` are to be plain numbers")
        return
    expected = table.rows[-1][1] + table.rows[-1][2] if table.rows else 0
    if offset != expected:
        faults.append(f"{where}: `{member.group(1)}` begins at {offset}, not at {expected}, "
                      "where the row before it ends")
    table.rows.append((number, offset, size, member.group(1)))


def source_of(tables):
    """The assertions of all tables as one translation unit."""
    lines = ["#include <cstddef>", "#include <utility>"]
    lines += [f'#include "{header}"' for header in sorted({t.header for t in tables})]
    for index, table in enumerate(tables):
        alias = f"Type{index}"
        lines += ["", f"using {alias} = {table.type_name};"]
        for number, offset, size, member in table.rows:
            where = f"{table.page}:{number}: {table.type_name}, {member}"
            lines.append(f"static_assert(offsetof({alias}, {member}) == {offset}, "
                         f'"{where}: the offset is not {offset}");')
            lines.append(f"static_assert(sizeof(std::declval<{alias}&>().{member}) == {size}, "
                         f'"{where}: the size is not {size}");')
        if table.rows:
            end = table.rows[-1][1] + table.rows[-1][2]
            lines.append(f'static_assert(sizeof({alias}) == {end}, "{table.page}:{table.line}: '
                         f'{table.type_name} does not end at {end}");')
    return "\n".join(lines) + "\n"


def headers_without_page(source, tables):
    """Headers of formats that define a struct and that no page marks."""
    described = {table.header for table in tables}
    for path in sorted(source.rglob("*_format.h")):
        name = path.relative_to(source).as_posix()
        text = path.read_text(encoding="utf-8")
        if name not in described and re.search(r"^struct\s+(\w|\[)[^;]*\{", text, re.MULTILINE):
            yield f"{name}: no page of the formats compares its tables with it"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--pages", type=pathlib.Path, required=True, help="the folder of pages")
    parser.add_argument("--source", type=pathlib.Path, required=True, help="the folder src")
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--output", type=pathlib.Path, required=True,
                        help="where the generated source goes")
    options = parser.parse_args()

    faults, tables = [], []
    for path in sorted(options.pages.glob("*.md")):
        tables += read_page(path.name, path.read_text(encoding="utf-8"), faults)
    faults += headers_without_page(options.source, tables)
    for fault in faults:
        print(fault)
    options.output.write_text(source_of(tables), encoding="utf-8")
    compiled = subprocess.run([options.compiler, "-std=c++20", "-fsyntax-only", "-w",
                               f"-I{options.source}", str(options.output)], check=False)
    print(f"{len(tables)} tables, {sum(len(table.rows) for table in tables)} fields compared")
    return 1 if faults or compiled.returncode != 0 else 0


if __name__ == "__main__":
    sys.exit(main())
