#!/usr/bin/env python3
"""`tarnctl feed` with a real daemon, in both thread modes: nothing is lost without a name."""

import fcntl
import json
import os
import pty
import signal
import struct
import subprocess
import termios
import time
import unittest
from pathlib import Path

import feed_soak
import harness
from peers.crm import Entry
from unified2 import build_alert, build_packet, frame

TARNCTL = os.environ["TARNCTL_BINARY"]
SPOOL = Path("/cache/spool")
BOOKMARK = Path("/cache/bookmark")
FEED = [TARNCTL, "feed", str(SPOOL / "u2"), "--bookmark", str(BOOKMARK), "--json"]
START_TIME = 32 + 128
ISSUE = 32 + 28


class Feed(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        SPOOL.mkdir()
        harness.write_events({7: Entry("Seven", 1, "rule", "DISPLAY:WithRaw")})

    def write(self, name, *records):
        with open(SPOOL / name, "ab") as file:
            file.write(b"".join(records))

    def feed(self, *arguments):
        """A feeder that is gone at the test's end; what it says on standard error goes to a file."""
        errors = open("/cache/feed_errors", "ab")
        self.addCleanup(errors.close)
        feeder = subprocess.Popen([*FEED, *arguments], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=errors, text=True)

        def end():
            if feeder.poll() is None:
                feeder.kill()
            feeder.wait()
            feeder.stdout.close()
        self.addCleanup(end)
        return feeder

    @staticmethod
    def told():
        return Path("/cache/feed_errors").read_text(encoding="utf-8")

    def feed_once(self, *arguments, status=0):
        feeder = self.feed("--once", *arguments)
        counters = json.loads(feeder.communicate(timeout=harness.PATIENCE)[0])
        self.assertEqual(status, feeder.returncode, self.told())
        return counters

    def stop(self, feeder):
        feeder.send_signal(signal.SIGTERM)
        return json.loads(feeder.communicate(timeout=harness.PATIENCE)[0])

    def seconds(self, count):
        """The times of the next reports, which are the numbers of their alerts."""
        return [int.from_bytes(message[START_TIME:START_TIME + 8], "little")
                for message in self.crm.collect(count)]

    @staticmethod
    def alert(number, signature=7):
        return build_alert(number & 0xFFFF, signature, second=number)

    def test_each_alert_is_reported_once_in_both_modes(self):
        for mode, single in enumerate((0, 1)):
            harness.write_config(debug__single=single)
            daemon = self.daemon().ready(1)
            first = 3000 * mode
            self.write(f"u2.{100 + mode}", *(self.alert(n) + build_packet(n & 0xFFFF, b"data")
                                             for n in range(first, first + 3000)))
            counters = self.feed_once()
            self.assertEqual((3000, 3000, 0), (counters["alerts"], counters["reports"],
                                               counters["fedAgain"]))
            self.assertLessEqual(counters["mostUnderWay"], 512)
            self.assertEqual(list(range(first, first + 3000)), self.seconds(3000))
            self.assertEqual(0, daemon.stop())
            self.assertNotIn("queue is full", harness.log_text())
            harness.LOG.unlink()

    def test_a_window_below_what_the_daemon_keeps_is_never_exceeded(self):
        self.daemon().ready()
        self.write("u2.1", *map(self.alert, range(20)))
        counters = self.feed_once("--window", "8")
        self.assertEqual(8, counters["mostUnderWay"])
        self.assertEqual(list(range(20)), self.seconds(20))

    def test_follows_rotation_in_the_middle_of_a_record(self):
        self.daemon().ready()
        alert = self.alert(2)
        self.write("u2.1", self.alert(1), alert[:30])
        feeder = self.feed()
        self.assertEqual([1], self.seconds(1))
        self.write("u2.2", self.alert(3))
        self.write("u2.1", alert[30:])
        self.assertEqual([2, 3], self.seconds(2))
        self.assertEqual(3, self.stop(feeder)["reports"])

    def test_an_alert_without_an_entry_goes_round_the_daemon(self):
        daemon = self.daemon().ready()
        self.write("u2.1", self.alert(1), self.alert(2, 8), build_packet(2, b"packet of 2"),
                   self.alert(3), frame(72, b"other"), self.alert(4, 8))
        counters = self.feed_once()
        self.assertEqual([1, 3], self.seconds(2))
        self.assertEqual((2, 1), (counters["rejectedAlerts"], counters["foreignRecords"]))
        rejects = Path(f"{BOOKMARK}.rejects")
        self.assertEqual(self.alert(2, 8) + build_packet(2, b"packet of 2") + self.alert(4, 8),
                         rejects.read_bytes())
        self.assertEqual(1, self.told().count("signature 8 has no entry in force"))
        self.assertEqual(1, self.told().count("records of type 72 are skipped"))

        # What is not in force yet is rejected once more; then the entry comes into force.
        harness.write_events({7: Entry("Seven", 1, "rule", "r"), 8: Entry("Eight", 1, "rule", "r")})
        daemon.send(signal.SIGHUP)
        daemon.ready(2)
        daemon.idle()
        counters = self.feed_once("--refeed")
        self.assertEqual([2, 4], self.seconds(2))
        self.assertEqual(0, counters["rejectedAlerts"])
        self.assertFalse(rejects.exists())
        self.assertFalse(Path(f"{rejects}.refeed").exists())
        self.assertEqual(0, daemon.stop())

    def test_holds_while_it_is_not_known_what_is_in_force(self):
        daemon = self.daemon().ready()
        daemon.idle()
        time.sleep(0.05)  # the process list counts in hundredths of a second
        harness.write_events({7: Entry("Seven", 1, "rule", "r"), 8: Entry("Eight", 1, "rule", "r")})
        self.write("u2.1", self.alert(1, 8))
        feeder = self.feed()
        harness.wait_for(lambda: "is newer than what tarn has read" in self.told(), "the hold")
        self.assertEqual([], self.crm.drain())
        daemon.send(signal.SIGHUP)
        self.assertEqual([1], self.seconds(1))
        self.assertEqual(1, self.stop(feeder)["reports"])

    def test_takes_entries_over_when_the_daemon_does(self):
        daemon = self.daemon().ready()
        feeder = self.feed()
        self.write("u2.1", self.alert(1))
        self.assertEqual([1], self.seconds(1))
        harness.write_events({8: Entry("Eight", 1, "rule", "r")})
        self.write("u2.1", self.alert(2))
        self.assertEqual([2], self.seconds(1))
        daemon.send(signal.SIGHUP)
        daemon.ready(2)
        self.write("u2.1", self.alert(3), self.alert(4, 8))
        self.assertEqual([4], self.seconds(1))
        self.assertEqual(1, self.stop(feeder)["rejectedAlerts"])
        self.assertEqual(0, daemon.stop())

    def test_records_that_would_end_the_daemon_are_rejected(self):
        daemon = self.daemon().ready()
        harmful = frame(110, bytes(4) + (2).to_bytes(4, "big") * 3 + bytes(16))
        self.write("u2.1", self.alert(1), harmful, self.alert(2))
        self.assertEqual(1, self.feed_once()["rejectedRecords"])
        self.assertEqual([1, 2], self.seconds(2))
        self.assertEqual(harmful, Path(f"{BOOKMARK}.rejects").read_bytes())
        self.assertEqual(0, daemon.stop())

    def test_a_stop_leaves_a_bookmark_from_which_nothing_comes_twice(self):
        self.daemon().ready()
        self.write("u2.1", *map(self.alert, range(200)))
        feeder = self.feed()
        harness.wait_for(lambda: self.crm.indexes()[1] != self.crm.indexes()[0], "a report")
        self.stop(feeder)
        self.write("u2.1", *map(self.alert, range(200, 300)))
        self.feed_once()
        self.assertEqual(list(range(300)), self.seconds(300))
        self.assertEqual([], self.crm.drain())

    def test_a_killed_feeder_finds_out_what_was_reported(self):
        self.daemon().ready()
        self.write("u2.1", *map(self.alert, range(300)))
        feeder = self.feed()
        harness.wait_for(lambda: self.crm.indexes()[1] != self.crm.indexes()[0], "a report")
        feeder.kill()
        feeder.wait()
        counters = self.feed_once()
        self.assertGreater(counters["reportedBefore"], 0)
        self.assertEqual(list(range(300)), self.seconds(300))
        self.assertEqual([], self.crm.drain())

    def test_a_killed_daemon_gets_again_what_it_had(self):
        daemon = self.daemon().ready()
        feeder = self.feed()
        self.write("u2.1", *map(self.alert, range(100)))
        harness.wait_for(lambda: BOOKMARK.exists()
                         and not json.loads(BOOKMARK.read_text())["settled"], "a bookmark")
        daemon.process.kill()
        daemon.wait()
        harness.wait_for(lambda: "tarn has ended" in self.told(), "the notice")
        self.daemon()
        self.assertEqual(list(range(100)), self.seconds(100))
        counters = self.stop(feeder)
        self.assertEqual((1, 100), (counters["daemonEnds"], counters["reports"]))
        self.assertEqual([], self.crm.drain())

    def test_a_second_feeder_is_refused(self):
        self.daemon().ready()
        self.feed()
        harness.wait_for(Path(f"{BOOKMARK}.sock").exists, "the control socket")
        second = subprocess.run(FEED, capture_output=True, text=True, check=False)
        self.assertEqual(1, second.returncode)
        self.assertIn("another receiver is there already", second.stderr)

    def on_terminal(self, columns, *arguments):
        """What a feeder with a terminal of so many columns for its standard error writes there."""
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        with subprocess.Popen([*FEED, *arguments], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=slave) as feeder:
            os.close(slave)
            shown = b""
            try:
                while data := os.read(master, 4096):
                    shown += data
            except OSError:  # the way in which a terminal says that nobody has it open any more
                pass
        self.assertEqual(0, feeder.returncode)
        return shown.decode()

    def test_shows_its_progress_on_a_terminal(self):
        self.daemon().ready()
        self.write("u2.1", *map(self.alert, range(50)))
        shown = self.on_terminal(60, "--once")
        self.assertRegex(shown, r"\r\[#+\] 100% u2\.1: 50 alerts, 50 under way\x1b\[K")
        self.assertTrue(shown.endswith("\r\x1b[K"), shown)
        for line in shown.replace("\x1b[K", "").replace("\n", "\r").split("\r"):
            self.assertLess(len(line), 60, shown)

    def test_a_notice_takes_the_progress_off_its_line(self):
        self.daemon().ready()
        self.write("u2.1", *map(self.alert, range(50)))
        self.write("u2.2", frame(72, b"other"))
        shown = self.on_terminal(200, "--once", "--rate", "100")
        self.assertIn("\r\x1b[Ktarnctl feed: records of type 72 are skipped", shown)

    def test_without_a_terminal_it_shows_no_progress(self):
        self.daemon().ready()
        self.write("u2.1", *map(self.alert, range(50)))
        self.feed_once()
        self.assertNotIn("\r", self.told())

    def test_keeps_its_counters_in_a_text_file(self):
        self.daemon().ready()
        counters = Path("/cache/feed.prom")
        feeder = self.feed("--prometheus", str(counters))
        harness.wait_for(counters.exists, "the counters")
        self.assertIn("\ntarnctl_feed_records_total 0\n", counters.read_text(encoding="utf-8"))
        self.write("u2.1", *map(self.alert, range(50)))
        self.assertEqual(list(range(50)), self.seconds(50))
        self.stop(feeder)
        text = counters.read_text(encoding="utf-8")
        for line in ("tarnctl_feed_alerts_total 50", "tarnctl_feed_reports_total 50",
                     "tarnctl_feed_under_way 0", "tarnctl_feed_held 0"):
            self.assertIn(f"\n{line}\n", text)
        self.assertEqual([], list(counters.parent.glob("feed.prom.*")))

    def test_counters_that_cannot_be_written_stop_nothing(self):
        self.daemon().ready()
        self.write("u2.1", *map(self.alert, range(50)))
        self.assertEqual(50, self.feed_once("--prometheus", "/cache/none/feed.prom")["reports"])
        self.assertEqual(1, self.told().count("the counters cannot be written: /cache/none/feed.prom"))

    def test_kills_at_random_moments_lose_nothing(self):
        for single in ("", "--single"):
            options = feed_soak.parse(["kills", "--alerts", "6000", "--daemon-kills", "3",
                                       "--feeder-kills", "3", *single.split()])
            result = feed_soak.kills(options)
            self.assertEqual(0, result["lost"], result)
            self.assertLessEqual(result["doubled"], 6 * 512, result)
            harness.LOG.unlink()


if __name__ == "__main__":
    unittest.main()
