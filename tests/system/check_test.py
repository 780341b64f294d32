#!/usr/bin/env python3
"""`tarnctl check` as an operator runs it: the daemon's own paths, a machine that is not ready, exit
statuses, and JSON that fits its schema. What it calls clean the daemon starts with in silence."""

import json
import os
import shutil
import subprocess
import unittest
from pathlib import Path

import jsonschema

import harness
from harness import ALERT_FIFO, CONFIG, EVENT_CONFIG, TREE

TARNCTL = Path(os.environ["TARN_BINARY"]).resolve().parents[1] / "tools/tarnctl/tarnctl"
SCHEMA = json.loads((TREE / "docs/schemas/check.json").read_text())


def check(*arguments):
    return subprocess.run([TARNCTL, "check", *map(str, arguments)], capture_output=True, text=True,
                          check=False, timeout=harness.PATIENCE)


@unittest.skipUnless(os.access(TARNCTL, os.X_OK), f"{TARNCTL} is not built")
class Check(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        for name in ("tarn.conf", "tarn_event.conf"):
            shutil.copy(TREE / "samples" / name, CONFIG.parent / name)

    def answer(self, *arguments):
        """The validated answer and the exit status."""
        done = check("--json", *arguments)
        answer = json.loads(done.stdout)
        jsonschema.Draft202012Validator.check_schema(SCHEMA)
        jsonschema.validate(answer, SCHEMA, cls=jsonschema.Draft202012Validator)
        return answer, done.returncode

    def names(self, *arguments):
        return {finding["name"] for finding in self.answer(*arguments)[0]["findings"]}

    def test_a_machine_that_is_ready_has_no_finding(self):
        answer, status = self.answer("--strict", "--summary")
        self.assertEqual([], answer["findings"])
        self.assertEqual(0, status)
        self.assertEqual(12, len(answer["entries"]))

    def test_a_machine_on_which_the_daemon_runs_has_no_finding(self):
        CONFIG.write_text("tarn.log.level = 5\n")
        daemon = self.daemon().ready()
        answer, status = self.answer("--strict")
        self.assertEqual([], answer["findings"])
        self.assertEqual(0, status)
        self.assertEqual(0, daemon.stop())

    def test_what_would_end_the_daemon_is_named(self):
        ALERT_FIFO.write_text("")
        shutil.rmtree("/cache/qor")
        Path("/var/tmp/EventQueueCRM2-0").unlink(missing_ok=True)
        Path("/var/tmp/EventQueueCRM2-0").mkdir()
        self.assertLessEqual({"fifo-is-none", "folder-missing", "ring-is-none"}, self.names())
        self.assertEqual(set(), self.names("--no-places"))

    def test_files_that_are_missing_are_named(self):
        CONFIG.unlink()
        EVENT_CONFIG.unlink()
        answer, status = self.answer()
        self.assertEqual(["file-missing", "file-missing"],
                         [finding["name"] for finding in answer["findings"]])
        self.assertEqual(1, status)

    def test_every_form_of_a_finding_fits_the_schema(self):
        CONFIG.write_bytes(b"tarn.log.levl = 3\ntarn.log.level = 99\ntarn.log.file = \xff\r\nword\n")
        EVENT_CONFIG.write_bytes(b"se.7.msg = \xff\nse.7.severty = high\n")
        answer, status = self.answer("--summary", "--protect", "192.0.2.1")
        self.assertEqual(1, status)
        self.assertEqual({"base64"}, set(answer["entries"][0]["name"]))
        self.assertLessEqual({"unknown-key", "number-out-of-range", "carriage-return",
                              "missing-equals", "unknown-marker"},
                             {finding["name"] for finding in answer["findings"]})

    def test_what_cannot_be_checked_has_a_status_of_its_own(self):
        done = check("--protect", "nobody")
        self.assertEqual(2, done.returncode)
        self.assertIn("nobody", done.stderr)

    def test_the_text_points_at_the_fault(self):
        EVENT_CONFIG.write_text("se.7.severty = high\n")
        done = check()
        self.assertEqual(1, done.returncode)
        self.assertIn(f"{EVENT_CONFIG}:1:6: error: ", done.stdout)
        self.assertIn("  1 | se.7.severty = high\n    |      ^~~~~~~\n  suggestion: severity\n",
                      done.stdout)
        self.assertEqual("", done.stderr)


if __name__ == "__main__":
    harness.main()
