#!/usr/bin/env python3
"""Starts that fail when both threads are already up: each ends in time and with status 4.

TARN_FAILING_STARTS sets how many there are.
"""

import os
import time

import harness
from harness import ALERT_FIFO, ERROR_FIFO

STARTS = int(os.environ.get("TARN_FAILING_STARTS", "1000"))
# Two joins of two seconds are the most that a stop waits, plus what a busy machine takes.
LIMIT = 4.0 + harness.PATIENCE / 3


class FailingStarts(harness.DaemonTest):
    def test_each_ends_in_time_and_with_status_4(self):
        for start in range(STARTS):
            path = (ALERT_FIFO, ERROR_FIFO)[start % 2]
            path.unlink(missing_ok=True)
            path.write_text("no FIFO")
            began = time.monotonic()
            daemon = harness.Daemon()
            try:
                self.assertEqual(daemon.wait(), 4, f"start {start}:\n{daemon.errors()}"
                                 + harness.log_text()[-3000:])
                self.assertLess(time.monotonic() - began, LIMIT, f"start {start}")
                self.assert_clean_errors(daemon)
            finally:
                daemon.end()
            path.unlink()
            self.assertFalse(harness.PID_FILE.exists())
        self.assertEqual(self.daemon().ready().stop(), 0, "a good start after all of them")


if __name__ == "__main__":
    harness.main()
