#!/usr/bin/env python3
"""Every line of JSON that tarnctl writes is what its schema says.

A daemon runs between the sub-commands as they stand in for its peers, a recorded sensor is played,
and what is malformed is sent as well.
"""

import json
import mmap
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


def control_message(kind, length, body=b"", packet=b""):
    """A datagram to the packet logging daemon: zeros up to 128 bytes, then the packet."""
    return struct.pack("<II", kind, length) + body.ljust(120, b"\0") + packet


LIMITS = struct.pack("<III", 1, 10, 512)
PACKETLOG_MESSAGES = (
    control_message(1, 8),
    control_message(2, 96, LIMITS + struct.pack("<IQII56s", 1700000000, 0x1122334455667788, 7, 5,
                                                b"by hand")),
    control_message(2, 96, LIMITS + struct.pack("<IQII56s", 0, 1, 7, 5, b"\xff")),
    control_message(3, 92, LIMITS + struct.pack("<IIII56s", 1700000000, 7, 5, 65535, b"x")),
    control_message(4, 120, LIMITS + struct.pack("<III56sIiIIIIII", 0, 0, 7, b"SNORT", 1514, 4,
                                                 1700000000, 250000, 1, 2, 3, 4), b"kept"),
    control_message(6, 28, LIMITS + struct.pack("<II", 0, 5)),
    control_message(7, 8),
    control_message(8, 28, LIMITS + struct.pack("<II", 0, 5)),
    control_message(9, 28, LIMITS + struct.pack("<II", 0, 1)),
    control_message(10, 8),
    control_message(11, 28, LIMITS + struct.pack("<II", 0, 1)),
    control_message(12, 8),
    control_message(13, 24, struct.pack("<QII", 0x1122334455667788, 1700000000, 0)),
    control_message(14, 128, b"\xff"),
    control_message(14, 128, b"hello"),
    control_message(15, 8),
    control_message(16, 8),
    control_message(17, 8),
)

RING = Path("/var/run/packetLogData03")
RING_BYTES = 10240000


def ring_record(kind=0, packet=b"", captured=None, seconds=1700000000):
    return struct.pack("<IIIIQIiIIIIIIIIQ", kind, 72 + len(packet), 1, 0, 0x1122334455667788, 1514,
                       len(packet) if captured is None else captured, seconds,
                       250000 if seconds else 0, 1, 2, 3, 4, 5, 0, 0) + packet


def put_in_ring(ring, at, message):
    """Writes a message at a write index, as the writer of the ring does. Returns the next index."""
    begin = 8 + at
    after = at + 4 + (len(message) + 3) // 4 * 4
    ring[begin + 4:begin + 4 + len(message)] = message
    ring[8 + after:12 + after] = bytes(4)
    ring[begin:begin + 4] = struct.pack("<I", len(message))
    ring[4:8] = struct.pack("<I", after)  # from here on the reader may take it
    return after


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

    def test_every_message_to_the_packet_logging_daemon_fits_the_schema(self):
        self.start("packetlog", "--dir", str(self.folder))
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            # A receiver that is slower than the kernel's short queue makes the sender wait.
            for number, message in enumerate(PACKETLOG_MESSAGES, 1):
                sender.sendto(message, PACKETLOG_SOCKET)
                self.wait_for_lines("packetlog", number)
        lines = self.check("packetlog")
        self.assertEqual([1, 2, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13, 14, 14, 15, 16, 17],
                         [line.get("type") for line in lines])
        self.assertEqual(16, len({line["name"] for line in lines}))
        named, nameless = (line for line in lines if line["type"] == 2)
        self.assertEqual(("by hand", 7, 0x1122334455667788, 1700000000),
                         (named["userString"], named["eventId"], named["connectionId"],
                          named["time"]))
        self.assertEqual(({"base64": "/w=="}, None), (nameless["userString"], nameless["time"]))
        self.assertEqual("a2VwdA==", next(line["packet"] for line in lines if line["type"] == 4))
        self.assertEqual([{"base64": "/w=="}, "hello"],
                         [line["text"] for line in lines if line["type"] == 14])

    def test_records_of_the_ring_fit_the_schema(self):
        self.start("packetlog", "--dir", str(self.folder), "--ring", "3")
        wait_for(lambda: RING.exists() and RING.stat().st_size == RING_BYTES, "the ring")
        with open(RING, "r+b") as file, mmap.mmap(file.fileno(), RING_BYTES) as ring:
            at = put_in_ring(ring, 0, ring_record(packet=b"kept!"))
            at = put_in_ring(ring, at, ring_record(captured=-1, seconds=0))
            at = put_in_ring(ring, at, ring_record(kind=7))
            put_in_ring(ring, at, b"short")
            self.wait_for_lines("packetlog", 4)
        whole, empty, odd, short = self.check("packetlog")
        self.assertEqual(("Record", "a2VwdCE=", 1700000000.25, 0x1122334455667788, 1514),
                         (whole["name"], whole["packet"], whole["time"], whole["valueB"],
                          whole["packetLength"]))
        self.assertEqual((-1, None), (empty["capturedSize"], empty["time"]))
        self.assertNotIn("packet", empty)
        self.assertEqual("unknown type 7", odd["malformed"])
        self.assertEqual("shorter than 72 bytes", short["malformed"])

    def run_json(self, *words, status=0):
        done = subprocess.run([TARNCTL, *words, "--json"], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, check=False, timeout=PATIENCE)
        self.assertEqual(status, done.returncode, done.stderr)
        (line,) = done.stdout.splitlines()
        answer = json.loads(line)
        validator(words[0]).validate(answer)
        return answer

    def test_what_is_said_before_the_start_fits_the_schemas(self):
        shutil.copy(TREE / "samples" / "tarn.conf", CONFIG)
        EVENT_CONFIG.unlink(missing_ok=True)
        rules = self.folder / "a.rules"
        rules.write_bytes(b'alert tcp any any -> any any (msg:"caf\xe9"; sid:5; priority:1;)\n'
                          b'alert tcp any any -> any any (gid:116; sid:5;)\n'
                          b'alert tcp any any -> any any (msg:"no sid";)\ninclude none\n')
        trial = self.run_json("import", "--dry-run", str(rules), status=1)
        self.assertIn("+se.5.severity = high\n", trial["diff"])
        made = self.run_json("import", str(rules), status=1)
        self.assertEqual((True, False, [5], ["no-sid", "not-followed"]),
                         (made["written"], made["complete"], [e["id"] for e in made["added"]],
                          sorted(remark["kind"] for remark in made["remarks"])))
        rules.write_bytes(b"alert tcp any any -> any any (sid:6;)\n")
        pruned = self.run_json("import", "--prune", str(rules))
        self.assertEqual([5], pruned["removed"])
        failed = self.run_json("import", "/none", status=1)
        self.assertIsNotNone(failed["error"])
        clean = self.run_json("check", "--summary", "--rules", str(rules))
        self.assertEqual((0, 1), (clean["errors"], len(clean["entries"])))
        with open(EVENT_CONFIG, "ab") as events:
            events.write(b"se.7.msg = \xff\r\nse.7.severty = low\nse.7.quarantine.rule = x\n")
        faulty = self.run_json("check", "--summary", "--protect", "192.0.2.1", status=1)
        self.assertGreater(faulty["errors"], 2)
        self.assertEqual([{"base64": "/w0="}],
                         [e["name"] for e in faulty["entries"] if e["id"] == 7])
        missing = self.run_json("check", "-n", "/none", "--protect", "nobody", status=2)
        self.assertIn("file-missing", [finding["name"] for finding in missing["findings"]])
        self.assertEqual("end", self.run_json("explain", "8")["outcome"])
        self.assertTrue(self.run_json("explain", "6")["entry"])

    def test_what_the_feeder_has_done_fits_the_schema(self):
        shutil.copy(TREE / "samples" / "tarn.conf", CONFIG)
        EVENT_CONFIG.write_text("se.7.severity = low\n", encoding="utf-8")
        fed = self.run_json("feed", str(self.folder / "u2"), "--once", "--bookmark",
                            str(self.folder / "bookmark"))
        self.assertEqual((0, False, None), (fed["alerts"], fed["held"], fed["waitingFor"]))
        self.assertEqual("tarn is not running; start it, and it reads its files",
                         self.run_json("reload", status=1)["error"])

    def ring(self, action, *options):
        """Runs tarnctl ring on a ring of reports and holds its one line against the schema."""
        done = subprocess.run([TARNCTL, "ring", action, "--json", "--force", "crm5-1", *options],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False,
                              timeout=PATIENCE)
        line = json.loads(done.stdout)
        validator("ring").validate(line)
        return done.returncode, line

    def test_what_becomes_of_a_ring_fits_the_schema(self):
        ring = Path("/var/tmp/EventQueueCRM5-1")
        ring.write_bytes(struct.pack("<IIII", 0, 8, 3, 0x00636261) + bytes(4096))
        status, line = self.ring("show")
        self.assertEqual((0, [{"offset": 0, "length": 3, "bytes": "YWJj"}]),
                         (status, line["listed"]))
        self.assertEqual((0, None), (self.ring("check")[0], line["fault"]))
        ring.write_bytes(struct.pack("<IIII", 0, 8, 0, 0x00636261) + bytes(4096))
        status, line = self.ring("check")
        self.assertEqual((1, "no-length"), (status, line["fault"]["kind"]))
        self.assertEqual("repaired", self.ring("repair")[1]["outcome"])
        self.assertEqual("healthy", self.ring("repair")[1]["outcome"])
        self.assertEqual("repaired", self.ring("reset", "--yes")[1]["outcome"])

    def show(self, content):
        """Shows these bytes and holds each line against the schema."""
        done = subprocess.run([TARNCTL, "show", "--json", "-"], input=content, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=PATIENCE)
        lines = [json.loads(line) for line in done.stdout.splitlines()]
        schema = validator("show")
        for line in lines:
            schema.validate(line)
        return done.returncode, lines

    def test_what_a_sensor_wrote_fits_the_schema(self):
        sample = (TREE / "samples" / "sensor-302-alerts.u2").read_bytes()
        status, lines = self.show(sample)
        self.assertEqual((0, 302), (status, sum(line["kind"] == "event" for line in lines)))
        # One record of every type, of a length that is enough for each.
        status, lines = self.show(b"".join(struct.pack(">II", kind, 200) + bytes(200)
                                           for kind in (104, *range(1, 114))))
        self.assertEqual((1, 114), (status, len(lines)))
        self.assertEqual([110], [line["type"] for line in lines if "malformed" in line])

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
