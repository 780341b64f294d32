#!/usr/bin/env python3
"""Packets that the rule table asks for reach the packet logging daemon, right to the byte; and when
it is absent, gone or full, the reports go out all the same and the last log lines say what was lost.
"""

import os
import signal
import struct
import subprocess
import threading
from pathlib import Path

import harness
from peers import packet_logger
from peers.crm import Entry, parse_event_file
from peers.packet_logger import PacketLogger, bare, expected_capture
from unified2 import (ALERT_IPV4, ALERT_IPV6, PENDING_LIMIT, Association, alerts_of, build_alert,
                      build_packet, frame, records)

IN_FLIGHT = 5  # captures that may be between the two daemons
LOGGED, PLAIN, BY_CONNECTION = 1000, 1001, 1002
TARNCTL = Path(os.environ["TARN_BINARY"]).resolve().parents[1] / "tools/tarnctl/tarnctl"


def counters():
    """The numbers of the four lines at the end of a run."""
    texts = ("Number of Control Messages Attempted: ",
             "Number of Start Offending Packet Capture message failures: ",
             "Number of Frames not sent to packet logging daemon: ",
             "Number of Control Messages Skipped due to throttling: ")
    lines = [line for line in harness.log_messages() if line.startswith("Number of ")]
    assert [line.startswith(text) for line, text in zip(lines, texts)] == [True] * 4, lines
    return tuple(int(line.rpartition(": ")[2].rstrip(".")) for line in lines)


def pcap_packets(path):
    """(second, microsecond, length, bytes) of each packet of a capture file."""
    content = path.read_bytes()
    magic, major, minor, _, _, _, linktype = struct.unpack_from("<IHHiIII", content)
    assert (magic, major, minor, linktype) == (0xA1B2C3D4, 2, 4, 1), content[:24]
    packets = []
    offset = 24
    while offset < len(content):
        second, microsecond, captured, length = struct.unpack_from("<4I", content, offset)
        packets.append((second, microsecond, length, content[offset + 16:offset + 16 + captured]))
        offset += 16 + captured
    return packets


class PacketLog(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        harness.write_events({LOGGED: Entry("Logged", 1, "r", "LOGEVIDENCE"),
                              PLAIN: Entry("Plain", 1, "r", "DISPLAY:WithRaw"),
                              BY_CONNECTION: Entry("By connection", 1, "r",
                                                   "LOGEVIDENCE Connection")})

    def logger(self, **options):
        logger = PacketLogger(**options)
        self.addCleanup(logger.close)
        return logger

    def alert(self, feeder, event_id, second, signature=LOGGED, data=b"packet"):
        """One alert with its packet, released at once by a quiet second."""
        feeder.write(build_alert(event_id, signature, second=second))
        feeder.write(build_packet(event_id, data, second=second, microsecond=event_id))

    def reports(self, count):
        self.assertEqual(count, len(self.crm.collect(count)))

    # --- a sensor's stream ------------------------------------------------------------------------

    def stream(self):
        """The 302 alerts, with every other signature asking for its packets."""
        stream = (harness.TREE / "samples/sensor-302-alerts.u2").read_bytes()
        events = (harness.TREE / "samples/tarn_event.conf").read_text(encoding="utf-8")
        responses = {}
        for place, signature in enumerate(parse_event_file(events)):
            responses[signature] = ("LOGEVIDENCE WithRaw", "DISPLAY:WithRaw",
                                    "LOGEVIDENCE")[place % 3]
        lines = []
        for line in events.splitlines():
            key = line.partition("=")[0].strip()
            if key.endswith(".user.response"):
                line = f"{key} = {responses[int(key.split('.')[1])]}"
            lines.append(line)
        lines.append(harness.event_lines(PLAIN, Entry("Plain", 1, "r", "DISPLAY:WithRaw")))
        harness.write_newer(harness.EVENT_CONFIG, "\n".join(lines))
        alerts = [alert for alert in alerts_of(stream)
                  if "LOGEVIDENCE" in responses[alert.signature]]
        self.assertGreater(len(alerts), 30)
        self.assertTrue(any(alert.packet for alert in alerts))
        return stream, alerts

    def feed(self, stream, is_logged, received):
        """Feeds a stream no faster than `received()` says its captures come out, since the socket
        holds ten datagrams where the machine's settings are the kernel's own. Alerts that nobody
        asked for push out the last ones, which a quiet second would release all at once."""
        feeder = self.feeder()
        association = Association()
        expected = 0
        tail = b"".join(build_alert(60000 + number, PLAIN) for number in range(PENDING_LIMIT))
        fed = came = 0
        for record_type, payload in records(stream + tail):
            feeder.write(frame(record_type, payload))
            expected += sum(map(is_logged, association.feed(record_type, payload)))
            harness.wait_for(lambda: received() >= expected - IN_FLIGHT, "the captures")
            if record_type in (ALERT_IPV4, ALERT_IPV6):
                fed += 1
                came += len(self.crm.drain())
        self.assertEqual(fed, came + len(self.crm.collect(fed - came)))

    def check_stream(self, single):
        stream, alerts = self.stream()
        logger = self.logger()
        harness.write_config(level=3, debug__single=single, evidencelog__suppress=0)
        daemon = self.daemon()
        logged = {alert.signature for alert in alerts}
        self.feed(stream, lambda alert: alert.signature in logged,
                  lambda: len(logger.datagrams) - 1)
        self.assertEqual(0, daemon.stop())
        logger.close()
        self.assertEqual(bare(packet_logger.ENGINE_STARTING), logger.datagrams[0])
        self.assertEqual(bare(packet_logger.ENGINE_SHUTTING_DOWN), logger.datagrams[-1])
        captures = logger.datagrams[1:-1]
        self.assertEqual(len(alerts), len(captures))
        for number, (capture, alert) in enumerate(zip(captures, alerts)):
            self.assertEqual(expected_capture(alert), capture, f"capture {number}")
        # The good-bye comes after the lines.
        self.assertEqual((1 + len(alerts), 0, 0, 0), counters())
        self.assert_clean_errors(daemon)

    def test_each_of_302_alerts_is_captured_on_the_reader_thread(self):
        self.check_stream(single=1)

    def test_each_of_302_alerts_is_captured_through_the_event_thread(self):
        self.check_stream(single=0)

    def tarnctl(self, *arguments):
        """`tarnctl packetlog`, listening; its directory, and the lines that it shows."""
        if not os.access(TARNCTL, os.X_OK):
            self.skipTest(f"{TARNCTL} is not built")
        directory = Path("/cache/captures")
        directory.mkdir()
        process = subprocess.Popen([TARNCTL, "packetlog", "--dir", directory, *arguments],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        lines = []
        reader = threading.Thread(target=lambda: lines.extend(process.stdout), daemon=True)
        reader.start()

        def end():
            process.kill()
            process.wait()
            reader.join()
            process.stdout.close()
            process.stderr.close()

        self.addCleanup(end)
        harness.wait_for(lambda: os.path.exists(packet_logger.PATH), "tarnctl to listen")
        return process, directory, lines, reader

    def test_the_capture_files_of_tarnctl_hold_the_streams_packets(self):
        stream, alerts = self.stream()
        process, directory, lines, reader = self.tarnctl()
        # The limits of files are raised so that none is dropped.
        harness.write_config(level=3, evidencelog__suppress=0, evidencelog__maxfiles=1000,
                             evidencelog__maxkbytes=10000)
        daemon = self.daemon()
        logged = {alert.signature for alert in alerts}
        self.feed(stream, lambda alert: alert.signature in logged, lambda: len(lines) - 1)
        self.assertEqual(0, daemon.stop())
        harness.wait_for(lambda: any("EngineShuttingDown" in line for line in lines[-1:]),
                         "the good-bye")
        process.send_signal(signal.SIGINT)
        self.assertEqual(0, process.wait(harness.PATIENCE), process.stderr.read())
        reader.join()
        self.assertEqual(len(alerts) + 2, len(lines))

        def packets_of(chosen):
            return [(alert.packet.second, alert.packet.microsecond, len(alert.packet.data),
                     alert.packet.data) for alert in chosen if alert.packet and alert.packet.data]

        self.assertEqual(packets_of(alerts), pcap_packets(directory / "all.pcap"))
        for signature in logged:
            expected = packets_of(alert for alert in alerts if alert.signature == signature)
            path = directory / f"event-{signature}.pcap"
            self.assertEqual(expected, pcap_packets(path) if path.exists() else [])

    # --- a bad peer -------------------------------------------------------------------------------

    def test_only_entries_without_a_scope_have_their_packets_logged(self):
        logger = self.logger()
        daemon = self.daemon().ready()
        feeder = self.feeder()
        self.alert(feeder, 1, 1000, PLAIN)
        self.alert(feeder, 2, 1001, BY_CONNECTION)
        self.alert(feeder, 3, 1002, LOGGED, b"\0\xff" * 700)
        self.reports(3)
        self.assertEqual(0, daemon.stop())
        logger.close()
        captures = logger.of_type(packet_logger.OFFENDING_PACKET)
        self.assertEqual([b"\0\xff" * 700], [capture[128:] for capture in captures])
        self.assertEqual((2, 0, 0, 0), counters())

    def test_an_absent_daemon_costs_failures_and_a_quiet_period_of_packet_time(self):
        harness.write_config(evidencelog__suppress=5)
        daemon = self.daemon().ready()
        feeder = self.feeder()
        for event_id, second in enumerate((1000, 1001, 1004, 1005, 1006)):
            self.alert(feeder, event_id, second)
        self.reports(5)
        self.assertEqual(0, daemon.stop())
        # 1000 and 1005 fail; the three between and after are skipped.
        self.assertEqual((6, 2, 0, 3), counters())
        self.assertEqual(4, harness.count_log(
            "Error sending control message of type 4 to the packet logging daemon.  "
            "Message: No such file or directory"), "two tries for each that failed")

    def test_a_daemon_that_comes_late_gets_what_comes_after_the_quiet_period(self):
        daemon = self.daemon().ready()
        feeder = self.feeder()
        self.alert(feeder, 1, 1000)
        self.reports(1)
        logger = self.logger()
        self.alert(feeder, 2, 1004, data=b"in the quiet")
        self.alert(feeder, 3, 1005, data=b"after it")
        self.reports(2)
        self.assertEqual(0, daemon.stop())
        logger.close()
        captures = logger.of_type(packet_logger.OFFENDING_PACKET)
        self.assertEqual([b"after it"], [capture[128:] for capture in captures])
        self.assertEqual((4, 1, 0, 1), counters())

    def test_a_daemon_that_is_killed_and_comes_back_gets_the_next_packet(self):
        harness.write_config(evidencelog__suppress=0)
        first = self.logger()
        daemon = self.daemon().ready()
        feeder = self.feeder()
        self.alert(feeder, 1, 1000, data=b"first")
        self.reports(1)
        first.close()
        self.alert(feeder, 2, 1001, data=b"nobody")
        self.reports(1)
        second = self.logger()
        self.alert(feeder, 3, 1002, data=b"second")
        self.reports(1)
        self.assertEqual(0, daemon.stop())
        second.close()
        self.assertEqual([b"first"], [capture[128:] for capture in first.of_type(4)])
        self.assertEqual([b"second"], [capture[128:] for capture in second.of_type(4)])
        self.assertEqual((4, 1, 0, 0), counters())

    def test_a_full_socket_holds_nothing_up(self):
        harness.write_config(level=3, evidencelog__suppress=0)
        logger = self.logger(reading=False)
        daemon = self.daemon()
        feeder = self.feeder()
        count = 400
        for event_id in range(count):
            self.alert(feeder, event_id, 1000 + event_id, data=bytes(1400))
        self.reports(count)
        self.assertEqual(0, daemon.stop())
        attempted, failed, not_sent, throttled = counters()
        self.assertEqual((1 + count, 0, 0), (attempted, not_sent, throttled))
        self.assertGreater(failed, 0)
        self.assertLess(failed, count)
        logger.close()

    def test_the_send_buffer_has_the_configured_size(self):
        harness.write_config(evidencelog__bufferctrlsize=8192)
        daemon = self.daemon().ready()
        self.assertEqual(0, daemon.stop())
        self.assertIn("After adjustment, the log evidnece control channel size was set to 16384.",
                      harness.log_messages(), "the system doubles what it is asked for")

    def test_a_reload_greets_again_and_applies_the_settings(self):
        logger = self.logger()
        daemon = self.daemon().ready()
        feeder = self.feeder()
        self.alert(feeder, 1, 1000)
        self.reports(1)
        harness.write_config(evidencelog__maxfiles=7, evidencelog__maxkbytes=9,
                             evidencelog__fileformat="raw")
        daemon.send(signal.SIGHUP)
        daemon.ready(2)
        feeder = self.feeder()
        self.alert(feeder, 2, 1001)
        self.reports(1)
        self.assertEqual(0, daemon.stop())
        logger.close()
        types = [struct.unpack_from("<I", datagram)[0] for datagram in logger.datagrams]
        self.assertEqual([1, 4, 1, 4, 12], types)
        settings = [struct.unpack_from("<3I", capture, 8) for capture in logger.of_type(4)]
        self.assertEqual([packet_logger.SETTINGS, (0, 7, 9)], settings)
        self.assertEqual((4, 0, 0, 0), counters())

    def test_reloads_of_a_changed_file_keep_the_one_socket(self):
        logger = self.logger()
        daemon = self.daemon().ready()

        def sockets():
            return [name for name in daemon.descriptors() if name.startswith("socket:")]

        before = sockets()
        self.assertNotEqual([], before)
        reloads = 20
        for number in range(1, reloads + 1):
            harness.write_config(evidencelog__maxfiles=number)
            daemon.send(signal.SIGHUP)
            daemon.ready(1 + number)
        self.assertEqual(before, sockets())
        self.assertEqual(0, daemon.stop())
        logger.close()
        self.assertEqual([bare(packet_logger.ENGINE_STARTING)] * (1 + reloads) +
                         [bare(packet_logger.ENGINE_SHUTTING_DOWN)], logger.datagrams)


if __name__ == "__main__":
    harness.main()
