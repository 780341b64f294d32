#!/usr/bin/env python3
"""Starts, and reloads of a busy daemon, that fail half-way: each ends in time and with status 4.

TARN_FAILING_STARTS sets how many there are.
"""

import os
import signal
import time
from contextlib import contextmanager
from pathlib import Path

import harness
from harness import ALERT_FIFO, ERROR_FIFO, EVENT_CONFIG
from load import LoadThread
from peers.crm import Entry

ROUNDS = int(os.environ.get("TARN_FAILING_STARTS", "1000"))
A_RELOAD_IN = 20  # rounds; a reload takes many times what a start takes
RING = Path("/var/tmp/EventQueueCRM2-1")
SEMAPHORE = Path("/dev/shm/sem.EventQueueCRM.sem")
# Two joins of two seconds are the most that a stop waits, plus what a busy machine takes.
LIMIT = 4.0 + harness.PATIENCE / 3


@contextmanager
def a_file_for(path):
    """A plain file where the daemon wants something else; both are gone afterwards."""
    path.unlink(missing_ok=True)
    path.write_text("no")
    yield
    path.unlink()


@contextmanager
def a_folder_for(path):
    path.unlink(missing_ok=True)
    path.mkdir()
    yield
    path.rmdir()


@contextmanager
def nothing_for(path):
    text = path.read_text()
    path.unlink()
    yield
    path.write_text(text)


# The threads are up when a FIFO fails, and not yet when the queue does.
START_FAULTS = (lambda: a_file_for(ALERT_FIFO), lambda: a_file_for(ERROR_FIFO),
                lambda: a_folder_for(RING), lambda: a_folder_for(SEMAPHORE))
RELOAD_FAULTS = (lambda: a_file_for(ERROR_FIFO), lambda: nothing_for(EVENT_CONFIG),
                 lambda: a_folder_for(RING), lambda: a_folder_for(SEMAPHORE))


class FailingStarts(harness.DaemonTest):
    def test_each_ends_in_time_and_with_status_4(self):
        harness.write_events({7: Entry("Load", 1, "rule", "DISPLAY:WithoutRaw")})
        for number in range(ROUNDS):
            if number % A_RELOAD_IN == 0:
                self.fail_a_reload(number, RELOAD_FAULTS[number // A_RELOAD_IN % 4])
            else:
                self.fail_a_start(number, START_FAULTS[number % 4])
            self.assertFalse(harness.PID_FILE.exists(), f"round {number}")
        self.assertEqual(0, self.daemon().ready().stop(), "a good start after all of them")

    def fail_a_start(self, number, fault):
        with fault():
            began = time.monotonic()
            daemon = harness.Daemon()
            try:
                self.ends(daemon, number, began)
            finally:
                daemon.end()

    def fail_a_reload(self, number, fault):
        daemon = harness.Daemon()
        load = LoadThread(7)
        try:
            daemon.ready()
            load.start()
            harness.wait_for(lambda: load.written > 200, "the load")
            with fault():
                began = time.monotonic()
                daemon.send(signal.SIGHUP)
                self.ends(daemon, number, began)
        finally:
            load.end()
            daemon.end()

    def ends(self, daemon, number, began):
        self.assertEqual(4, daemon.wait(), f"round {number}:\n{daemon.errors()}"
                         + harness.log_text()[-3000:])
        self.assertLess(time.monotonic() - began, LIMIT, f"round {number}")
        self.assert_clean_errors(daemon)


if __name__ == "__main__":
    harness.main()
