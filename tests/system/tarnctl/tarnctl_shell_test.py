#!/usr/bin/env python3
"""tarnctl at a shell: completion, a closed pipe, a full disk, peers that are missing."""

import os
import shutil
import signal
import subprocess
import tempfile
import unittest
from pathlib import Path

from harness import PATIENCE, TREE

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

    def test_the_other_shells_know_the_same(self):
        for shell in ("zsh", "fish"):
            path = self.script(shell)
            if shutil.which(shell):
                subprocess.run([shell, "-n", str(path)], check=True, timeout=PATIENCE)
        zsh = self.script("zsh").read_text("utf-8")
        self.assertTrue(zsh.startswith("#compdef tarnctl\n"))
        self.assertIn("        'crm:Show the event reports that tarn sends to the CRM'\n", zsh)
        self.assertIn("'--rate[Alerts a second, or max\\: as fast as tarn reads]:value:(max)'", zsh)
        self.assertIn("'--fresh[", zsh)
        fish = self.script("fish").read_text("utf-8")
        self.assertIn("complete -c tarnctl -n '__fish_seen_subcommand_from replay' -l rate "
                      "-d 'Alerts a second, or max: as fast as tarn reads' -x -a 'max'\n", fish)
        self.assertIn("complete -c tarnctl -n '__fish_seen_subcommand_from crm' -l fresh -d ", fish)

    def test_a_shell_that_nobody_knows_is_refused(self):
        done = run("completion", "tcsh")
        self.assertEqual((2, ""), (done.returncode, done.stdout))
        self.assertIn("'tcsh'", done.stderr)


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
