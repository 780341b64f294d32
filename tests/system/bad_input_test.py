#!/usr/bin/env python3
"""Records that are short, long, cut off, unknown or no records at all: the daemon outlives them,
and the next good alert is reported as ever."""

import os
import signal
import struct

import harness
from harness import ALERT_FIFO
from peers.crm import Entry, expected_message
from peers.packet_logger import OFFENDING_PACKET, PacketLogger, expected_capture
from unified2 import (ALERT_IPV4, ALERT_IPV6, EXTRA_DATA, HOST_NAME, PACKET, alerts_of, build_alert,
                      build_extra_data, build_packet, frame, records)

ENTRY = Entry("Good", 2, "rule", "DISPLAY:WithRaw")
LOGGED_ENTRY = Entry("Logged", 2, "rule", "LOGEVIDENCE")
SIGNATURE, LOGGED = 7, 8


class BadInput(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        harness.write_config(debug__single=1)
        harness.write_events({SIGNATURE: ENTRY, LOGGED: LOGGED_ENTRY})
        self.running = self.daemon().ready()
        harness.wait_log("File is opened, waiting for Snort events")

    def assert_reports(self, *good_records):
        """Feeds good records and compares what comes with what is to come; then stops."""
        feeder = self.feeder()
        for record in good_records:
            feeder.write(record)
        alerts = alerts_of(b"".join(good_records))
        self.assertEqual(self.crm.collect(len(alerts)),
                         [expected_message(alert, ENTRY) for alert in alerts])
        self.assertEqual(0, self.running.stop())
        self.assertIsNone(self.crm.read())
        self.assert_clean_errors(self.running)

    def assert_still_reports(self):
        # One write, so that no quiet second can part the packet from its alert.
        self.assert_reports(build_alert(500, SIGNATURE, second=5) + build_packet(500, b"good"))

    def write_and_leave(self, data):
        """A writer that goes away: the daemon drops what it cannot make a record of."""
        feeder = harness.Feeder()
        for start in range(0, len(data), 4096):
            feeder.write(data[start:start + 4096])
        feeder.drained()
        feeder.close()

    def check_cut_off(self, data):
        self.write_and_leave(data)
        # The reader gives the FIFO up and opens it again, from where it is in step again.
        harness.wait_log("File is opened, waiting for Snort events", 2)
        self.assert_still_reports()

    def test_a_header_that_is_cut_off_is_dropped(self):
        self.check_cut_off(build_alert(1, SIGNATURE)[:5])

    def test_an_alert_that_is_cut_off_is_dropped(self):
        self.check_cut_off(build_alert(1, SIGNATURE)[:40])

    def test_an_alert_whose_payload_is_missing_is_dropped(self):
        self.check_cut_off(build_alert(1, SIGNATURE)[:8])

    def test_keeps_losing_a_record_whose_tail_comes_late(self):
        feeder = self.feeder()
        feeder.write(build_alert(1, SIGNATURE)[:30])
        harness.wait_log("Partial event read: 22")
        harness.wait_log("Read event error, reason: Resource temporarily unavailable")
        self.assert_still_reports()

    def test_unknown_records_are_skipped(self):
        feeder = self.feeder()
        for record_type in (0, 1, 7, 72, 99, 100, 111, 207, 0xFFFFFFFF):
            feeder.write(frame(record_type, bytes(52)))
            harness.wait_log(f"Unsupported event type: {record_type}")
        feeder.write(frame(7, b""))
        harness.wait_log("Unsupported event type: 7", 2)
        self.assert_still_reports()

    def test_a_longer_alert_is_read_as_far_as_it_is_known(self):
        for width in (ALERT_IPV4, ALERT_IPV6):
            address = "10.0.0.1" if width == ALERT_IPV4 else "2001:db8::1"
            (record_type, payload), = records(build_alert(3, SIGNATURE, address, address))
            self.assertEqual(record_type, width)
            self.feeder().write(frame(record_type, payload + b"\xff" * 100))
            message, = self.crm.collect(1)
            alert, = alerts_of(frame(record_type, payload))
            self.assertEqual(expected_message(alert, ENTRY), message)
        self.assert_still_reports()

    def test_a_shorter_alert_reads_as_zeros_after_its_end(self):
        (_, payload), = records(build_alert(3, SIGNATURE, protocol=17, vlan=9))
        for length in (20, 37, 45, 49, 57):
            self.feeder().write(frame(ALERT_IPV4, payload[:length]))
            message, = self.crm.collect(1)
            alert, = alerts_of(frame(ALERT_IPV4, payload[:length].ljust(60, b"\0")))
            self.assertEqual(expected_message(alert, ENTRY), message, f"{length} bytes")
        self.assert_still_reports()

    def test_keeps_the_fault_of_an_unknown_signature_for_an_empty_alert(self):
        self.feeder().write(frame(ALERT_IPV4, b""))
        self.assertEqual(-signal.SIGSEGV, self.running.wait())
        harness.wait_log("Cannot get response setting for issue '0'")

    def test_an_empty_packet_finds_no_alert(self):
        self.feeder().write(frame(PACKET, b""))
        harness.wait_log("Failed to associate alert event 0 with packet event. Packet event "
                         "reported from Snort doesn't match previous alert event")
        self.assert_still_reports()

    def test_a_packet_longer_than_its_record_reads_as_zeros_after_its_end(self):
        packet = bytearray(build_packet(4, b"short"))
        struct.pack_into(">I", packet, 8 + 24, 64)
        feeder = self.feeder()
        feeder.write(build_alert(4, SIGNATURE, second=4) + bytes(packet))
        harness.wait_log("Packet length doesn't match to the receive payload")
        message, = self.crm.collect(1)
        alert, = alerts_of(build_alert(4, SIGNATURE, second=4)
                           + build_packet(4, b"short".ljust(64, b"\0")))
        self.assertEqual(expected_message(alert, ENTRY), message)
        self.assert_still_reports()

    def alert_with_packet_that_claims(self, length, signature=SIGNATURE):
        packet = bytearray(build_packet(4, b"short", second=5))
        struct.pack_into(">I", packet, 8 + 24, length)
        self.feeder().write(build_alert(4, signature, second=4) + bytes(packet))
        harness.wait_log("Packet length doesn't match to the receive payload")
        alert, = alerts_of(build_alert(4, signature, second=4)
                           + build_packet(4, b"short".ljust(length, b"\0"), second=5)
                           if length < 1 << 24 else build_alert(4, signature, second=4))
        return alert

    def test_keeps_a_claim_of_64_kibibytes_beyond_the_record(self):
        alert = self.alert_with_packet_that_claims(65542)
        message, = self.crm.collect(1)
        self.assertEqual(expected_message(alert, ENTRY), message)
        self.assert_still_reports()

    def test_keeps_a_lying_claim_in_the_capture_request(self):
        logger = PacketLogger()
        self.addCleanup(logger.close)
        alert = self.alert_with_packet_that_claims(65542, LOGGED)
        message, = self.crm.collect(1)
        self.assertEqual(expected_message(alert, LOGGED_ENTRY), message)
        harness.wait_for(lambda: logger.of_type(OFFENDING_PACKET), "the capture request")
        self.assertEqual([expected_capture(alert)], logger.of_type(OFFENDING_PACKET))
        self.assert_still_reports()

    def check_no_ring_takes(self, length):
        self.alert_with_packet_that_claims(length)
        harness.wait_log("Unable to dispatch CRM events.")
        self.assertIsNone(self.crm.read())
        self.assertEqual(0, self.crm.posts())
        self.assert_still_reports()

    def test_a_claim_that_no_ring_takes_loses_the_report(self):
        self.check_no_ring_takes(9_000_000)

    def test_a_packet_that_claims_four_gibibytes_loses_the_report(self):
        self.check_no_ring_takes(0xFFFFFFFF)

    def test_keeps_a_blob_that_claims_more_than_its_record(self):
        alert = build_alert(6, SIGNATURE, second=6)
        for claimed in (3, 65542):
            extra = bytearray(build_extra_data(6, HOST_NAME, b"hi"))
            struct.pack_into(">I", extra, 8 + 28, 8 + claimed)
            self.feeder().write(alert + bytes(extra))
            message, = self.crm.collect(1)
            expected, = alerts_of(alert + build_extra_data(6, HOST_NAME,
                                                           b"hi".ljust(claimed, b"\0")))
            self.assertEqual(expected_message(expected, ENTRY), message)
        extra = bytearray(build_extra_data(6, HOST_NAME, b"hi"))
        struct.pack_into(">I", extra, 8 + 28, 0xFFFFFFFF)
        self.feeder().write(alert + bytes(extra))
        harness.wait_log("Unable to dispatch CRM events.")
        self.assert_still_reports()

    def test_attachments_without_their_alert_are_dropped(self):
        feeder = self.feeder()
        feeder.write(build_extra_data(9, HOST_NAME, b"nobody"))
        harness.wait_log("Failed to associate alert event 9 with extra data event. "
                         "Number of pending events: 0")
        feeder.write(build_alert(10, SIGNATURE) + build_packet(9, b"another's")
                     + build_extra_data(65000, HOST_NAME, b"far off"))
        harness.wait_log("Failed to associate alert event 65000 with extra data event. "
                         "Number of pending events: 1")
        message, = self.crm.collect(1)
        alert, = alerts_of(build_alert(10, SIGNATURE))
        self.assertEqual(expected_message(alert, ENTRY), message)
        self.assert_still_reports()

    def test_what_an_extra_data_record_has_beyond_its_blob_is_ignored(self):
        alert = build_alert(6, SIGNATURE, second=6)
        (_, payload), = records(build_extra_data(6, HOST_NAME, b"host.example"))
        self.feeder().write(alert + frame(EXTRA_DATA, payload + b"surplus"))
        message, = self.crm.collect(1)
        expected, = alerts_of(alert + frame(EXTRA_DATA, payload))
        self.assertEqual(expected_message(expected, ENTRY), message)
        self.assert_still_reports()

    def test_keeps_ending_at_a_blob_shorter_than_its_own_fields(self):
        (_, payload), = records(build_extra_data(6, HOST_NAME, b""))
        broken = bytearray(payload)
        struct.pack_into(">I", broken, 28, 7)
        self.feeder().write(frame(EXTRA_DATA, bytes(broken)))
        self.assertEqual(-signal.SIGABRT, self.running.wait())

    def test_files_of_other_kinds_do_not_end_the_daemon(self):
        with open(os.environ["TARN_BINARY"], "rb") as file:
            binary = file.read(65536)
        foreign = {
            "a capture": (harness.TREE / "samples/sensor-302-alerts.pcap").read_bytes(),
            "text": (harness.TREE / "samples/sensor-302-alerts.rules").read_bytes(),
            "an executable": binary,
            "zeros": bytes(4096),
            "all bits": b"\xff" * 4096,
        }
        for name, data in foreign.items():
            with self.subTest(name):
                self.write_and_leave(data)
                self.assertIsNone(self.running.process.poll())
        harness.wait_for(lambda: str(ALERT_FIFO) in self.running.descriptors(), "the FIFO's reader")
        self.assert_still_reports()


if __name__ == "__main__":
    harness.main()
