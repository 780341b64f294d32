#!/usr/bin/env python3
"""Holds docs/operations.md against the messages that the daemon logs.

Each message of levels 0 to 4 that a call in src/ names is a row of a table on the page, with the
level of the call, and each row is such a message. Level 5 traces what the code does and has no rows.
"""

import argparse
import re
import sys
from pathlib import Path

LEVELS = {"Error": 1, "Critical": 1, "Fatal": 1, "Warning": 2, "Info": 3, "Notice": 4, "Debug": 5}
TOKEN = re.compile(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'|//[^\n]*|/\*.*?\*/|[A-Za-z_]\w*|::|->|\S',
                   re.S)
# Functions that log a text which their callers give them: the level, and which argument it is.
SAYERS = {"WindDown": (1, 1), "QuitRemaining": (1, 1), "LogFaultAndRaise": (1, 0),
          "ReportErrno": (0, 1)}
# Types whose texts are logged, with the level.
TABLES = {"CaptureMessages": 2}
# Levels that a call names in another way. The daemon leaves its rings' second level at nothing.
OTHER_LEVELS = {"m_iErrorLevel": 1, "m_iInfoLevel": 0}
# How many calls of a file log what they are given, which is on the page where it comes from: from
# one of the above, from the functions that everything goes through, or frames of a stack.
PASSED_ON = {"daemon/application.cpp": 2, "daemon/engine.cpp": 2, "logging/sys_log.cpp": 4,
             "packet_log/packet_log_settings.cpp": 2, "ring/shm_event_pipe.cpp": 1}
ROW = re.compile(r"^\| ([0-4]) \| `([^`]+)` \| [^|\s]")


def tokens_of(text):
    return [token for token in TOKEN.findall(text) if not token.startswith(("//", "/*"))]


def arguments_after(tokens, place):
    """The arguments of the call whose opening bracket is at `place`, each a list of tokens."""
    arguments, depth = [[]], 0
    for token in tokens[place:]:
        if token in "([{":
            depth += 1
            if depth == 1:
                continue
        elif token in ")]}":
            depth -= 1
            if depth == 0:
                return arguments
        if token == "," and depth == 1:
            arguments.append([])
        else:
            arguments[-1].append(token)
    return arguments


def level_in(argument):
    """The level that an argument names, as in `Log::kError` or `kErrorLevel`; None for others."""
    text = "".join(argument)
    match = re.fullmatch(r"(?:(?:vald::)?Log::|log_level::)?k([A-Z][a-z]+?)(?:Level)?", text)
    return LEVELS.get(match.group(1)) if match else OTHER_LEVELS.get(text)


def literal_in(argument):
    """The text of an argument that is nothing but string literals."""
    if argument and all(token.startswith('"') for token in argument):
        text = "".join(token[1:-1] for token in argument)
        return text.replace('\\"', '"').removesuffix("\\n")
    return None


def texts_of(table):
    """The string literals among the elements of an initialiser."""
    return [text for text in map(literal_in, table) if text is not None]


def messages_in(text):
    """(level, message) of each call that logs, None for a message that it was given."""
    tokens = tokens_of(text)
    for place, token in enumerate(tokens[1:], 1):
        name = tokens[place - 1]
        if token == "{" and tokens[place - 2] in TABLES:
            for message in texts_of(arguments_after(tokens, place)):
                yield TABLES[tokens[place - 2]], message
        if token != "(":
            continue
        arguments = arguments_after(tokens, place)
        if name in SAYERS:
            level, number = SAYERS[name]
            message = literal_in(arguments[number]) if number < len(arguments) else None
            if message is not None:
                yield level, message
            continue
        if name in LEVELS and literal_in(arguments[0]) is not None:
            yield LEVELS[name], given(literal_in(arguments[0]))
            continue
        for number, level in enumerate(map(level_in, arguments)):
            after = arguments[number + 1:]
            # LogAt has the line and the name of its function in between.
            if name == "LogAt":
                after = after[2:]
            if level is not None and after and name not in SAYERS:
                yield level, given(literal_in(after[0]))


def given(message):
    """None for a format that is nothing but the text which the call was given."""
    return None if message == "%s" else message


def faults_of(page, source):
    faults = []
    lines = {}
    for path in sorted(source.rglob("*.cpp")):
        name = str(path.relative_to(source))
        passed_on = 0
        for level, message in messages_in(path.read_text(encoding="utf-8")):
            if level == 5:
                continue
            if message is None:
                passed_on += 1
            else:
                lines.setdefault((level, message), name)
        if passed_on != PASSED_ON.get(name, 0):
            faults.append(f"{name}: {passed_on} calls log what they are given, and "
                          f"{PASSED_ON.get(name, 0)} are known")
    rows = {}
    for number, line in enumerate(page.read_text(encoding="utf-8").splitlines(), 1):
        match = ROW.match(line)
        if match:
            row = int(match.group(1)), match.group(2)
            if row in rows:
                faults.append(f"{page.name}:{number}: `{row[1]}` is there twice")
            rows[row] = number
    for (level, message), name in lines.items():
        if (level, message) not in rows:
            faults.append(f"{name}: the message `{message}` of level {level} has no row in "
                          f"{page.name}")
    for (level, message), number in rows.items():
        if (level, message) not in lines:
            faults.append(f"{page.name}:{number}: `{message}` of level {level} is no message")
    return faults


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--page", type=Path, required=True)
    parser.add_argument("--source", type=Path, required=True)
    options = parser.parse_args()
    faults = faults_of(options.page, options.source)
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
