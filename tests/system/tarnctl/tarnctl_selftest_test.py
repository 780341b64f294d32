#!/usr/bin/env python3
"""tarnctl selftest: each leg is proven, and each one that is cut is named; --live beside a daemon.

The parts that run in a sandbox of their own need one inside this one, so here the test within is
started directly, on clean folders.
"""

import json
import os
import shutil
import signal
import subprocess
import time
import unittest
from pathlib import Path

import harness
from harness import PATIENCE, TREE, wait_for
from peers.crm import Entry

try:
    import jsonschema
except ImportError:
    jsonschema = None

TARNCTL = os.environ["TARNCTL_BINARY"]
LEGS = ["start", "report", "quarantine", "capture", "message", "stop"]
DEAD = {"crm": ["report"], "messages": ["message"], "secmgr": ["quarantine"],
        "packetlog": ["capture"]}
RING = Path("/var/tmp/EventQueueCRM2-0")


def checked(text):
    whole = json.loads(text)
    if jsonschema is not None:
        schema = json.loads((TREE / "docs/schemas/selftest.json").read_text(encoding="utf-8"))
        jsonschema.Draft202012Validator.check_schema(schema)
        jsonschema.Draft202012Validator(schema).validate(whole)
    return whole


class SelftestTest(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        self.crm.close()
        self.remove_rings()

    @staticmethod
    def remove_rings():
        for path in Path("/var/tmp").glob("EventQueueCRM*"):
            path.unlink()

    def inside(self, *words, daemon=os.environ["TARN_BINARY"]):
        """(exit status, names of the dead legs, the whole object)"""
        shutil.rmtree("/cache/selftest", ignore_errors=True)
        self.remove_rings()  # with what an earlier test left unread
        began = time.monotonic()
        done = subprocess.run([TARNCTL, "selftest", "--inside", "--json", "--daemon", daemon,
                               *words], capture_output=True, text=True, check=False,
                              timeout=PATIENCE)
        whole = checked(done.stdout)
        whole["took"] = time.monotonic() - began
        return done.returncode, [leg["name"] for leg in whole["legs"] if not leg["proven"]], whole

    def test_each_leg_is_proven_in_less_than_ten_seconds(self):
        code, dead, whole = self.inside()
        self.assertEqual((0, [], True), (code, dead, whole["passed"]), whole)
        self.assertEqual(LEGS, [leg["name"] for leg in whole["legs"]])
        self.assertLess(whole["took"], 10)
        self.assertIsNone(whole["log"])

    def test_a_stand_in_that_is_missing_makes_its_leg_dead(self):
        for name, legs in DEAD.items():
            code, dead, whole = self.inside("--without", name)
            self.assertEqual((1, legs, False), (code, dead, whole["passed"]), whole)
            self.assertLess(whole["took"], 10)
            look = next(leg["look"] for leg in whole["legs"] if not leg["proven"])
            self.assertIn("seen: ", look)

    def test_a_stand_in_that_is_killed_makes_its_leg_dead(self):
        for name, legs in DEAD.items():
            code, dead, _ = self.inside("--kill", name)
            self.assertEqual((1, legs), (code, dead))

    def test_a_daemon_that_does_not_start_is_the_dead_leg(self):
        code, dead, whole = self.inside(daemon="/bin/false")
        self.assertEqual((1, ["start"]), (code, dead), whole)
        code, dead, whole = self.inside(daemon="/none")
        self.assertEqual((2, []), (code, dead))
        self.assertIn("/none", whole["error"])

    def test_no_process_is_left(self):
        self.inside()
        names = [path.read_text(encoding="ascii", errors="replace")
                 for path in Path("/proc").glob("[0-9]*/comm")]
        self.assertNotIn("tarn\n", names)
        self.assertNotIn("tarnctl\n", names)

    def test_outside_it_needs_a_sandbox_and_a_daemon(self):
        done = subprocess.run([TARNCTL, "selftest", "--sandbox", "/none"], capture_output=True,
                              text=True, check=False, timeout=PATIENCE)
        self.assertEqual(2, done.returncode)
        self.assertIn("/none: No such file", done.stderr)
        done = subprocess.run([TARNCTL, "selftest", "--sandbox", "/bin/false", "--json"],
                              capture_output=True, text=True, check=False, timeout=PATIENCE)
        self.assertEqual(1, done.returncode)

    def outside(self, script, *words, **options):
        """`tarnctl selftest` with this text as the script that makes the sandbox."""
        path = Path("/cache/sandbox")
        path.write_text(script, encoding="utf-8")
        path.chmod(0o755)
        return subprocess.run([TARNCTL, "selftest", *words], capture_output=True, text=True,
                              check=False, timeout=PATIENCE, **options)

    def test_a_sandbox_that_cannot_be_made_is_no_dead_leg(self):
        done = self.outside("#!/bin/sh\nexit 125\n", "--sandbox", "/cache/sandbox")
        self.assertEqual((2, ""), (done.returncode, done.stdout))
        self.assertIn("it needs bubblewrap and user namespaces, or the superuser", done.stderr)
        done = self.outside("#!/none/python3\n", "--sandbox", "/cache/sandbox", "--json")
        self.assertEqual(2, done.returncode)
        self.assertEqual("/cache/sandbox: what runs it is missing: install python3",
                         checked(done.stdout)["error"])

    def test_the_sandbox_begins_where_every_user_may_be(self):
        done = self.outside("#!/bin/sh\nexec pwd\n", "--sandbox", "sandbox", cwd="/cache")
        self.assertEqual((0, "/\n", ""), (done.returncode, done.stdout, done.stderr))

    def test_the_script_tells_its_own_failure_from_the_commands(self):
        folder = Path("/cache/bin")
        folder.mkdir()
        bwrap = folder / "bwrap"
        sandbox = [str(TREE / "scripts" / "sandbox"), "true"]
        for text in ("install bubblewrap", "refused"):
            done = subprocess.run(sandbox, capture_output=True, text=True, check=False,
                                  timeout=PATIENCE, env={**os.environ, "PATH": str(folder)})
            self.assertEqual(125, done.returncode)
            self.assertIn(text, done.stderr)
            bwrap.write_text("#!/bin/sh\necho refused >&2\nexit 1\n", encoding="utf-8")
            bwrap.chmod(0o755)

    def live(self, *words):
        done = subprocess.run([TARNCTL, "selftest", "--live", "--json", *words],
                              capture_output=True, text=True, check=False, timeout=PATIENCE)
        return done, checked(done.stdout) if done.stdout else None

    def start_live(self, single=0):
        harness.write_config(level=3, debug__single=single)
        harness.EVENT_CONFIG.write_text(
            harness.event_lines(7, Entry("Marked", 1, "r", ""))
            + harness.event_lines(8, Entry("Blocks", 1, "r", ""), "response = quarantine-traffic",
                                  "quarantine.rule = quarantine-intruder-address"),
            encoding="utf-8")
        os.utime(harness.EVENT_CONFIG)
        daemon = self.daemon()
        wait_for(lambda: RING.exists() and harness.ERROR_FIFO.exists(), "the daemon to be up")
        daemon.idle()
        return daemon

    def check_live(self, single):
        daemon = self.start_live(single)
        done, whole = self.live("--sid", "7")
        self.assertEqual(0, done.returncode, (whole, done.stderr))
        self.assertEqual(["feed", "report", "log"], [leg["name"] for leg in whole["legs"]])
        self.assertIn("sending one alert of signature 7", done.stderr)
        self.assertIn('the CRM gets it as "Marked"', done.stderr)
        shown = subprocess.run([TARNCTL, "crm", "--json", "--count", "2", "--timeout", "0.5"],
                               capture_output=True, text=True, check=False, timeout=PATIENCE)
        reports = [json.loads(line) for line in shown.stdout.splitlines()]
        self.assertEqual([7], [report["report"]["issueId"] for report in reports])
        self.assertEqual("192.0.2.1", reports[0]["report"]["sourceIp"])
        self.assertEqual(0, daemon.stop())

    def test_live_is_seen_and_not_taken(self):
        self.check_live(0)

    def test_live_on_the_reader_thread(self):
        self.check_live(1)

    def test_live_sends_nothing_that_would_do_harm(self):
        daemon = self.start_live()
        for words, reason in ((("--sid", "9"), "has no entry"),
                              (("--sid", "8"), "--with-quarantine")):
            done, whole = self.live(*words)
            self.assertEqual((2, []), (done.returncode, whole["legs"]))
            self.assertIn(reason, whole["error"])
            self.assertIn("nothing was sent", whole["error"])
        time.sleep(0.05)  # so that the file's time is beyond a tick of the daemon's start
        os.utime(harness.EVENT_CONFIG)
        done, whole = self.live("--sid", "7")
        self.assertEqual(2, done.returncode)
        self.assertIn("reload it first", whole["error"])
        daemon.stop(signal.SIGKILL)
        done, whole = self.live("--sid", "7")
        self.assertEqual((2, "tarn does not run; nothing was sent"),
                         (done.returncode, whole["error"]))

    def test_live_names_a_daemon_that_does_not_work(self):
        daemon = self.start_live()
        daemon.send(signal.SIGSTOP)
        self.addCleanup(daemon.send, signal.SIGCONT)
        process = subprocess.Popen([TARNCTL, "selftest", "--live", "--json", "--sid", "7"],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        out, _ = process.communicate(timeout=2 * PATIENCE)
        whole = checked(out)
        self.assertEqual(1, process.returncode)
        self.assertEqual(["feed", "report"],
                         [leg["name"] for leg in whole["legs"] if not leg["proven"]])

    def test_live_needs_a_signature(self):
        done, _ = self.live()
        self.assertEqual(2, done.returncode)
        self.assertIn("--sid", done.stderr)


if __name__ == "__main__":
    harness.main()
