#!/usr/bin/env python3
"""Every kind of output of tarnctl explain --json fits its schema."""

import argparse
import json
import subprocess
import sys
import tempfile
from pathlib import Path

import jsonschema

EVENTS = """\
se.1.msg = Blocked
se.1.severity = high
se.1.rule = alert tcp any any
se.1.user.response = LOGEVIDENCE WithRaw
se.1.response = quarantine-traffic
se.1.quarantine.rule = quarantine-intruder-subnet, duration: 600
se.1.quarantine.rule = quarantine-icmp-type
se.1.quarantine.rule = quarantine-issue
se.2.msg = Quiet
se.2.user.response = LOGEVIDENCE Connection
se.2.response = none
se.2.severity = urgent
se.3.msg = \udcff
se.3.response = quarantine-icmp-traffic
se.1.msg = Too late
"""


def report(signature, blocked):
    """The part of a report of tarnctl crm --json that explain reads, and a name of it that it does not."""
    return json.dumps({
        "channel": 2, "name": "Blocked", "blocked": blocked, "pairs": {"Rule": "r", "URL": "/"},
        "report": {"etherType": 0x0800, "issueId": signature, "startTime": 1794495600, "ipProtocol": 6,
                   "icmpType": 0, "icmpCode": 0, "intruderPort": 1025, "victimPort": 80,
                   "vlanId": 4294967295, "intruderIp": "10.0.0.1", "victimIp": "10.0.0.2"},
        "packet": {"capturedSize": 60, "time": 1.000002},
    }) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tarnctl", required=True)
    parser.add_argument("--schema", type=Path, required=True)
    parser.add_argument("--sample", type=Path, required=True, help="a unified2 file")
    parser.add_argument("--sample-signature", required=True)
    options = parser.parse_args()
    schema = json.loads(options.schema.read_text(encoding="utf-8"))
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)

    with tempfile.TemporaryDirectory() as folder:
        config, events = Path(folder, "tarn.conf"), Path(folder, "tarn_event.conf")
        config.write_text("tarn.log.level = 3\n", encoding="utf-8")
        events.write_text(EVENTS, encoding="utf-8", errors="surrogateescape")
        files = ["-c", config, "-n", events, "--state", Path(folder, "none")]
        reports = report(1, True) + report(1, False) + report(2, True) + report(9, False)
        runs = {
            "an example": (["1"], 1),
            "a quiet entry": (["2"], 1),
            "a name that is no text": (["3", "--proto", "icmp", "--src", "2001:db8::7"], 1),
            "ICMP with a rule for ports": (["1", "--proto", "icmp", "--time", "0"], 1),
            "a protocol by its number": (["1", "--proto", "47"], 1),
            "a signature without an entry": (["9"], 1),
            "an alert of a file": ([options.sample_signature, "--alert", options.sample], 1),
            "reports": (["--report", "-"], 4),
        }
        outcomes = set()
        for name, (words, count) in runs.items():
            done = subprocess.run([options.tarnctl, "explain", *words, *files, "--json"],
                                  input=reports, capture_output=True, text=True, timeout=60, check=False)
            if done.returncode != 0:
                sys.exit(f"{name}: exit status {done.returncode}: {done.stderr}")
            lines = done.stdout.splitlines()
            if len(lines) != count:
                sys.exit(f"{name}: {len(lines)} lines where {count} were expected")
            for line in lines:
                document = json.loads(line)
                outcomes.add((document["outcome"], document["comparison"] is None))
                faults = [fault.message for fault in validator.iter_errors(document)]
                if faults:
                    sys.exit(f"{name}: {faults}\n{line}")
        if len(outcomes) != 4:
            sys.exit(f"only {outcomes} were seen")
        # The schema is worth something: it refuses what lacks a field or has one too many.
        for spoil in (lambda d: d.pop("capture"), lambda d: d.update(more=1),
                      lambda d: d["blocking"]["rules"].append({})):
            document = json.loads(subprocess.run(
                [options.tarnctl, "explain", "1", *files, "--json"], capture_output=True, text=True,
                timeout=60, check=True).stdout)
            spoil(document)
            if validator.is_valid(document):
                sys.exit("the schema takes a document that is none")
    return 0


if __name__ == "__main__":
    sys.exit(main())
