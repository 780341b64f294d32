#!/usr/bin/env python3
"""What `tarnctl explain --report` says of a report is what the security manager was asked for.

A daemon runs between a stand-in of the security manager, which shares no code with it, and
`tarnctl crm --json`, whose lines are explained as they are.
"""

import json
import os
import shutil
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

import jsonschema

from harness import CONFIG, EVENT_CONFIG, PATIENCE, TREE, event_lines, wait_for
from peers.crm import Entry
from peers.security_manager import ADDED, SecurityManager
from unified2 import build_alert, build_packet

TARNCTL = os.environ["TARNCTL_BINARY"]
SCHEMA = json.loads((TREE / "docs/schemas/explain.json").read_text(encoding="utf-8"))
REFUSED = (3).to_bytes(4, "little") + bytes(4)
TCP, UDP, ICMP = 6, 17, 1

TRAFFIC = "response = quarantine-traffic"
WORM = "quarantine.rule = quarantine-worm, duration: 600"
ENTRIES = {
    1100: (TRAFFIC, WORM),
    1101: (TRAFFIC, WORM, "quarantine.rule = quarantine-icmp-type, duration: 60",
           "quarantine.rule = quarantine-victim-address, duration: 600, ratelimit: 5"),
    1102: (WORM,),
    1103: ("response = none", WORM),
    1104: (TRAFFIC, "quarantine.rule = quarantine-victim-port, duration: 600"),
    1105: (TRAFFIC, "quarantine.rule = quarantine-intruder-subnet"),
    1106: (),
}
ADDRESSES = (("10.1.2.3", "192.168.7.9"), ("2001:db8::7", "2001:db8:1::9"))


def alerts():
    """Each signature with each protocol and IP version."""
    stream, count = b"", 0
    for signature in ENTRIES:
        for source, destination in ADDRESSES:
            for protocol in (TCP, UDP, ICMP if "." in source else 58):
                count += 1
                second = int(time.time())
                stream += build_alert(count, signature, source, destination, second=second,
                                      protocol=protocol, source_port=8, destination_port=0)
                stream += build_packet(count, b"packet", second=second)
    return stream, count


class ExplainReports(unittest.TestCase):
    def setUp(self):
        self.folder = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        shutil.copy(TREE / "samples" / "tarn.conf", CONFIG)
        EVENT_CONFIG.write_text("".join(
            event_lines(signature, Entry(f"Event {signature}", 2, "the rule", "DISPLAY:WithRaw"),
                        *lines)
            for signature, lines in ENTRIES.items()), encoding="utf-8")

    def begin(self, words, **options):
        process = subprocess.Popen(words, stderr=subprocess.DEVNULL, **options)
        self.addCleanup(self.end, process)
        return process

    def end(self, process):
        if process.poll() is None:
            process.terminate()
        process.wait(timeout=PATIENCE)

    def reports(self, answer):
        """The lines of the CRM, and the rules that the security manager got for each signature."""
        manager = SecurityManager(answer)
        self.addCleanup(manager.close)
        stream, count = alerts()
        recorded = self.folder / "alerts.u2"
        recorded.write_bytes(stream)
        lines = self.folder / "crm"
        with open(lines, "wb") as out:
            self.begin([TARNCTL, "crm", "--json", "--count", str(count)], stdout=out)
        daemon = self.begin([os.environ["TARN_BINARY"]], stdout=subprocess.DEVNULL)
        subprocess.run([TARNCTL, "replay", "--wait", str(PATIENCE), str(recorded)],
                       stdout=subprocess.DEVNULL, check=True, timeout=2 * PATIENCE)
        wait_for(lambda: lines.read_bytes().count(b"\n") == count, f"{count} reports")
        self.end(daemon)
        rules = {}
        for frame in manager.frames:
            rules.setdefault(int.from_bytes(frame[12:16], "little"),
                             []).append(frame[16:].rstrip(b"\0").decode())
        return lines.read_text(encoding="utf-8").splitlines(), rules

    def explain(self, lines):
        done = subprocess.run([TARNCTL, "explain", "--report", "-", "--json"],
                              input="\n".join(lines), capture_output=True, text=True, check=False,
                              timeout=PATIENCE)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        answers = [json.loads(line) for line in done.stdout.splitlines()]
        for answer in answers:
            jsonschema.validate(answer, SCHEMA, cls=jsonschema.Draft202012Validator)
        return answers

    def test_the_answer_is_what_was_sent(self):
        lines, received = self.reports(ADDED)
        answers = self.explain(lines)
        self.assertEqual(len(lines), len(answers))
        sent = {}
        for line, answer in zip(lines, answers):
            report = json.loads(line)
            signature = report["report"]["issueId"]
            self.assertEqual(signature, answer["signature"])
            texts = [rule["text"] for rule in answer["blocking"]["rules"] if rule["sent"]]
            self.assertEqual(bool(texts), report["blocked"], line)
            self.assertEqual((report["blocked"], True),
                             (answer["comparison"]["wasBlocked"], answer["comparison"]["agrees"]))
            self.assertTrue(answer["comparison"]["reason"])
            self.assertEqual(report["name"], answer["report"]["name"])
            if texts:
                sent.setdefault(signature, []).extend(texts)
        self.assertEqual(received, sent)
        # Each outcome has been there.
        self.assertEqual({1100, 1101, 1104, 1105}, set(sent))
        self.assertIn(False, [json.loads(line)["blocked"] for line in lines
                              if json.loads(line)["report"]["issueId"] == 1104])

    def test_a_refusal_is_told_apart_from_the_entry(self):
        lines, received = self.reports(REFUSED)
        self.assertTrue(received)
        for line, answer in zip(lines, self.explain(lines)):
            self.assertFalse(json.loads(line)["blocked"])
            self.assertFalse(answer["comparison"]["wasBlocked"])
            self.assertEqual(not answer["blocking"]["asked"], answer["comparison"]["agrees"])
            if answer["blocking"]["asked"]:
                self.assertIn("security manager", answer["comparison"]["reason"])


if __name__ == "__main__":
    unittest.main()
