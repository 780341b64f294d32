#!/usr/bin/env python3
"""Every alert of a sensor's output becomes one report, in order and right to the byte."""

import os
from pathlib import Path

import harness
from peers.crm import Entry, expected_message, parse_event_file
from unified2 import ALERT_IPV4, ALERT_IPV6, Association, alerts_of, frame, records

# The alerts under way are kept below the ring's 1024 and above the pending list's 128, so that
# nothing is dropped and nothing waits for a quiet second.
UNDER_WAY = 600


def foreign_samples():
    """Sensor output that is not part of the tree."""
    return Path(os.environ.get("TARN_SAMPLES", harness.TREE.parent / "shared" / "samples"))


class AlertToReport(harness.DaemonTest):
    def run_stream(self, stream, single):
        """Feeds a stream, drains the queue meanwhile and returns all messages that came."""
        harness.write_config(level=3, debug__single=single, log__maxfilesize=100000000)
        daemon = self.daemon()
        feeder = self.feeder()
        messages = []
        association = Association()
        fed = 0
        for record_type, payload in records(stream):
            feeder.write(frame(record_type, payload))
            association.feed(record_type, payload)
            if record_type in (ALERT_IPV4, ALERT_IPV6):
                fed += 1
                messages += self.crm.drain()
                if fed - len(messages) > UNDER_WAY:
                    messages += self.crm.collect(fed - UNDER_WAY - len(messages))
        messages += self.crm.collect(fed - len(messages))
        self.assertEqual(self.crm.posts(), fed, "one post of the semaphore for each report")
        self.assertEqual(0, daemon.stop())
        self.assertIsNone(self.crm.read(), "a report too many")
        self.assert_clean_errors(daemon)
        lost = [message for message in harness.log_messages()
                if message.startswith("Failed to associate")]
        self.assertEqual(len(lost), association.lost_packets + association.lost_extra_data)
        return messages

    def check(self, stream, entries, single):
        alerts = alerts_of(stream)
        messages = self.run_stream(stream, single)
        self.assertEqual(len(messages), len(alerts))
        for number, (message, alert) in enumerate(zip(messages, alerts)):
            expected = expected_message(alert, entries[alert.signature])
            self.assertEqual(expected, message, f"alert {number}, event {alert.event_id}")
        return alerts

    def check_302(self, single):
        stream = (harness.TREE / "samples/sensor-302-alerts.u2").read_bytes()
        events = (harness.TREE / "samples/tarn_event.conf").read_text(encoding="utf-8")
        harness.write_newer(harness.EVENT_CONFIG, events)
        entries = parse_event_file(events)
        alerts = self.check(stream, entries, single)
        self.assertEqual(302, len(alerts))
        self.assertTrue(any(entries[alert.signature].with_raw and alert.packet for alert in alerts))
        self.assertTrue(any(alert.uri for alert in alerts))
        self.assertTrue(any(alert.host_name for alert in alerts))

    def test_the_302_alerts_hold_14_of_ipv4_with_a_packet_of_ipv6(self):
        stream = (harness.TREE / "samples/sensor-302-alerts.u2").read_bytes()
        odd = [alert for alert in alerts_of(stream)
               if alert.version == 4 and alert.packet.data[12:14] == b"\x86\xdd"]
        for alert in odd:
            # 14 bytes of Ethernet; the addresses of IPv6 end 24 and 40 bytes after them.
            self.assertEqual(alert.packet.data[34:38], alert.source)
            self.assertEqual(alert.packet.data[50:54], alert.destination)
        events = ", ".join(str(alert.event_id) for alert in odd[:-1]) + f" and {odd[-1].event_id}"
        text = " ".join((harness.TREE / "samples/README.md").read_text(encoding="utf-8").split())
        self.assertEqual(14, len(odd))
        self.assertIn(f"The events {events} are records of type 104", text)

    def test_each_of_302_alerts_becomes_a_report_on_the_reader_thread(self):
        self.check_302(single=1)

    def test_each_of_302_alerts_becomes_a_report_through_the_event_thread(self):
        self.check_302(single=0)

    def check_5675(self, single):
        sample = foreign_samples() / "sensor-5675-alerts.u2"
        if not sample.exists():
            self.skipTest(f"{sample} is not on this machine; TARN_SAMPLES names its directory")
        stream = sample.read_bytes()
        signatures = sorted({alert.signature for alert in alerts_of(stream)})
        entries = {signature: Entry(f"Signature {signature}", 1 + place % 3, f"rule {signature}",
                                    ("DISPLAY:WithRaw", "DISPLAY:WithoutRaw")[place % 2])
                   for place, signature in enumerate(signatures)}
        harness.write_events(entries)
        self.assertEqual(5675, len(self.check(stream, entries, single)))

    def test_each_of_5675_alerts_becomes_a_report_on_the_reader_thread(self):
        self.check_5675(single=1)

    def test_each_of_5675_alerts_becomes_a_report_through_the_event_thread(self):
        self.check_5675(single=0)


if __name__ == "__main__":
    harness.main()
