#!/usr/bin/env python3
"""scripts/demo, from the point where it is in the sandbox: everything that goes in comes out."""

import os
import subprocess
import tempfile
import unittest
from pathlib import Path

import harness
from harness import TREE

ALERTS = 302  # in the sample that it plays


class Demo(unittest.TestCase):
    def test_each_alert_comes_out_and_nothing_is_complained_of(self):
        with tempfile.TemporaryDirectory() as folder:
            build = Path(folder)
            for name, variable in (("src/tarn", "TARN_BINARY"),
                                   ("tools/tarnctl/tarnctl", "TARNCTL_BINARY")):
                link = build / name
                link.parent.mkdir(parents=True)
                link.symlink_to(os.environ[variable])
            # On one processor the programs in the background are often later than who awaits them.
            one = {min(os.sched_getaffinity(0))}
            done = subprocess.run(
                [TREE / "scripts/demo", "--inside", "--build-dir", build], capture_output=True,
                text=True, check=False, timeout=4 * harness.PATIENCE,
                preexec_fn=lambda: os.sched_setaffinity(0, one))
            self.assertEqual((0, ""), (done.returncode, done.stderr))
            self.assertIn(f"demo: {ALERTS} alerts in, {ALERTS} reports out, ", done.stdout)
            self.assertTrue((build / "captures/all.pcap").is_file())


if __name__ == "__main__":
    harness.main()
