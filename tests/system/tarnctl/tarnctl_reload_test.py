#!/usr/bin/env python3
"""`tarnctl reload` with a real daemon, with and without a feeder."""

import json
import os
import signal
import subprocess
import time
import unittest
from pathlib import Path

import feed_soak
import harness
from peers.crm import Entry
from unified2 import build_alert

TARNCTL = os.environ["TARNCTL_BINARY"]
SPOOL = Path("/cache/spool")
BOOKMARK = Path("/cache/bookmark")
KEPT = Path("/cache/kept/reload")
START_TIME = 32 + 128


class Reload(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        SPOOL.mkdir()
        harness.write_events({7: Entry("Seven", 1, "rule", "DISPLAY:WithRaw"),
                              9: Entry("Nine", 1, "rule", "DISPLAY:WithRaw")})

    def feeder(self):
        errors = open("/cache/feed_errors", "ab")
        self.addCleanup(errors.close)
        feeder = subprocess.Popen([TARNCTL, "feed", str(SPOOL / "u2"), "--bookmark", str(BOOKMARK)],
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=errors)

        def end():
            feeder.send_signal(signal.SIGTERM)
            feeder.wait()
        self.addCleanup(end)

    def write(self, *alerts):
        with open(SPOOL / "u2.1", "ab") as file:
            for number, signature in alerts:
                file.write(build_alert(number, signature, second=number))

    def seconds(self, count):
        return [int.from_bytes(message[START_TIME:START_TIME + 8], "little")
                for message in self.crm.collect(count)]

    @staticmethod
    def reload(*arguments):
        return subprocess.run([TARNCTL, "reload", "--kept", str(KEPT), *arguments],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
                              timeout=harness.PATIENCE)

    def changes(self, *arguments):
        """The signatures that a reload has added, removed and changed, and how it knows."""
        result = self.reload("--json", *arguments)
        self.assertEqual(0, result.returncode, result.stderr)
        changes = json.loads(result.stdout)
        return [changes["before"]] + [changes[kind] and [entry["signature"] for entry in changes[kind]]
                                      for kind in ("added", "removed", "changed")]

    def change_entries(self):
        harness.write_events({7: Entry("Seven", 3, "rule", "DISPLAY:WithRaw"),
                              8: Entry("Eight", 1, "rule", "DISPLAY:WithRaw")})

    def test_says_what_has_changed_and_puts_it_into_force_in_both_modes(self):
        for single in (0, 1):
            harness.write_config(debug__single=single)
            harness.write_events({7: Entry("Seven", 1, "rule", "DISPLAY:WithRaw"),
                                  9: Entry("Nine", 1, "rule", "DISPLAY:WithRaw")})
            daemon = self.daemon().ready()
            if single == 0:
                self.feeder()
            first = 10 * single
            self.write((first + 1, 7))
            self.assertEqual([first + 1], self.seconds(1))
            self.change_entries()
            result = self.reload("--feeder", str(BOOKMARK), "--json")
            self.assertEqual(0, result.returncode, result.stderr)
            changes = json.loads(result.stdout)
            self.assertEqual((daemon.pid, True, "feeder", 2),
                             (changes["daemon"], changes["feeder"], changes["before"],
                              changes["entries"]))
            self.assertEqual([8], [entry["signature"] for entry in changes["added"]])
            self.assertEqual([9], [entry["signature"] for entry in changes["removed"]])
            self.assertEqual([7], [entry["signature"] for entry in changes["changed"]])
            self.write((first + 2, 8))
            self.assertEqual([first + 2], self.seconds(1))
            self.assertEqual(0, daemon.stop())
            harness.LOG.unlink()

    def test_an_entry_that_is_dropped_stops_it_unless_forced(self):
        daemon = self.daemon().ready()
        self.feeder()
        self.write((1, 7))
        self.assertEqual([1], self.seconds(1))
        harness.write_newer(harness.EVENT_CONFIG, "se.7.severity = low\nse.x.msg = none\n")
        refused = self.reload("--feeder", str(BOOKMARK))
        self.assertEqual(1, refused.returncode)
        self.assertIn("tarn has not been told to read its files", refused.stderr)
        self.assertEqual(0, harness.count_log("Received HUP signal"))
        forced = self.reload("--feeder", str(BOOKMARK), "--force")
        self.assertEqual(0, forced.returncode, forced.stderr)
        self.assertIn("- 9 severity", forced.stdout)
        self.assertEqual(1, harness.count_log("Received HUP signal"))
        self.assertEqual(0, daemon.stop())

    def test_without_a_feeder_it_says_what_is_lost(self):
        daemon = self.daemon().ready()
        self.change_entries()
        result = self.reload()
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertIn("the alerts inside tarn are lost", result.stderr)
        self.assertIn("what has changed is not known", result.stdout)
        self.assertIn("may be newer than what tarn has read, and no reload has kept that", result.stdout)
        daemon.ready(2)

    def test_without_a_feeder_it_compares_with_what_the_last_reload_kept(self):
        for single in (0, 1):
            harness.write_config(debug__single=single)
            daemon = self.daemon().ready()
            self.change_entries()
            self.assertEqual([None, None, None, None], self.changes())
            self.assertEqual(["kept", [], [], []], self.changes())
            harness.write_events({7: Entry("Seven", 3, "rule", "DISPLAY:WithRaw"),
                                  9: Entry("Nine", 1, "rule", "DISPLAY:WithRaw")})
            result = self.reload()
            self.assertIn("+ 9 severity 1", result.stdout)
            self.assertIn("- 8 severity 1", result.stdout)
            self.assertIn("1 added, 1 removed, 0 changed; 2 in force", result.stdout)
            harness.write_events({7: Entry("Seven", 2, "rule", "DISPLAY:WithRaw"),
                                  9: Entry("Nine", 1, "rule", "DISPLAY:WithRaw")})
            self.assertEqual(["kept", [], [], [7]], self.changes())
            self.assertEqual(0, daemon.stop())
            harness.LOG.unlink()

    def test_what_was_kept_counts_for_one_cycle_of_one_daemon(self):
        daemon = self.daemon().ready()
        self.changes()
        daemon.send(signal.SIGHUP)
        daemon.ready(3)
        self.change_entries()
        self.assertEqual([None, None, None, None], self.changes())
        self.assertEqual("kept", self.changes()[0])
        self.assertEqual(0, daemon.stop())
        harness.LOG.unlink()
        daemon = self.daemon().ready()
        harness.write_events({7: Entry("Seven", 2, "rule", "DISPLAY:WithRaw")})
        result = self.reload()
        self.assertIn("is of an earlier load or of other files", result.stdout)

    def test_files_that_are_older_than_the_load_are_what_was_in_force(self):
        changed = os.stat(harness.EVENT_CONFIG).st_ctime
        harness.wait_for(lambda: time.time() > changed + 2.1, "the files to be old enough")
        self.daemon().ready()
        self.assertEqual(["files", [], [], []], self.changes())
        self.assertEqual(1, harness.count_log("Received HUP signal"))

    def test_what_cannot_be_kept_is_said(self):
        self.daemon().ready()
        KEPT.parent.write_text("a file where the folder should be")
        result = self.reload()
        self.assertEqual(0, result.returncode)
        self.assertIn("is not kept for the next reload", result.stderr)

    def test_a_feeder_that_is_not_named_is_not_passed_over(self):
        self.daemon().ready()
        self.feeder()
        self.write((1, 7))
        self.assertEqual([1], self.seconds(1))
        result = self.reload()
        self.assertEqual(1, result.returncode)
        self.assertIn("a feeder is there", result.stderr)
        self.assertEqual(0, harness.count_log("Received HUP signal"))

    def test_without_a_daemon_there_is_nothing_to_reload(self):
        result = self.reload("--json")
        self.assertEqual(1, result.returncode)
        self.assertIn("tarn is not running", json.loads(result.stdout)["error"])

    def test_reloads_under_load_lose_nothing(self):
        result = feed_soak.reloads(feed_soak.parse(["reloads", "--alerts", "6000", "--reloads", "3"]))
        self.assertEqual((0, 0), (result["lost"], result["doubled"]), result)


if __name__ == "__main__":
    unittest.main()
