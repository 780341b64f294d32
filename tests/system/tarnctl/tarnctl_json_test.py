#!/usr/bin/env python3
"""Every line of JSON that tarnctl writes is what its schema says.

A daemon runs between the sub-commands as they stand in for its peers, a recorded sensor is played,
and what is malformed is sent as well.
"""

import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import unittest
from pathlib import Path

import jsonschema

from harness import CONFIG, ERROR_FIFO, EVENT_CONFIG, PATIENCE, TREE, wait_for

TARNCTL = os.environ["TARNCTL_BINARY"]
MESSAGE_SOCKET = "/etc/crm/AuxThread_crmMQ"
SECMGR_SOCKET = "/var/tmp/.secmgrsock"
PACKETLOG_SOCKET = "/var/run/packetLog"


def validator(name):
    path = TREE / "docs" / "schemas" / f"{name}.json"
    schema = json.loads(path.read_text(encoding="utf-8"))
    jsonschema.Draft202012Validator.check_schema(schema)
    return jsonschema.Draft202012Validator(schema)


class JsonTest(unittest.TestCase):
    def setUp(self):
        self.folder = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.processes = {}

    def start(self, name, *options):
        """Starts a sub-command that receives and waits until it is ready."""
        with open(self.output(name), "wb") as out, open(self.messages(name), "wb") as err:
            process = subprocess.Popen([TARNCTL, name, "--json", *options], stdout=out, stderr=err)
        self.addCleanup(self.end, process)
        self.processes[name] = process
        wait_for(lambda: self.messages(name).stat().st_size > 0, f"tarnctl {name} to begin")

    def end(self, process):
        if process.poll() is None:
            process.terminate()
        process.wait(timeout=PATIENCE)

    def output(self, name):
        return self.folder / f"{name}.out"

    def messages(self, name):
        return self.folder / f"{name}.err"

    def lines(self, name):
        return [json.loads(line) for line in self.output(name).read_text("utf-8").splitlines()]

    def wait_for_lines(self, name, count):
        wait_for(lambda: self.output(name).read_bytes().count(b"\n") >= count,
                 f"{count} lines of tarnctl {name}")

    def check(self, name):
        """Holds each line against the schema and returns the lines."""
        self.processes[name].send_signal(signal.SIGHUP)
        self.processes[name].wait(timeout=PATIENCE)
        lines = self.lines(name)
        schema = validator(name)
        for line in lines:
            schema.validate(line)
        return lines

    def start_daemon(self):
        shutil.copy(TREE / "samples" / "tarn.conf", CONFIG)
        shutil.copy(TREE / "samples" / "tarn_event.conf", EVENT_CONFIG)
        daemon = subprocess.Popen([os.environ["TARN_BINARY"]], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        self.addCleanup(self.end, daemon)

    def test_what_a_daemon_sends_fits_the_schemas(self):
        self.start("crm")
        self.start("messages")
        self.start("secmgr")
        self.start("packetlog", "--dir", str(self.folder))
        self.start_daemon()
        played = subprocess.run(
            [TARNCTL, "replay", "--json", "--rate", "200", "--wait", str(PATIENCE),
             str(TREE / "samples" / "sensor-302-alerts.u2")],
            stdout=subprocess.PIPE, check=True, timeout=4 * PATIENCE)
        summary = json.loads(played.stdout)
        validator("replay").validate(summary)
        self.assertEqual(302, summary["alerts"])
        wait_for(ERROR_FIFO.exists, "the error FIFO")
        with open(ERROR_FIFO, "wb", buffering=0) as fifo:
            fifo.write(b"ERROR: no Unicode: \xff\n")
        self.wait_for_lines("crm", 302)
        self.wait_for_lines("messages", 1)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(b"bad", MESSAGE_SOCKET)
            sender.sendto(b"bad", PACKETLOG_SOCKET)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sender:
            sender.connect(SECMGR_SOCKET)
            sender.sendall(struct.pack("<IIII", 0xFFFFFFFF, 0xFFFFFFFF, 0, 0) * 8)
            sender.shutdown(socket.SHUT_WR)
            self.wait_for_lines("messages", 2)
            wait_for(lambda: b"malformed" in self.output("packetlog").read_bytes(),
                     "the malformed request to the packet logging daemon")
            wait_for(lambda: b"malformed" in self.output("secmgr").read_bytes(),
                     "the malformed request to the security manager")
        reports = self.check("crm")
        self.assertEqual(302, len(reports))
        self.assertTrue(any(report["packet"] for report in reports))
        self.assertTrue(any(report["blocked"] for report in reports))
        for report in reports:
            self.assertEqual(report["time"], report["report"]["startTime"])
        self.assertEqual([True, False], ["base64" in line.get("text", {})
                                         for line in self.check("messages")])
        self.assertTrue(any(line.get("accepted") for line in self.check("secmgr")))
        self.assertTrue(any("packet" in line for line in self.check("packetlog")))

    def test_what_cannot_be_played_fits_the_schema(self):
        played = subprocess.run([TARNCTL, "replay", "--json", "/none"], stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL, check=False, timeout=PATIENCE)
        self.assertEqual(1, played.returncode)
        summary = json.loads(played.stdout)
        validator("replay").validate(summary)
        self.assertIn("/none", summary["error"])

    def test_a_line_with_a_wrong_member_does_not_fit(self):
        good = {"time": 1, "kind": "error", "text": "x"}
        schema = validator("messages")
        schema.validate(good)
        for wrong in ({**good, "time": "1"}, {**good, "kind": "odd"}, {**good, "more": 1}, {}):
            with self.assertRaises(jsonschema.ValidationError):
                schema.validate(wrong)


if __name__ == "__main__":
    unittest.main()
