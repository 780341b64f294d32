#!/usr/bin/env python3
"""Quarantine rules reach the security manager, and whatever it does with them, the report goes out.

The manager is a stand-in, which shares no code with the daemon. For each way in which it can fail
the frames, the connections and the log lines are compared, these in their order.
"""

import os
import signal
import socket
import struct
import time
from pathlib import Path

import harness
from harness import TREE, log_messages, wait_for
from peers.crm import Entry, expected_message
from peers.security_manager import ADDED, SOCKET, SecurityManager
from unified2 import alerts_of, build_alert

SIGNATURE, TWO_RULES, PLAIN = 1100, 1101, 1102
ENTRY = Entry("Blocked", 3, "the rule", "DISPLAY:WithoutRaw")
SECOND = 1794495600  # 2026-11-12T15:00:00Z
TEXT = "ip intruder addr 10.1.2.3 tcp src port 0 dst port 80 expires 2026-11-12T15:10:00Z"

# What the daemon says of a rule, apart from what it says of everything else.
SUBJECTS = ("DbtComm ", "Quarantine ", "issueIdRef=", "Invalid response", "Failed to add",
            "Fail to add", "Unable to connect", "Timeout waiting", "Unexpected response",
            "recv returned", "Failed to wait", "Ignoring invalid", "Block duration",
            "EventBridge event queue is full.")

BEGIN = ["Quarantine by rule: 0x0009", f"Quarantine rule constructed: {TEXT}"]
NOT_OPEN = "DbtComm command channel is not opened. Open it before sending command."
OPENED = "DbtComm opened command channel."
CLOSED = "DbtComm closed command channel."
NO_REQUEST = "DbtComm failed to send add quarantine rule request."
NO_RESPONSE = "DbtComm failed to receive command response."
RESET = "DbtComm will reset command channel and retry operation."
INVALID = "Invalid response received by DbtComm for add quarantine rules request."
ACCEPTED = ["DbtComm received response of size 8.", "Quarantine rules are added successfully."]
GIVEN_UP = f"Fail to add quarantine rule {TEXT}."


def trying(failures):
    return [f"DbtComm is trying to add quarantine rule(s) after {failures} failure(s): {TEXT}",
            f"issueIdRef={SIGNATURE}"]


def cannot_connect(reason):
    return [f"Unable to connect socket, reason: {reason}", "DbtComm failed to open command channel."]


def rule_frame(text=TEXT, issue=SIGNATURE):
    body = struct.pack("=II", 1, issue) + text.encode() + b"\0"
    return struct.pack("=II", 11, len(body)) + body


class Quarantine(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        worm = "quarantine.rule = quarantine-worm, duration: 600"
        traffic = "response = quarantine-traffic"
        events = harness.event_lines(SIGNATURE, ENTRY, traffic, worm)
        events += harness.event_lines(
            TWO_RULES, ENTRY, traffic, worm,
            "quarantine.rule = quarantine-victim-address, duration: 600, ratelimit: 5")
        events += harness.event_lines(PLAIN, ENTRY)
        harness.write_newer(harness.EVENT_CONFIG, events)
        self.events = 0

    def manager(self, *words):
        manager = SecurityManager(*words)
        self.addCleanup(manager.close)
        return manager

    def start(self, **settings):
        if settings:
            harness.write_config(**settings)
        self.running = self.daemon().ready()
        self.feed = self.feeder()

    def alert(self, signature=SIGNATURE, **options):
        self.events += 1
        return build_alert(self.events, signature, second=SECOND, **options)

    def report_of(self, blocked, signature=SIGNATURE, **options):
        """Feeds an alert and sees that its report comes, whole and with the status."""
        record = self.alert(signature, **options)
        self.feed.write(record)
        entry = Entry(ENTRY.name, ENTRY.severity, ENTRY.rule, ENTRY.user_response, blocked)
        self.assertEqual([expected_message(alerts_of(record)[0], entry)], self.crm.collect(1))

    def lines(self):
        return [line for line in log_messages() if line.startswith(SUBJECTS)]

    def finish(self):
        self.assertEqual(0, self.running.stop())
        self.assertIsNone(self.crm.read(), "a report too many")
        self.assert_clean_errors(self.running)

    def check(self, blocked, *lines, signature=SIGNATURE):
        """One alert from start to stop: its report's status and all that was said of its rule."""
        self.start()
        self.report_of(blocked, signature)
        self.assertEqual([*BEGIN, *lines], self.lines())
        before = len(lines)
        self.finish()
        return self.lines()[len(BEGIN) + before:]

    # --- what is sent -----------------------------------------------------------------------------

    def test_an_accepted_rule_is_one_frame_right_to_the_byte(self):
        manager = self.manager(ADDED)
        after = self.check(5, *trying(0), NOT_OPEN, OPENED, *ACCEPTED)
        self.assertEqual([rule_frame()], manager.frames)
        self.assertEqual(1, manager.connections)
        self.assertEqual([CLOSED], after, "the channel is closed with the bridge")

    def test_the_frame_is_the_golden_one_but_for_its_text(self):
        golden = (TREE / "tests/golden/security_manager_add_rules.txt").read_text(encoding="utf-8")
        words = [line.split("#")[0].split() for line in golden.splitlines()]
        data = bytes(int(word, 16) for line in words for word in line if len(word) == 2)
        self.assertEqual(rule_frame("ip expires 2026-11-12T15:00:00Z", 0x01020304), data)

    def test_the_connection_stays_from_rule_to_rule_and_over_a_hangup(self):
        manager = self.manager(ADDED)
        self.start()
        self.report_of(5)
        self.report_of(5)
        self.running.send(signal.SIGHUP)
        self.running.ready(2)
        self.feed = self.feeder()
        self.report_of(5)
        self.assertEqual([rule_frame()] * 3, manager.frames)
        self.assertEqual(1, manager.connections)
        self.finish()

    def test_both_rules_of_an_entry_are_sent_in_order(self):
        manager = self.manager(ADDED)
        self.start()
        self.report_of(5, TWO_RULES, source="2001:db8::1", destination="2001:db8::2")
        texts = [frame[16:-1].decode() for frame in manager.frames]
        end = "expires 2026-11-12T15:10:00Z"
        self.assertEqual([
            f"ipv6 intruder addr 2001:db8::1 tcp src port 0 dst port 80 {end}",
            f"ipv6 victim addr 2001:db8::2 tcp src port 0 dst port 0 counter 5b {end}"], texts)
        self.finish()

    def test_one_accepted_rule_of_two_is_enough(self):
        for words in ((struct.pack("=II", 3, 0), ADDED), (ADDED, struct.pack("=II", 3, 0))):
            manager = SecurityManager(*words)
            self.start()
            self.report_of(5, TWO_RULES)
            self.assertEqual(2, len(manager.frames))
            self.finish()
            manager.close()

    def test_an_entry_without_rules_speaks_to_nobody(self):
        manager = self.manager(ADDED)
        self.start()
        self.report_of(0, PLAIN)
        self.assertEqual(0, manager.connections)
        self.assertEqual([], self.lines())
        self.finish()

    def test_the_readers_thread_sends_the_same_frame(self):
        manager = self.manager(ADDED)
        self.start(debug__single=1)
        self.report_of(5)
        self.assertEqual([*BEGIN, *trying(0), NOT_OPEN, OPENED, *ACCEPTED], self.lines())
        self.assertEqual([rule_frame()], manager.frames)
        self.finish()

    # --- how it can fail --------------------------------------------------------------------------

    def test_a_refused_rule_is_not_tried_again(self):
        manager = self.manager(struct.pack("=II", 3, 0))
        self.check(0, *trying(0), NOT_OPEN, OPENED, "DbtComm received response of size 8.",
                   "Failed to add quarantine rules: 3", GIVEN_UP)
        self.assertEqual([rule_frame()], manager.frames)

    def test_a_manager_that_is_not_there_is_tried_twice(self):
        missing = cannot_connect("No such file or directory")
        self.check(0, *trying(0), NOT_OPEN, *missing, "DbtComm command channel cannot to opened.",
                   NO_REQUEST, RESET,
                   "DbtComm attempts to close command channel but it was not opened.", *missing,
                   "DbtComm aborts retry because command channel cannot to reopened.", GIVEN_UP)

    def test_a_manager_that_left_its_socket_is_tried_twice(self):
        SecurityManager(ADDED).close()
        left = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        left.bind(str(SOCKET))
        left.close()
        refused = cannot_connect("Connection refused")
        self.check(0, *trying(0), NOT_OPEN, *refused, "DbtComm command channel cannot to opened.",
                   NO_REQUEST, RESET,
                   "DbtComm attempts to close command channel but it was not opened.", *refused,
                   "DbtComm aborts retry because command channel cannot to reopened.", GIVEN_UP)

    def test_a_manager_that_closes_after_each_request_is_asked_twice(self):
        manager = self.manager((b"", "close"))
        cut = ["Unexpected response length: 0", NO_RESPONSE, NO_REQUEST]
        self.check(0, *trying(0), NOT_OPEN, OPENED, *cut, RESET, CLOSED, OPENED, *trying(1), *cut,
                   GIVEN_UP)
        self.assertEqual([rule_frame()] * 2, manager.frames)
        self.assertEqual(2, manager.connections)

    def test_an_answer_that_is_cut_short_is_asked_for_again(self):
        manager = self.manager((ADDED[:5], "close"))
        cut = ["Unexpected response length: 5", NO_RESPONSE, NO_REQUEST]
        self.check(0, *trying(0), NOT_OPEN, OPENED, *cut, RESET, CLOSED, OPENED, *trying(1), *cut,
                   GIVEN_UP)
        self.assertEqual([rule_frame()] * 2, manager.frames)

    def test_an_answer_that_is_too_long_is_asked_for_again(self):
        manager = self.manager(struct.pack("=III", 15, 4, 0))
        invalid = ["DbtComm received response of size 12.", INVALID]
        self.check(0, *trying(0), NOT_OPEN, OPENED, *invalid, RESET, CLOSED, OPENED, *trying(1),
                   *invalid, GIVEN_UP)
        self.assertEqual([rule_frame()] * 2, manager.frames)
        self.assertEqual(2, manager.connections)

    def test_a_body_that_is_cut_short_is_asked_for_again(self):
        manager = self.manager((struct.pack("=III", 15, 100, 0), "close"))
        invalid = ["DbtComm received response of size 12.", INVALID]
        self.check(0, *trying(0), NOT_OPEN, OPENED, *invalid, RESET, CLOSED, OPENED, *trying(1),
                   *invalid, GIVEN_UP)
        self.assertEqual(2, len(manager.frames))

    def test_a_silent_manager_costs_two_time_limits(self):
        manager = self.manager(None)
        silence = ["Timeout waiting for response.", NO_RESPONSE, NO_REQUEST]
        started = time.monotonic()
        self.check(0, *trying(0), NOT_OPEN, OPENED, *silence, RESET, CLOSED, OPENED, *trying(1),
                   *silence, GIVEN_UP)
        self.assertGreaterEqual(time.monotonic() - started, 10.0)
        self.assertEqual([rule_frame()] * 2, manager.frames)

    def test_a_manager_that_answers_the_second_time_is_enough(self):
        manager = self.manager((b"", "close"), ADDED)
        self.check(5, *trying(0), NOT_OPEN, OPENED, "Unexpected response length: 0", NO_RESPONSE,
                   NO_REQUEST, RESET, CLOSED, OPENED, *trying(1), *ACCEPTED)
        self.assertEqual([rule_frame()] * 2, manager.frames)

    def test_a_refusal_at_the_second_time_is_final(self):
        manager = self.manager((b"", "close"), struct.pack("=II", 4, 0))
        self.check(0, *trying(0), NOT_OPEN, OPENED, "Unexpected response length: 0", NO_RESPONSE,
                   NO_REQUEST, RESET, CLOSED, OPENED, *trying(1),
                   "DbtComm received response of size 8.", "Failed to add quarantine rules: 4",
                   GIVEN_UP)
        self.assertEqual(2, len(manager.frames))

    def test_a_send_that_fails_is_tried_again(self):
        manager = self.manager((ADDED, "close"), ADDED)
        self.start()
        self.report_of(5)
        wait_for(lambda: manager.closed == 1, "the manager to close")
        before = len(self.lines())
        self.report_of(5)
        self.assertEqual([*BEGIN, *trying(0), "DbtComm failed to send command.", NO_REQUEST, RESET,
                          CLOSED, OPENED, *trying(1), *ACCEPTED],
                         self.lines()[before:])
        self.assertEqual([rule_frame()] * 2, manager.frames)
        self.finish()

    def test_a_manager_that_comes_back_gets_the_next_rule(self):
        manager = SecurityManager(ADDED)
        self.start()
        self.report_of(5)
        manager.close()
        wait_for(lambda: manager.closed == 1, "the manager to be gone")
        self.report_of(0)
        before = len(self.lines())
        successor = self.manager(ADDED)
        self.report_of(5)
        self.assertEqual([*BEGIN, *trying(0), NOT_OPEN, OPENED, *ACCEPTED], self.lines()[before:])
        self.assertEqual([rule_frame()], successor.frames)
        self.finish()

    def test_keeps_a_failed_channel_marked_as_open(self):
        manager = self.manager((b"", "close"), (b"", "close"), ADDED)
        self.start()
        self.report_of(0)
        wait_for(lambda: manager.closed == 2, "the manager to close")
        before = len(self.lines())
        self.report_of(5)
        self.assertEqual([*BEGIN, *trying(0), "DbtComm failed to send command.", NO_REQUEST, RESET,
                          CLOSED, OPENED, *trying(1), *ACCEPTED],
                         self.lines()[before:])
        self.finish()

    # --- while it fails ---------------------------------------------------------------------------

    def test_a_silent_manager_holds_up_neither_the_reader_nor_the_stop(self):
        manager = self.manager(None)
        self.start()
        began = time.monotonic()
        # One in the manager's hands, 1024 in the ring, 128 pending, and some that are lost.
        for _ in range(1 + 1024 + 128 + 50):
            self.feed.write(self.alert())
        self.feed.drained()
        harness.wait_log("EventBridge event queue is full.", 40)
        rules = 1 + int((time.monotonic() - began) / 10)  # as many as two time limits each allow
        self.assertLessEqual(len(manager.frames), 2 * rules, "a rule was given up too early")
        started = time.monotonic()
        self.assertEqual(0, self.running.stop())
        patience = 1 if "TARN_TEST_PATIENCE" not in os.environ else 10
        self.assertLess(time.monotonic() - started, 8 * patience)
        self.assert_clean_errors(self.running)


if __name__ == "__main__":
    harness.main()
