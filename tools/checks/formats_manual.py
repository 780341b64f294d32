#!/usr/bin/env python3
"""Makes the man page tarn-formats(7) of the pages in docs/formats, or says that it is another.

The pages of the two configuration files have man pages of their own. What is only for those who
work on the code, the places of sources and the reasons, is left out.
"""

import argparse
import re
import sys
from pathlib import Path

PAGES = ("unified2", "snort_errors", "event_report", "event_queue", "shm_ring", "crm_message",
         "quarantine_rule", "security_manager", "packet_log_control", "packet_log_record",
         "connection_hash", "state_file")
MANUALS = {"tarn_conf": "tarn.conf(5)", "tarn_event_conf": "tarn_event.conf(5)"}
LEFT_OUT = ("Reasons",)
COLUMN = 24  # the widest that a column of a table but the last is made

HEAD = """.Dd November 22, 2026
.Dt TARN-FORMATS 7
.Os tarn @PROJECT_VERSION@
.Sh NAME
.Nm tarn-formats
.Nd what tarn exchanges with the processes around it
.Sh DESCRIPTION
The formats of all that
.Xr tarn 8
reads and writes, but for its configuration.
Offsets and sizes are in bytes.
Where nothing else is said, numbers are in the byte order of the host.
"""
TAIL = """.Sh SEE ALSO
.Xr tarn.conf 5 ,
.Xr tarn_event.conf 5 ,
.Xr tarn 8
"""


def plain(text):
    """A text of Markdown as one of roff: without links, escaped, code in italics."""
    def link(match):
        page = re.fullmatch(r"(?:formats/)?(\w+)\.md.*", match.group(2))
        if page and page.group(1) in MANUALS:
            return MANUALS[page.group(1)]
        return f"the section on {match.group(1).removesuffix('.md').replace('_', ' ')}"

    text = re.sub(r"\[([^]]+)\]\(([^)]+)\)", link, text)
    text = text.replace("\\", "\\e").replace("-", "\\-")
    text = re.sub(r"`([^`]+)`",
                  lambda match: "\\fI" + match.group(1).replace("  ", "\\ \\ ") + "\\fR", text)
    return re.sub(r"\*\*([^*]+)\*\*", r"\\fB\1\\fR", text)


def line(text):
    """A line of text, which must not look like a request."""
    return ("\\&" if text[:1] in ".'" else "") + text + "\n"


def sentences(text):
    """A paragraph, each sentence on a line of its own, without those about files of the tree."""
    parts = re.split(r"(?<=[.:;])(?<!Code:) +(?=[A-Z`])", text.strip())
    return "".join(line(plain(part)) for part in parts
                   if part and not re.search(r"`(?:src|tests|fuzz|samples|docs)/", part))


def table(rows):
    cells = [[plain(cell.strip()) for cell in re.split(r"(?<!\\)\|", row.strip()[1:-1])]
             for row in rows]
    head, body = cells[0], cells[2:]
    widths = [min(COLUMN, max(len(re.sub(r"\\f.|\\", "", row[number])) for row in [head] + body
                              if number < len(row))) for number in range(len(head))]
    text = ".Bl -column " + " ".join('"' + "m" * max(1, width) + '"' for width in widths) + "\n"
    for row in [head] + body:
        text += ".It " + " Ta ".join(cell.replace('"', "\\(dq") or "\\&" for cell in row) + "\n"
    return text + ".El\n"


def blocks(markdown):
    """The blocks of a page: fences as they are, all else divided by empty lines and headings."""
    markdown = re.sub(r"<!--.*?-->\n?", "", markdown, flags=re.S)
    for part in re.split(r"(^```.*?^```$)", markdown, flags=re.M | re.S):
        if part.startswith("```"):
            yield part
        else:
            yield from (block.strip("\n") for block in re.split(r"\n\s*\n|(?<=\n)(?=#)", part)
                        if block.strip())


def items(block):
    text = ".Bl -bullet\n"
    for item in re.split(r"^(?:- |\d+\. )", block, flags=re.M)[1:]:
        text += ".It\n" + sentences(" ".join(item.split()))
    return text + ".El\n"


def section(markdown):
    text, is_left_out, follows = "", False, False
    for block in blocks(markdown):
        if block.startswith("# "):
            text += ".Sh " + plain(block[2:].splitlines()[0]).upper().replace("\\FI", "").replace(
                "\\FR", "") + "\n"
            follows = False
            continue
        heading = re.match(r"#{2,} (.*)", block)
        if heading:
            is_left_out = heading.group(1) in LEFT_OUT
            if not is_left_out:
                text += ".Ss " + plain(heading.group(1)) + "\n"
            follows = False
            continue
        if is_left_out:
            continue
        if block.startswith("```"):
            lines = block.splitlines()[1:-1]
            text += ".Bd -literal\n" + "".join(
                line(row.replace("\\", "\\e").replace("-", "\\-")) if row.strip() else "\n"
                for row in lines) + ".Ed\n"
        elif block.startswith("|"):
            text += table(block.splitlines())
        elif re.match(r"- |\d+\. ", block):
            text += items(block)
        else:
            paragraph = sentences(" ".join(block.split()))
            if paragraph:
                text += (".Pp\n" if follows else "") + paragraph
        follows = True
    return text


def manual(pages):
    return HEAD + "".join(section((pages / f"{name}.md").read_text(encoding="utf-8"))
                          for name in PAGES) + TAIL


def faults_of(pages, page):
    known = set(PAGES) | set(MANUALS)
    faults = [f"{path.name}: has no place in tarn-formats(7)" for path in sorted(pages.glob("*.md"))
              if path.stem not in known]
    if not faults and manual(pages) != page.read_text(encoding="utf-8"):
        faults.append(f"{page.name}: is not what docs/formats says; make it anew with "
                      "tools/checks/formats_manual.py --write")
    return faults


def main():
    tree = Path(__file__).resolve().parents[2]
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--pages", type=Path, default=tree / "docs/formats")
    parser.add_argument("--manual", type=Path, default=tree / "docs/man/tarn-formats.7")
    parser.add_argument("--write", action="store_true", help="make the man page")
    options = parser.parse_args()
    if options.write:
        options.manual.write_text(manual(options.pages), encoding="utf-8")
        return 0
    faults = faults_of(options.pages, options.manual)
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
