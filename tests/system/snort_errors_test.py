#!/usr/bin/env python3
"""Snort's error output on its way to the CRM: every kind of line, a CRM that comes and goes, and
what becomes of the error thread when the daemon starts, reloads and stops."""

import os
import signal
import socket
import time
from pathlib import Path

import harness
from harness import ERROR_FIFO, EVENT_CONFIG
from peers.crm import Entry
from peers.messages import ERROR, INFORMATION, MessageQueue
from peers.messages import SOCKET as CRM_SOCKET
from unified2 import build_alert

RULES = Path("/etc/snort/rules/snort.rules")
OPENED = "File is opened, waiting for Snort errors"
EOF = "Get EOF in SNORT stderr, please igore the reason: Illegal seek"
NOT_SENT = "Send SNORT message failed, sleep and retry"
STILL_ALIVE = "Error thread is still alive. Force quit it."

RULE_LINES = """\
# the sensor's rules
alert tcp any any -> any any (msg:"Bad thing"; sid:1000002; rev:1;)
alert tcp any any -> any any (msg:"No signature";)
alert tcp any any -> any any (sid:1000004;)
alert tcp any any -> any any (MSG: "In capitals" ; SID: 1000005 ;)
"""


class SnortErrors(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        RULES.write_text(RULE_LINES)
        self.open_writers = set()
        self.addCleanup(lambda: [writer.close() for writer in self.open_writers])

    def message_queue(self):
        CRM_SOCKET.unlink(missing_ok=True)
        queue = MessageQueue()
        self.addCleanup(queue.close)
        return queue

    def snort(self):
        """Snort's end of the error FIFO."""
        snort = harness.Feeder(ERROR_FIFO)
        self.open_writers.add(snort)
        return snort

    def end(self, snort):
        self.open_writers.remove(snort)
        snort.close()

    def ready_daemon(self):
        daemon = self.daemon().ready()
        harness.wait_log(OPENED)
        return daemon

    def stop_in_time(self, daemon, seconds):
        began = time.monotonic()
        self.assertEqual(0, daemon.stop())
        self.assertLess(time.monotonic() - began, seconds + harness.PATIENCE / 6)
        self.assert_clean_errors(daemon)

    def test_makes_a_sentence_of_every_kind_of_line(self):
        cases = (
            ("Commencing packet processing (pid=1)\n",
             INFORMATION, "Commencing packet processing (pid=1)\n"),
            ("\n", INFORMATION, "\n"),
            (" ERROR: a blank first\n", INFORMATION, " ERROR: a blank first\n"),
            ("ERROR: Can't start DAQ (-1)!\n",
             ERROR, "ERROR in SNORT. Reason: ERROR: Can't start DAQ (-1)!\n"),
            ('ERROR: Config option "interface" requires arguments.\n', ERROR,
             'ERROR in SNORT. Reason: ERROR: Config option "interface" requires arguments.\n'),
            ("ERROR: /etc/snort/qor-snort.conf(3) bad\n", ERROR,
             "ERROR in SNORT configuration. Reason: ERROR: /etc/snort/qor-snort.conf(3) bad\n"),
            ("ERROR: /etc/snort/rules/snort.rules(2) unknown option\n", ERROR,
             'ERROR in SNORT rule. SID: 1000002, Msg: "Bad thing",  Reason: unknown option\n'),
            ("ERROR: /etc/snort/rules/snort.rules(5) unknown option (or not)\n", ERROR,
             'ERROR in SNORT rule. SID: 1000005, Msg: "In capitals",  Reason: unknown option '),
            ("ERROR: /etc/snort/rules/snort.rules(3) no signature\n", ERROR,
             "ERROR in SNORT rule. Error: no signature\n"),
            ("ERROR: /etc/snort/rules/snort.rules(4) no message\n", ERROR,
             "ERROR in SNORT rule. Error: no message\n"),
            ("ERROR: /etc/snort/rules/snort.rules(6) behind the end\n", ERROR,
             "ERROR in SNORT rule. Error: behind the end\n"),
            ("x" * 600 + "\n", INFORMATION, "x" * 513),
        )
        queue = self.message_queue()
        daemon = self.ready_daemon()
        snort = self.snort()
        for line, kind, text in cases:
            snort.write(line.encode())
            self.assertEqual(queue.take(), (kind, text))
        self.assertIsNone(queue.take(0), "each once")
        self.stop_in_time(daemon, 2)

    def test_loses_no_message_while_the_crm_comes_and_goes(self):
        daemon = self.ready_daemon()
        snort = self.snort()
        for number in range(3):
            snort.write(f"line {number}\n".encode())
            harness.wait_log(NOT_SENT, number + 1)
        queue = self.message_queue()
        self.end(snort)  # which lets go the lines that wait after the first one
        for number in range(3):
            self.assertEqual((INFORMATION, f"line {number}\n"), queue.take())

        queue.close()
        before = harness.count_log(NOT_SENT)
        snort = self.snort()
        snort.write(b"line 3\n")
        harness.wait_log(NOT_SENT, before + 1)
        snort.write(b"line 4\n")
        queue = self.message_queue()
        self.assertEqual((INFORMATION, "line 3\n"), queue.take())
        self.assertEqual((INFORMATION, "line 4\n"), queue.take())
        self.assertIsNone(queue.take(0), "each once")
        self.stop_in_time(daemon, 2)

    def test_serves_one_writer_after_the_other(self):
        queue = self.message_queue()
        daemon = self.ready_daemon()
        for number in range(1, 4):
            snort = self.snort()
            snort.write(b"begins\nmore\nends without a newline")
            self.end(snort)
            for text in ("begins\n", "more\n", "ends without a newline"):
                self.assertEqual(queue.take(), (INFORMATION, text))
            harness.wait_log(EOF, number)
            harness.wait_log(OPENED, number + 1)
        self.stop_in_time(daemon, 2)
        self.assertFalse(any("getline error" in line for line in harness.log_messages()))

    def test_keeps_the_lines_beyond_4096_bytes_until_the_fifo_is_readable(self):
        queue = self.message_queue()
        daemon = self.ready_daemon()
        snort = self.snort()
        lines = [f"line {number:02}".ljust(99, "x") + "\n" for number in range(60)]
        snort.write("".join(lines).encode())
        for line in lines[:41]:
            self.assertEqual((INFORMATION, line), queue.take())
        daemon.idle()
        self.assertIsNone(queue.take(0), "the stream holds the others")
        snort.write(b"stirs\n")
        for line in lines[41:] + ["stirs\n"]:
            self.assertEqual((INFORMATION, line), queue.take())
        self.stop_in_time(daemon, 2)

    def test_keeps_opening_the_fifo_again_after_a_line_whose_end_is_late(self):
        queue = self.message_queue()
        daemon = self.ready_daemon()
        snort = self.snort()
        snort.write(b"half")
        self.assertEqual((INFORMATION, "half"), queue.take())
        snort.write(b" done\n")
        harness.wait_log("getline error, reason: Resource temporarily unavailable")
        self.assertEqual((INFORMATION, " done\n"), queue.take())
        harness.wait_log(OPENED, 2)
        self.stop_in_time(daemon, 2)

    def test_waits_for_its_fifo_to_be_made(self):
        queue = self.message_queue()
        daemon = self.ready_daemon()
        snort = self.snort()
        snort.write(b"there\n")
        self.assertEqual((INFORMATION, "there\n"), queue.take())
        # The FIFO goes, which the thread notices when it opens it again.
        ERROR_FIFO.unlink()
        self.end(snort)
        missing = f"Open file error: {ERROR_FIFO}, reason: No such file or directory"
        harness.wait_log(missing)
        os.mkfifo(ERROR_FIFO)
        snort = self.snort()
        snort.write(b"there again\n")
        self.assertEqual((INFORMATION, "there again\n"), queue.take())
        self.stop_in_time(daemon, 2)

    def test_stops_while_the_crm_is_missing(self):
        daemon = self.ready_daemon()
        self.snort().write(b"nobody listens\n")
        harness.wait_log(NOT_SENT, 2)
        self.stop_in_time(daemon, 2)
        self.assertNotIn(STILL_ALIVE, harness.log_messages())

    def test_stops_while_the_fifo_is_missing(self):
        daemon = self.ready_daemon()
        ERROR_FIFO.unlink()
        snort = os.open(f"/proc/{daemon.pid}/fd/{self.descriptor(daemon)}", os.O_WRONLY)
        os.close(snort)  # the end of a writer: the thread closes the FIFO and misses it
        harness.wait_log(f"Open file error: {ERROR_FIFO}, reason: No such file or directory")
        self.stop_in_time(daemon, 2)
        self.assertNotIn(STILL_ALIVE, harness.log_messages())

    @staticmethod
    def descriptor(daemon):
        """The number under which the daemon has the error FIFO open."""
        folder = Path(f"/proc/{daemon.pid}/fd")
        return next(entry.name for entry in folder.iterdir()
                    if os.readlink(entry).startswith(str(ERROR_FIFO)))

    def test_a_hangup_leaves_the_thread_and_its_descriptors_alone(self):
        queue = self.message_queue()
        daemon = self.ready_daemon()
        snort = self.snort()
        snort.write(b"before\n")
        self.assertEqual((INFORMATION, "before\n"), queue.take())

        tasks, descriptor = set(daemon.tasks()), self.descriptor(daemon)
        for cycle in range(2, 5):
            daemon.send(signal.SIGHUP)
            daemon.ready(cycle)
            harness.wait_for(lambda: daemon.threads() == 3, "the event thread again")
            self.assertEqual(self.descriptor(daemon), descriptor)
            self.assertGreaterEqual(len(tasks & set(daemon.tasks())), 2,
                                    "main and the error thread")
            snort.write(f"cycle {cycle}\n".encode())
            self.assertEqual((INFORMATION, f"cycle {cycle}\n"), queue.take())
        self.assertEqual(1, harness.count_log("Want to start ERROR thread"))
        self.assertEqual(1, harness.count_log(OPENED))
        self.stop_in_time(daemon, 2)
        self.assertEqual(1, harness.count_log("Error thread is running, stop it"))

    def test_keeps_quitting_the_thread_by_force_when_the_termination_comes_within_a_hangup(self):
        # A security manager that never answers holds the event thread for the whole of its join,
        # and that is when the termination comes: nobody has asked the error thread to stop.
        EVENT_CONFIG.write_text(harness.event_lines(
            7, Entry("Blocked", 1, "rule", "DISPLAY:WithoutRaw"), "response = quarantine-traffic",
            "quarantine.rule = quarantine-intruder-address, duration: 60"))
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(manager.close)
        manager.bind("/var/tmp/.secmgrsock")
        manager.listen(1)
        daemon = self.ready_daemon()
        self.feeder().write(build_alert(1, 7, second=1))
        harness.wait_log("DbtComm opened command channel.")
        daemon.send(signal.SIGHUP)
        harness.wait_log("EVENT thread is running, stop it")
        daemon.send(signal.SIGTERM)
        self.assertEqual(0, daemon.wait())
        messages = harness.log_messages()
        self.assertIn("Event thread join timeout exceeded", messages)
        self.assertIn(STILL_ALIVE, messages)
        self.assertNotIn("Error thread is running, stop it", messages)
        self.assertEqual("tarn exiting", messages[-1])
        self.assert_clean_errors(daemon)


if __name__ == "__main__":
    harness.main()
