#!/usr/bin/env python3
"""tarnctl as it is met for the first time: each sub-command with wrong words, files that are not
what they should be, outputs that take nothing, and on a machine without a daemon or a peer."""

import fcntl
import os
import pty
import re
import shutil
import struct
import subprocess
import tempfile
import termios
import unittest
from pathlib import Path

from harness import PATIENCE, TREE

TARNCTL = os.environ["TARNCTL_BINARY"]
SAMPLE = str(TREE / "samples" / "sensor-302-alerts.u2")
CONFIG = ["-c", "/dev/null", "-n", "/dev/null", "--state", "/dev/null"]
# What a sub-command writes on standard output without a daemon, and its exit status then.
WRITES = [(["help"], 0), (["completion", "zsh"], 0), (["check", "--summary"], 1),
          (["explain", "7", *CONFIG], 0), (["show", SAMPLE], 0), (["show", "--json", SAMPLE], 0),
          (["status"], 1), (["status", "--json"], 1), (["status", "--prometheus"], 1),
          (["replay", "--json", "/none"], 1)]


def run(*words, **options):
    options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE,
               **options}
    return subprocess.run([TARNCTL, *words], text=True, check=False, timeout=PATIENCE, **options)


def sub_commands():
    """The names of the list that follows its heading in the help."""
    lines = run("help").stdout.splitlines()
    begin = next(number for number, line in enumerate(lines)
                 if re.fullmatch(r"sub-commands:", line, re.IGNORECASE))
    names = []
    for line in lines[begin + 1:]:
        if not line.strip():
            break
        if match := re.match(r"  ([a-z]+)\b", line):
            names.append(match.group(1))
    return names


def on_terminal(columns, *words):
    """(exit status, what it shows) on a terminal of that width."""
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    process = subprocess.Popen([TARNCTL, *words], stdin=subprocess.DEVNULL, stdout=slave,
                               stderr=slave, env={**os.environ, "NO_COLOR": "1"})
    os.close(slave)
    shown = b""
    while True:
        try:
            piece = os.read(master, 65536)
        except OSError:  # how a terminal says that nobody has its other end any more
            piece = b""
        if not piece:
            break
        shown += piece
    os.close(master)
    return process.wait(timeout=PATIENCE), shown.decode().replace("\r\n", "\n")


class FirstUseTest(unittest.TestCase):
    def setUp(self):
        self.folder = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)

    def test_the_help_of_each_fits_the_terminal(self):
        names = sub_commands()
        self.assertLess(10, len(names))
        for name in names:
            for columns in (40, 80):
                status, shown = on_terminal(columns, name, "--help")
                self.assertEqual(0, status, name)
                # A command of an example stays whole, so that it can be copied.
                long = [line for line in shown.splitlines()
                        if len(line) > columns and not line.lstrip().startswith("tarnctl ")]
                self.assertEqual([], long, name)

    def test_a_wrong_option_is_named_by_each(self):
        for name in sub_commands():
            done = run(name, "--wrong")
            self.assertEqual((2, ""), (done.returncode, done.stdout), name)
            self.assertIn(f"tarnctl {name}: unknown option '--wrong'", done.stderr)
            self.assertIn(f"'tarnctl {name} --help'", done.stderr)

    def test_a_flag_takes_no_value(self):
        for words in (["status", "--json=no"], ["check", "--strict=0"], ["show", "--json=5", "-"]):
            done = run(*words)
            self.assertEqual((2, ""), (done.returncode, done.stdout), words)
            self.assertIn(f"option '{words[1].split('=')[0]}' takes no value", done.stderr)

    def test_a_number_out_of_its_range_is_named_with_the_range(self):
        for words, text in ((["explain", "0"], "0 is no whole number from 1 to 4294967295"),
                            (["explain", "1", "--sport", "http"],
                             "--sport: http is no whole number from 0 to 65535"),
                            (["feed", "p", "--bookmark", "b", "--window", "1025"],
                             "--window: 1025 is no whole number from 1 to 1024")):
            done = run(*words)
            self.assertEqual((2, ""), (done.returncode, done.stdout), words)
            self.assertIn(text, done.stderr)

    def test_a_missing_file_is_named(self):
        for words in (["check", "--rules", "/none/x", "--no-places", *CONFIG],
                      ["check", "--protect", "/none/x", "--no-places", *CONFIG],
                      ["explain", "7", "-c", "/none/x", "-n", "/dev/null"],
                      ["explain", "7", "--alert", "/none/x", *CONFIG],
                      ["explain", "--report", "/none/x", *CONFIG], ["import", "/none/x"],
                      ["show", "/none/x"], ["replay", "/none/x"],
                      ["secmgr", "--never", "/none/x"], ["packetlog", "--dir", "/none/x"],
                      ["feed", "/none/x", "--bookmark", "/none/b", "--once"]):
            done = run(*words)
            self.assertIn(done.returncode, (1, 2), words)
            self.assertIn("/none", done.stderr, words)
            self.assertIn(f"tarnctl {words[0]}: ", done.stderr)

    def test_a_folder_in_a_files_place_is_named(self):
        folder = str(self.folder)
        rules = self.folder / "a.rules"
        rules.write_text('alert tcp any any -> any any (msg:"m"; sid:7;)\n', encoding="utf-8")
        for words in (["explain", "7", "-c", folder, "-n", "/dev/null", "--state", "/dev/null"],
                      ["explain", "7", "--alert", folder, *CONFIG],
                      ["explain", "--report", folder, *CONFIG],
                      ["import", "-n", folder, str(rules)], ["show", folder], ["replay", folder]):
            done = run(*words)
            self.assertEqual(1, done.returncode, words)
            self.assertIn(folder, done.stderr, words)
            self.assertNotIn("holds no report", done.stderr)

    def test_an_output_that_takes_nothing_is_named(self):
        with open("/dev/full", "wb", buffering=0) as full:
            for words, _ in WRITES:
                done = run(*words, stdout=full)
                self.assertEqual(1, done.returncode, words)
                self.assertIn("standard output: No space left on device", done.stderr, words)

    def test_a_reader_that_is_gone_is_no_fault(self):
        for words, status in WRITES:
            read_end, write_end = os.pipe()
            os.close(read_end)
            done = run(*words, stdout=write_end)
            os.close(write_end)
            self.assertEqual(status, done.returncode, words)
            self.assertNotIn("standard output", done.stderr, words)

    def test_an_output_that_is_closed_goes_into_no_file(self):
        rules = self.folder / "a.rules"
        rules.write_text('alert tcp any any -> any any (msg:"m"; sid:7;)\n', encoding="utf-8")
        events = self.folder / "events"
        done = run("import", "--json", "-n", str(events), str(rules),
                   preexec_fn=lambda: os.close(1), stdout=None)
        self.assertEqual(1, done.returncode)
        self.assertIn("standard output: Bad file descriptor", done.stderr)
        self.assertIn("se.7.msg = m\n", events.read_text(encoding="utf-8"))
        self.assertNotIn("{", events.read_text(encoding="utf-8"))

    def test_an_input_that_is_closed_is_no_file(self):
        done = run("show", "-", preexec_fn=lambda: os.close(0), stdin=None)
        self.assertEqual(1, done.returncode)
        self.assertIn("standard input", done.stderr)

    def test_messages_that_nobody_takes_stop_nothing(self):
        done = run("show", SAMPLE, preexec_fn=lambda: os.close(2), stderr=None)
        self.assertEqual(0, done.returncode)
        self.assertIn("event", done.stdout)

    def test_lines_fit_a_narrow_terminal(self):
        for words, _ in WRITES:
            if "--json" in words or "--prometheus" in words or words[0] == "completion":
                continue
            for columns in (40, 80):
                _, shown = on_terminal(columns, *words)
                long = [line for line in shown.splitlines()
                        if len(line) > columns and not line.lstrip().startswith("tarnctl ")
                        and " " in line.strip()]
                self.assertEqual([], long, words)


if __name__ == "__main__":
    unittest.main()
