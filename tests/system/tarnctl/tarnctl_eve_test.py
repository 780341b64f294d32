#!/usr/bin/env python3
"""`tarnctl crm --eve`: its lines fit their schema, and no report is lost when it is killed."""

import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import unittest
from pathlib import Path

import jsonschema

import harness

TARNCTL = os.environ["TARNCTL_BINARY"]
SOAK = Path(__file__).parent / "crm_soak.py"
FILE = Path("/cache/eve.json")
SOCKET = "/cache/collector"
NO_REDIS = b"built without hiredis" in subprocess.run(
    [TARNCTL, "crm", "--redis", "unix:/none", "--stream", "x", "--timeout", "0.01"],
    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False,
    timeout=harness.PATIENCE).stderr


def validator(name):
    schema = json.loads((harness.TREE / "docs/schemas" / f"{name}.json").read_text("utf-8"))
    jsonschema.Draft202012Validator.check_schema(schema)
    return jsonschema.Draft202012Validator(schema)


class Eve(unittest.TestCase):
    def setUp(self):
        FILE.unlink(missing_ok=True)

    def start(self, *options):
        process = subprocess.Popen([TARNCTL, "crm", *options], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

        def end():
            if process.poll() is None:
                process.kill()
            process.communicate()
        self.addCleanup(end)
        return process

    def play_sample(self):
        shutil.copy(harness.TREE / "samples" / "tarn.conf", harness.CONFIG)
        shutil.copy(harness.TREE / "samples" / "tarn_event.conf", harness.EVENT_CONFIG)
        daemon = subprocess.Popen([os.environ["TARN_BINARY"]], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.terminate)
        subprocess.run([TARNCTL, "replay", "--rate", "200", "--wait", str(harness.PATIENCE),
                        str(harness.TREE / "samples" / "sensor-302-alerts.u2")],
                       stdout=subprocess.DEVNULL, check=True, timeout=4 * harness.PATIENCE)

    def test_the_reports_of_a_daemon_fit_the_schema(self):
        service = self.start("--eve", str(FILE), "--packets", "--json", "--count", "302")
        self.play_sample()
        counters, told = service.communicate(timeout=4 * harness.PATIENCE)
        self.assertEqual(0, service.returncode, told)
        counters = json.loads(counters)
        validator("crm_counters").validate(counters)
        self.assertEqual((302, 302), (counters["reports"], counters["sinks"][0]["taken"]))
        lines = [json.loads(line) for line in FILE.read_text("utf-8").splitlines()]
        self.assertEqual(302, len(lines))
        schema = validator("eve")
        for line in lines:
            schema.validate(line)
        self.assertTrue(any("packet" in line for line in lines))
        self.assertTrue(any("http" in line for line in lines))

    def test_the_golden_line_and_a_malformed_one_fit_the_schema(self):
        golden = (harness.TREE / "tests/golden/eve_alert.json").read_text("utf-8")
        validator("eve").validate(json.loads(golden))
        malformed = {"timestamp": "2025-11-13T08:24:17.000000+0000", "event_type": "malformed",
                     "tarn": {"channel": 2, "ring": 0, "malformed": "x", "bytes": "AQI="}}
        validator("eve").validate(malformed)
        malformed["tarn"]["more"] = 1
        self.assertFalse(validator("eve").is_valid(malformed))

    def test_a_collector_at_a_socket_gets_lines(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
            Path(SOCKET).unlink(missing_ok=True)
            listener.bind(SOCKET)
            listener.listen()
            listener.settimeout(harness.PATIENCE)
            service = self.start("--eve", f"unix:{SOCKET}", "--count", "302")
            connection, _ = listener.accept()
            self.play_sample()
            with connection:
                connection.settimeout(harness.PATIENCE)
                text = b""
                while text.count(b"\n") < 302:
                    text += connection.recv(65536)
                self.assertEqual(0, service.wait(harness.PATIENCE))
        self.assertEqual(302, len([json.loads(line) for line in text.splitlines()]))

    def test_standard_output_may_be_closed_by_its_reader(self):
        service = self.start("--eve", "-")
        self.play_sample()
        json.loads(service.stdout.readline())
        service.stdout.close()
        self.assertEqual(0, service.wait(harness.PATIENCE))
        service.stderr.close()
        service.stdout = service.stderr = None

    def test_signals_show_counters_and_open_the_file_anew(self):
        errors = Path("/cache/errors")
        with open(errors, "wb") as told:
            service = subprocess.Popen([TARNCTL, "crm", "--eve", str(FILE)], stderr=told)
        self.addCleanup(service.wait)
        self.addCleanup(service.kill)
        harness.wait_for(FILE.exists, "the file")
        harness.wait_for(lambda: b"goes to" in errors.read_bytes(), "the service")
        service.send_signal(signal.SIGUSR1)
        harness.wait_for(lambda: b"0 reports; eve /cache/eve.json: 0 taken" in errors.read_bytes(), "the counters")
        service.send_signal(signal.SIGHUP)
        service.send_signal(signal.SIGTERM)
        self.assertEqual(0, service.wait(harness.PATIENCE))

    def soak(self, *options):
        done = subprocess.run([sys.executable, str(SOAK), "--reports", "20000", "--kills", "10",
                               *options],
                              stdout=subprocess.PIPE, text=True, check=False,
                              timeout=20 * harness.PATIENCE)
        results = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual(0, done.returncode, results)
        for result in results:
            self.assertEqual((0, 0), (result["lost"], result["outOfOrder"]), result)
        return results

    def test_no_report_is_lost_when_it_is_killed(self):
        self.soak()

    def test_no_report_is_lost_when_the_collector_is_away_and_it_is_killed(self):
        self.soak("--spill")

    @unittest.skipIf(shutil.which("redis-server") is None or NO_REDIS, "there is no Redis")
    def test_no_report_is_lost_when_the_server_and_it_are_killed(self):
        results = self.soak("--redis")
        self.assertEqual(["eve.json", "stream.json"], [result["file"] for result in results])


if __name__ == "__main__":
    unittest.main()
