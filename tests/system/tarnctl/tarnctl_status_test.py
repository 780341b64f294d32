#!/usr/bin/env python3
"""tarnctl status beside a real daemon: what is well, what is not, and that nothing is touched."""

import json
import os
import re
import signal
import struct
import subprocess
import time
import unittest
from pathlib import Path

import harness
from harness import PATIENCE, TREE, wait_for
from peers.crm import Entry
from unified2 import alerts_of, frame, records

try:
    import jsonschema
except ImportError:
    jsonschema = None

TARNCTL = os.environ["TARNCTL_BINARY"]
SAMPLE = TREE / "samples" / "sensor-302-alerts.u2"
RING = Path("/var/tmp/EventQueueCRM2-0")
PEERS = ("crm", "messages", "secmgr", "packetlog")
LABEL = r'[a-z]+="(?:[^"\\\n]|\\.)*"'
SAMPLE_LINE = re.compile(r"^(tarn_[a-z_]+)(\{" + LABEL + "(?:," + LABEL + r")*\})? "
                         r"-?[0-9.]+(?:e[+-]?[0-9]+)?$")


def status(*words, **options):
    return subprocess.run([TARNCTL, "status", *words], capture_output=True, text=True, check=False,
                          timeout=PATIENCE, **options)


class StatusTest(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        # It has the ring open, as a CRM has, and leaves it behind.
        self.crm.close()
        for path in Path("/var/tmp").glob("EventQueueCRM*"):
            path.unlink()
        self.peers = {}

    def start_peers(self, *names):
        for name in names or PEERS:
            words = ["--dir", "/cache"] if name == "packetlog" else []
            errors = open(f"/cache/{name}.err", "wb")
            self.addCleanup(errors.close)
            peer = subprocess.Popen([TARNCTL, name, *words], stdout=subprocess.DEVNULL,
                                    stderr=errors)
            self.addCleanup(self.end, peer)
            self.peers[name] = peer
            wait_for(lambda name=name: Path(f"/cache/{name}.err").stat().st_size > 0,
                     f"tarnctl {name} to begin")

    def end(self, process):
        if process.poll() is None:
            process.kill()
        process.wait(timeout=PATIENCE)

    def look(self, *words, **options):
        """(exit status, names of the faults, the whole object)"""
        done = status("--json", *words, **options)
        whole = json.loads(done.stdout)
        if jsonschema is not None:
            schema = json.loads((TREE / "docs/schemas/status.json").read_text(encoding="utf-8"))
            jsonschema.Draft202012Validator.check_schema(schema)
            jsonschema.Draft202012Validator(schema).validate(whole)
        return done.returncode, [fault["name"] for fault in whole["faults"]], whole

    def wait_healthy(self):
        try:
            wait_for(lambda: self.look()[0] == 0, "a healthy daemon")
        except AssertionError as error:
            raise AssertionError(f"{error}:\n{status().stdout}") from None

    def start(self, single=0, level=3):
        harness.write_config(level=level, debug__single=single)
        self.start_peers()
        daemon = self.daemon()
        self.wait_healthy()
        return daemon

    def check_healthy(self, single):
        daemon = self.start(single)
        self.feeder()
        code, faults, whole = self.look()
        self.assertEqual((0, [], "healthy", []), (code, faults, whole["state"], whole["warnings"]))
        self.assertEqual(daemon.pid, whole["daemon"]["process"]["value"])
        self.assertEqual(2 if single else 3, len(whole["daemon"]["threads"]["value"]))
        self.assertEqual([daemon.pid], [reader["process"] for reader
                                        in whole["alertFifo"]["readers"]["value"]])
        self.assertEqual([os.getpid()], [writer["process"] for writer
                                         in whole["alertFifo"]["writers"]["value"]])
        self.assertEqual(0, whole["alertFifo"]["unreadBytes"]["value"])
        for peer in whole["peers"]:
            self.assertEqual([self.peers[peer["name"]].pid],
                             [holder["process"] for holder in peer["listeners"]["value"]])
        self.assertEqual([self.peers["crm"].pid],
                         [holder["process"] for holder in whole["queue"]["readers"]["value"]])
        text = status().stdout
        self.assertTrue(text.startswith("healthy\n\ndaemon\n"), text)

    def test_all_is_well_with_the_event_thread(self):
        self.check_healthy(0)

    def test_all_is_well_on_the_reader_thread(self):
        self.check_healthy(1)

    def test_nothing_is_there(self):
        code, faults, whole = self.look()
        self.assertEqual(1, code)
        self.assertEqual(["daemon-not-running", "alert-fifo-missing", "messages-missing",
                          "secmgr-missing", "packetlog-missing"], faults)
        for path in (harness.CONFIG, harness.EVENT_CONFIG):
            path.unlink()
        code, faults, _ = self.look("--without", "messages", "--without", "secmgr", "--without",
                                    "packetlog")
        self.assertEqual((1, ["daemon-not-running", "alert-fifo-missing", "config-missing",
                              "events-missing"]), (code, faults))

    def test_each_peer_that_goes_is_named(self):
        self.start()
        for name in PEERS:
            self.end(self.peers[name])
            code, faults, _ = self.look()
            self.assertEqual((1, [f"{name}-missing"]), (code, faults))
            self.assertEqual(0, self.look("--without", name)[0])
            self.start_peers(name)
            self.wait_healthy()

    def check_newer_file(self, single, level):
        daemon = self.start(single, level)
        # A daemon loads a file again whose time differs by whole seconds.
        former = int(harness.EVENT_CONFIG.stat().st_mtime)
        wait_for(lambda: int(time.time()) > former, "the next second")
        harness.write_events({7: Entry("New", 1, "rule", "")})
        # Now, and not in the future. The time that the kernel itself gives may be a tick behind.
        now = time.time()
        os.utime(harness.EVENT_CONFIG, (now, now))
        code, faults, whole = self.look()
        if single and level < 4:
            self.assertEqual((2, ["events"]), (code, [each["name"] for each in whole["unknowns"]]))
            return
        self.assertEqual((1, ["events-newer"]), (code, faults))
        self.assertIn("tarn_event.conf is newer than what is in force", whole["faults"][0]["text"])
        daemon.send(signal.SIGHUP)
        wait_for(lambda: self.look()[0] == 0, "the file to be loaded")

    def test_a_file_that_is_newer_is_named_until_it_is_loaded(self):
        self.check_newer_file(0, 3)

    def test_a_newer_file_on_the_reader_thread_is_found_by_the_log(self):
        self.check_newer_file(1, 4)

    def test_a_newer_file_that_no_trace_tells_of_is_unknown(self):
        self.check_newer_file(1, 3)

    def test_a_stopped_daemon_is_named(self):
        daemon = self.start()
        daemon.send(signal.SIGSTOP)
        self.addCleanup(daemon.send, signal.SIGCONT)
        wait_for(lambda: self.look()[1] == ["daemon-stopped"], "the daemon to be stopped")
        feeder = self.feeder()
        feeder.write(b"x" * 40000)
        whole = self.look()[2]
        self.assertEqual(40000, whole["alertFifo"]["unreadBytes"]["value"])
        self.assertEqual(["alert-fifo-filling"], [each["name"] for each in whole["warnings"]])

    def test_a_killed_daemon_is_named_with_its_pid_file(self):
        daemon = self.start()
        daemon.stop(signal.SIGKILL)
        code, faults, whole = self.look()
        self.assertEqual(1, code)
        self.assertIn("daemon-not-running", faults)
        self.assertIn(f"names {daemon.pid}", whole["faults"][0]["text"])

    def test_a_stuck_ring_is_named_and_left_as_it_is(self):
        self.start()
        self.end(self.peers["crm"])
        with RING.open("r+b") as ring:
            read, write = struct.unpack("<II", ring.read(8))
            ring.seek(4)
            ring.write(struct.pack("<I", write + 64))
        code, faults, whole = self.look("--without", "crm")
        self.assertEqual((1, ["ring-stuck"]), (code, faults))
        self.assertEqual("stuck", whole["queue"]["rings"][0]["motion"]["value"])
        with RING.open("rb") as ring:
            self.assertEqual((read, write + 64), struct.unpack("<II", ring.read(8)))

    def test_reports_that_wait_are_counted_and_not_taken(self):
        stream = SAMPLE.read_bytes()
        signatures = {alert.signature for alert in alerts_of(stream)}
        harness.write_events({signature: Entry("E", 1, "r", "") for signature in signatures})
        daemon = self.daemon().ready()
        feeder = self.feeder()
        for record_type, payload in records(stream):
            feeder.write(frame(record_type, payload))

        def waiting():
            return self.look()[2]["queue"]["rings"][0]["messages"]["value"] == 302

        wait_for(waiting, "302 reports in the ring")
        before = RING.read_bytes()
        _, _, whole = self.look()
        self.assertEqual(302, whole["queue"]["semaphore"]["value"])
        self.assertEqual("waiting", whole["queue"]["rings"][0]["motion"]["value"])
        self.assertIn("ring-waiting", [warning["name"] for warning in whole["warnings"]])
        self.assertEqual(before, RING.read_bytes())
        self.assertEqual(302, self.look()[2]["queue"]["semaphore"]["value"])
        self.assertEqual(0, daemon.stop())

    def test_a_loss_in_the_log_is_named_for_a_while(self):
        daemon = self.start()
        feeder = self.feeder()
        feeder.write(b"\0\0\0\1\0\0\0\x40" + b"x" * 20)  # a record whose rest never comes
        code, faults, _ = wait_for(lambda: (lambda found: found if found[1] else None)(self.look()),
                                   "the loss")
        self.assertEqual(1, code)
        self.assertIn("log-partial-read", faults)
        self.assertEqual(0, self.look("--recent", "0")[0])
        self.assertIsNone(daemon.process.poll())

    def test_two_readers_of_the_alerts_are_named(self):
        self.start()
        thief = os.open(harness.ALERT_FIFO, os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, thief)
        self.assertEqual(["alert-fifo-shared"], self.look()[1])

    def test_a_daemon_in_the_background_is_found_beside_its_pid_file(self):
        self.start_peers()
        binary = os.environ["TARN_BINARY"]
        subprocess.run([binary, "-d"], check=True, timeout=PATIENCE, stderr=subprocess.DEVNULL)
        whole = wait_for(lambda: (lambda found: found[2] if found[0] == 0 else None)(self.look()),
                         "a healthy daemon")
        daemon = whole["daemon"]["process"]["value"]
        self.addCleanup(os.kill, daemon, signal.SIGKILL)
        self.assertNotEqual(daemon, whole["daemon"]["pidFileProcess"]["value"])
        self.assertEqual("/", os.readlink(f"/proc/{daemon}/cwd"))

    def test_the_metrics_are_what_a_collector_takes(self):
        self.start()
        done = status("--prometheus")
        self.assertEqual(0, done.returncode)
        named, seen = {}, set()
        for line in done.stdout.splitlines():
            if line.startswith("# "):
                _, kind, name, rest = line.split(" ", 3)
                self.assertIn(kind, ("HELP", "TYPE"))
                self.assertTrue(kind == "HELP" or rest in ("gauge", "counter"), line)
                named.setdefault(name, []).append(kind)
                self.assertNotIn(name, {sample.split("{")[0] for sample in seen})
                continue
            match = SAMPLE_LINE.match(line)
            self.assertTrue(match, line)
            self.assertEqual(["HELP", "TYPE"], named.get(match.group(1)), line)
            self.assertEqual(match.group(1).endswith("_total"),
                             f"# TYPE {match.group(1)} counter" in done.stdout)
            sample = line.rsplit(" ", 1)[0]
            self.assertNotIn(sample, seen)
            seen.add(sample)
        self.assertTrue(done.stdout.endswith("\n"))
        self.assertIn("tarn_healthy 1\n", done.stdout)
        self.assertIn("tarn_up 1\n", done.stdout)

    def test_an_ordinary_user_is_told_what_is_hidden(self):
        self.start()
        nobody = 65534

        def drop():
            os.setgroups([])
            os.setgid(nobody)
            os.setuid(nobody)

        try:
            done = status("--json", preexec_fn=drop)
        except subprocess.SubprocessError:
            self.skipTest("there is no other user in this sandbox")
        whole = json.loads(done.stdout)
        self.assertEqual((2, "unknown", []), (done.returncode, whole["state"], whole["faults"]))
        self.assertTrue(whole["daemon"]["running"]["value"])
        self.assertIn("hidden", whole["alertFifo"]["readers"]["reason"])
        self.assertIn("not permitted", whole["queue"]["semaphore"]["reason"])
        text = status(preexec_fn=drop)
        self.assertEqual(2, text.returncode)
        self.assertTrue(text.stdout.startswith("cannot be said\nunknown: "), text.stdout)

    def test_a_full_disk_and_a_closed_pipe(self):
        with open("/dev/full", "wb", buffering=0) as full:
            done = subprocess.run([TARNCTL, "status"], stdout=full, stderr=subprocess.PIPE,
                                  text=True, check=False, timeout=PATIENCE)
        self.assertEqual(1, done.returncode)
        self.assertIn("standard output: No space left on device", done.stderr)
        read_end, write_end = os.pipe()
        os.close(read_end)
        done = subprocess.run([TARNCTL, "status"], stdout=write_end, stderr=subprocess.PIPE,
                              text=True, check=False, timeout=PATIENCE)
        os.close(write_end)
        self.assertEqual((1, ""), (done.returncode, done.stderr))


if __name__ == "__main__":
    harness.main()
