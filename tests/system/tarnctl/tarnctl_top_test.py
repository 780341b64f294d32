#!/usr/bin/env python3
"""tarnctl top on a terminal: what it shows, its keys, its ends, and a terminal that is put back."""

import fcntl
import itertools
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import unittest

import harness
from harness import PATIENCE, TREE, wait_for

TARNCTL = os.environ["TARNCTL_BINARY"]
LEAVES = b"\x1b[?1049l"  # back from the screen of its own
ENTERS = b"\x1b[?1049h"


class Terminal:
    """tarnctl top with a terminal of this size; collects all that it writes."""

    def __init__(self, columns, interval="0.2"):
        self.master, slave = pty.openpty()
        self.resize(columns)
        self.before = termios.tcgetattr(slave)
        self.slave = slave
        self.output = b""
        self.process = subprocess.Popen(
            [TARNCTL, "top", "--interval", interval], stdin=slave, stdout=slave,
            stderr=subprocess.PIPE, start_new_session=True,
            env={**os.environ, "TERM": "xterm", "NO_COLOR": "1"})

    def resize(self, columns):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", 40, columns, 0, 0))

    def read(self):
        while select.select([self.master], [], [], 0.01)[0]:
            try:
                self.output += os.read(self.master, 65536)
            except OSError:
                return self.output
        return self.output

    def shown(self, text, since=0):
        """Waits until a text is on the screen, whose words may come with moves between them."""
        pattern = re.compile(r"(?:\s|\x1b\[[0-9;?]*[A-Za-z])*".join(map(re.escape, text.split()))
                             .encode())
        wait_for(lambda: pattern.search(self.read()[since:]),
                 f"{text!r} in {self.output[-3000:]!r}")

    def shown_on_a_new_screen(self, text):
        """Waits until a text is on a screen that is drawn as a whole.

        An ordinary update writes only the letters that differ from those before.
        """
        columns = itertools.cycle((81, 80))

        def is_shown():
            since = len(self.read())
            self.resize(next(columns))
            self.process.send_signal(signal.SIGWINCH)
            wait_for(lambda: len(self.read()) > since, "a new screen")
            return text.encode() in self.read()[since:]

        wait_for(is_shown, text)

    def key(self, letter):
        os.write(self.master, letter)

    def end(self):
        """Its exit status, once it has ended."""
        wait_for(lambda: (self.read(), self.process.poll() is not None)[1], "the end")
        self.read()
        return self.process.returncode

    def is_restored(self):
        return (self.output.rstrip().find(LEAVES) > self.output.find(ENTERS) >= 0
                and termios.tcgetattr(self.slave) == self.before)

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stderr.close()
        os.close(self.master)
        os.close(self.slave)


class TopTest(harness.DaemonTest):
    def terminal(self, columns, *interval):
        terminal = Terminal(columns, *interval)
        self.addCleanup(terminal.close)
        return terminal

    def test_rates_and_the_busiest_are_shown(self):
        harness.EVENT_CONFIG.write_text(
            (TREE / "samples/tarn_event.conf").read_text(encoding="utf-8"), encoding="utf-8")
        self.daemon().ready()
        terminal = self.terminal(80)
        terminal.shown("signature in 60 s")
        subprocess.run([TARNCTL, "replay", "--rate", "200",
                        str(TREE / "samples/sensor-302-alerts.u2")], check=True,
                       timeout=4 * PATIENCE, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        terminal.shown_on_a_new_screen("1000010")
        terminal.shown_on_a_new_screen("203.0.113.")
        terminal.key(b"q")
        self.assertEqual(0, terminal.end())
        self.assertTrue(terminal.is_restored())
        self.assertEqual(302, len(self.crm.collect(302)))

    def test_it_works_without_anything(self):
        self.crm.close()
        terminal = self.terminal(80)
        terminal.shown("does not run")
        terminal.shown("fault:")
        terminal.key(b"q")
        self.assertEqual(0, terminal.end())

    def test_it_is_drawn_again_on_a_resize(self):
        terminal = self.terminal(80, "100")
        terminal.shown("source")
        before = len(terminal.read())
        terminal.resize(40)
        os.kill(terminal.process.pid, signal.SIGWINCH)
        terminal.shown("source", before)
        terminal.key(b"q")
        self.assertEqual(0, terminal.end())

    def test_the_terminal_is_put_back_on_every_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
            terminal = self.terminal(80)
            terminal.shown("signature")
            terminal.process.send_signal(number)
            self.assertEqual(0, terminal.end(), number)
            self.assertTrue(terminal.is_restored(), number)

    def test_it_refuses_without_a_terminal(self):
        for words in ([], ["--interval", "1"]):
            done = subprocess.run([TARNCTL, "top", *words], capture_output=True, text=True,
                                  check=False, timeout=PATIENCE, stdin=subprocess.DEVNULL)
            self.assertEqual((1, ""), (done.returncode, done.stdout))
            self.assertIn("needs a terminal", done.stderr)
        done = subprocess.run([TARNCTL, "top", "--interval", "0"], capture_output=True, text=True,
                              check=False, timeout=PATIENCE)
        self.assertEqual(2, done.returncode)

    def test_an_unknown_terminal_is_named(self):
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        self.addCleanup(os.close, slave)
        done = subprocess.run([TARNCTL, "top"], stdin=slave, stdout=slave, stderr=subprocess.PIPE,
                              text=True, check=False, timeout=PATIENCE,
                              env={**os.environ, "TERM": "nonesuch"})
        self.assertEqual(1, done.returncode)
        self.assertIn("nonesuch is not known", done.stderr)


if __name__ == "__main__":
    harness.main()
