#!/usr/bin/env python3
"""tarnctl at a shell: completion, a closed pipe, a full disk, peers that are missing."""

import os
import pty
import select
import shutil
import signal
import subprocess
import tempfile
import unittest
from pathlib import Path

from harness import PATIENCE, TREE, wait_for

TARNCTL = os.environ["TARNCTL_BINARY"]
SAMPLE = str(TREE / "samples" / "sensor-302-alerts.u2")


def run(*words, **options):
    return subprocess.run([TARNCTL, *words], capture_output=True, text=True, check=False,
                          timeout=PATIENCE, **options)


class CompletionTest(unittest.TestCase):
    def setUp(self):
        self.folder = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)

    def script(self, shell):
        path = self.folder / f"tarnctl.{shell}"
        path.write_text(run("completion", shell).stdout, encoding="utf-8")
        return path

    def complete(self, *words):
        """What bash offers for the last of the words."""
        line = " ".join(f"'{word}'" for word in ("tarnctl", *words))
        program = (f"source {self.script('bash')}; COMP_WORDS=({line}); COMP_CWORD={len(words)}; "
                   "_tarnctl 2>/dev/null; printf '%s\\n' \"${COMPREPLY[@]}\"")
        shell = subprocess.run(["bash", "--norc", "-c", program], capture_output=True, text=True,
                               check=True, timeout=PATIENCE, cwd=self.folder)
        return set(shell.stdout.split())

    def test_bash_offers_the_sub_commands(self):
        self.assertLessEqual({"crm", "messages", "replay", "secmgr", "help", "--version"},
                             self.complete(""))
        self.assertEqual({"crm"}, self.complete("cr"))
        self.assertEqual({"replay"}, self.complete("help", "rep"))

    def test_bash_offers_the_options_of_a_sub_command(self):
        self.assertLessEqual({"--channel", "--json", "--count", "--wide", "--color", "--help"},
                             self.complete("crm", "--"))
        self.assertEqual({"--loop"}, self.complete("replay", "--l"))
        self.assertNotIn("--loop", self.complete("crm", "--"))

    def test_bash_offers_the_values_of_an_option(self):
        self.assertEqual({"auto", "always"}, self.complete("crm", "--color", "a"))
        self.assertEqual({"max"}, self.complete("replay", "--rate", ""))
        self.assertEqual({"close", "silent", "short", "long"},
                         self.complete("secmgr", "--answer", ""))
        self.assertEqual(set(), self.complete("crm", "--count", ""))

    def test_bash_offers_files_and_directories(self):
        (self.folder / "alerts.u2").touch()
        (self.folder / "captures").mkdir()
        self.assertEqual({"alerts.u2"}, self.complete("replay", "al"))
        self.assertEqual({"alerts.u2"}, self.complete("replay", "--fifo", "al"))

    def test_bash_offers_files_after_a_short_option(self):
        (self.folder / "my.conf").touch()
        self.assertEqual({"my.conf"}, self.complete("check", "-c", "my"))
        self.assertEqual({"my.conf"}, self.complete("check", "--config", "my"))

    def test_a_shell_that_nobody_knows_is_refused(self):
        done = run("completion", "tcsh")
        self.assertEqual((2, ""), (done.returncode, done.stdout))
        self.assertIn("'tcsh'", done.stderr)


@unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
class ZshCompletionTest(unittest.TestCase):
    """zsh at a terminal of its own: a line is typed, and what the tabulator makes of it is read."""

    # The widget writes the line into a file, so that nothing has to be read off the terminal.
    START = """
        PS1= ; unsetopt beep
        fpath=({folder} $fpath)
        autoload -Uz compinit && compinit -D -u
        keep-line() {{ print -r -- "$BUFFER" >{folder}/line.new; mv {folder}/line.new {folder}/line }}
        zle -N keep-line; bindkey '^X^X' keep-line; bindkey '^I' complete-word
        : >{folder}/ready
    """

    def setUp(self):
        self.folder = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        (self.folder / "_tarnctl").write_text(run("completion", "zsh").stdout, encoding="utf-8")
        self.files = self.folder / "files"
        self.files.mkdir()
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        self.terminal = master
        shell = subprocess.Popen(["zsh", "-f", "-i"], stdin=slave, stdout=slave, stderr=slave,
                                 cwd=self.files, start_new_session=True,
                                 env={**os.environ, "TERM": "dumb"})
        os.close(slave)
        self.addCleanup(self.end, shell)
        start = self.folder / "start"
        start.write_text(self.START.format(folder=self.folder), encoding="utf-8")
        os.write(master, f"source {start}\n".encode())
        self.wait_for_file("ready")

    def end(self, shell):
        shell.kill()
        shell.wait(timeout=PATIENCE)

    def wait_for_file(self, name):
        def is_there():
            # A terminal that nobody reads would fill.
            while select.select([self.terminal], [], [], 0)[0]:
                os.read(self.terminal, 65536)
            return (self.folder / name).exists()
        wait_for(is_there, f"zsh to write {name}")
        return (self.folder / name).read_text("utf-8").rstrip("\n")

    def completed(self, words):
        """The line after these words and the tabulator."""
        (self.folder / "line").unlink(missing_ok=True)
        os.write(self.terminal, b"\x15" + words.encode() + b"\t\x18\x18")
        return self.wait_for_file("line")

    def test_a_sub_command_is_completed(self):
        self.assertEqual("tarnctl crm ", self.completed("tarnctl cr"))
        self.assertEqual("tarnctl explain ", self.completed("tarnctl ex"))
        self.assertEqual("tarnctl help import ", self.completed("tarnctl help im"))

    def test_an_option_and_its_value_are_completed(self):
        self.assertEqual("tarnctl crm --channel ", self.completed("tarnctl crm --ch"))
        self.assertEqual("tarnctl check --no-places ", self.completed("tarnctl check --no-p"))
        self.assertEqual("tarnctl crm --color never ", self.completed("tarnctl crm --color ne"))

    def test_a_file_is_completed(self):
        (self.files / "alerts.u2").touch()
        (self.files / "tarn.conf").touch()
        (self.files / "captures").mkdir()
        self.assertEqual("tarnctl replay alerts.u2 ", self.completed("tarnctl replay al"))
        self.assertEqual("tarnctl check -c tarn.conf ", self.completed("tarnctl check -c ta"))
        self.assertEqual("tarnctl check --rules alerts.u2 ",
                         self.completed("tarnctl check --rules al"))


@unittest.skipUnless(shutil.which("fish"), "fish is not installed")
class FishCompletionTest(unittest.TestCase):
    """What fish itself offers for a line."""

    def setUp(self):
        self.folder = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.files = self.folder / "files"
        self.files.mkdir()
        (self.folder / "tarnctl.fish").write_text(run("completion", "fish").stdout,
                                                  encoding="utf-8")

    def complete(self, line):
        program = f"source {self.folder}/tarnctl.fish; complete -C '{line}'"
        shell = subprocess.run(["fish", "--no-config", "-c", program], capture_output=True,
                               text=True, check=True, timeout=PATIENCE, cwd=self.files,
                               env={**os.environ, "HOME": str(self.folder)})
        return {offer.split("\t")[0] for offer in shell.stdout.splitlines()}

    def test_the_sub_commands_are_offered(self):
        self.assertLessEqual({"crm", "messages", "replay", "check", "import", "help"},
                             self.complete("tarnctl "))
        self.assertEqual({"explain"}, self.complete("tarnctl expl"))

    def test_the_options_and_their_values_are_offered(self):
        self.assertLessEqual({"--channel", "--json", "--count", "--wide", "--color"},
                             self.complete("tarnctl crm --"))
        self.assertEqual({"--loop"}, self.complete("tarnctl replay --l"))
        self.assertNotIn("--loop", self.complete("tarnctl crm --"))
        self.assertEqual({"auto", "always", "never"}, self.complete("tarnctl crm --color "))
        self.assertLessEqual({"-c", "-n"}, self.complete("tarnctl check -"))

    def test_files_are_offered_where_one_is_wanted(self):
        (self.files / "alerts.u2").touch()
        self.assertEqual({"alerts.u2"}, self.complete("tarnctl replay al"))
        self.assertEqual({"alerts.u2"}, self.complete("tarnctl check -c al"))
        self.assertEqual(set(), self.complete("tarnctl crm --count al"))
        self.assertEqual(set(), self.complete("tarnctl crm al"))


class OutputTest(unittest.TestCase):
    def test_a_closed_pipe_ends_quietly(self):
        for words in (["help"], ["completion", "bash"], ["crm"], ["messages"], ["secmgr"]):
            read_end, write_end = os.pipe()
            os.close(read_end)
            done = subprocess.run([TARNCTL, *words], stdout=write_end, stderr=subprocess.PIPE,
                                  text=True, check=False, timeout=PATIENCE)
            os.close(write_end)
            self.assertEqual(0, done.returncode, words)
            self.assertNotIn("standard output", done.stderr)

    def test_a_full_disk_is_named(self):
        with open("/dev/full", "wb", buffering=0) as full:
            for words in (["help"], ["completion", "fish"], ["replay", "--json", "/none"]):
                done = subprocess.run([TARNCTL, *words], stdout=full, stderr=subprocess.PIPE,
                                      text=True, check=False, timeout=PATIENCE)
                self.assertEqual(1, done.returncode, words)
                self.assertIn("standard output: No space left on device", done.stderr)

    def test_colour_goes_where_it_is_asked_for_only(self):
        self.assertNotIn("\x1b", run("help").stdout)


class MissingPeersTest(unittest.TestCase):
    def begin(self, *words, **options):
        process = subprocess.Popen([TARNCTL, *words], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, **options)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        return process

    def line_with(self, process, text):
        """The first line of its messages with that text."""
        for line in process.stderr:
            if text in line:
                return line
        self.fail(f"no line with {text}")
        return ""

    def test_a_wait_says_what_it_is_for(self):
        process = self.begin("crm")
        self.assertEqual("tarnctl crm: waiting: tarn is not running; no ring at "
                         "/var/tmp/EventQueueCRM2-0\n", self.line_with(process, "waiting"))
        process.send_signal(signal.SIGHUP)
        self.assertEqual(0, process.wait(timeout=PATIENCE))
        for name in ("messages", "secmgr"):
            process = self.begin(name)
            self.assertEqual(f"tarnctl {name}: waiting: tarn is not running\n",
                             self.line_with(process, "waiting"))
            process.terminate()
            self.assertEqual(0, process.wait(timeout=PATIENCE))

    def test_a_replay_says_what_it_waits_for(self):
        process = self.begin("replay", "--wait", str(PATIENCE), SAMPLE)
        self.assertEqual("tarnctl replay: waiting: tarn is not running; no FIFO at "
                         "/var/cache/qor-tarn/alerts.fifo\n", self.line_with(process, "waiting"))
        process.send_signal(signal.SIGHUP)
        self.assertEqual(1, process.wait(timeout=PATIENCE))

    def test_an_interrupt_ends_a_wait_for_standard_input(self):
        folder = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, folder)
        events = folder / "events"
        for words, status in ((["explain", "-n", "/dev/null", "-c", "/dev/null", "--report", "-"],
                               0),
                              (["explain", "-n", "-", "-c", "/dev/null", "7"], 1),
                              (["import", "-n", str(events), "-"], 1),
                              (["check", "-c", "-", "--no-places"], 2)):
            process = self.begin(*words, stdin=subprocess.PIPE)
            self.addCleanup(process.stdin.close)
            self.assertEqual(f"tarnctl {words[0]}: waiting: nothing comes on standard input\n",
                             self.line_with(process, "waiting"))
            process.send_signal(signal.SIGINT)
            self.assertEqual(status, process.wait(timeout=PATIENCE), words)
            self.assertEqual("", process.stdout.read())
        self.assertFalse(events.exists())

    def test_a_replay_takes_standard_input(self):
        fifo = Path(tempfile.mkdtemp()) / "fifo"
        self.addCleanup(shutil.rmtree, fifo.parent)
        os.mkfifo(fifo)
        with open(fifo.parent / "taken", "wb") as taken:
            reader = subprocess.Popen(["cat", str(fifo)], stdout=taken)
        self.addCleanup(reader.wait)
        self.addCleanup(reader.kill)
        process = self.begin("replay", "--rate", "max", "--wait", str(PATIENCE), "--fifo",
                             str(fifo), "-", stdin=subprocess.PIPE)
        self.assertIn("waiting: nothing comes on standard input",
                      self.line_with(process, "waiting"))
        data = Path(SAMPLE).read_bytes()
        process.stdin.buffer.write(data)
        process.stdin.close()
        self.assertEqual(0, process.wait(timeout=PATIENCE))
        reader.wait(timeout=PATIENCE)
        self.assertEqual(data, (fifo.parent / "taken").read_bytes())


if __name__ == "__main__":
    unittest.main()
