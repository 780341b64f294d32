#!/usr/bin/env python3
"""What a hangup does and what it leaves alone, object by object, and fifty of them under load."""

import ctypes
import os
import signal
import time
from pathlib import Path

import harness
from harness import ALERT_FIFO, CONFIG, EVENT_CONFIG, PID_FILE
from load import LoadThread
from peers.crm import CrmReader, Entry, expected_message
from peers.security_manager import SilentSecurityManager
from unified2 import Alert, build_alert, build_packet, records

RELOADED = "Configuration reloaded."


class Reload(harness.DaemonTest):
    def hang_up(self, daemon, cycle):
        daemon.send(signal.SIGHUP)
        daemon.ready(cycle)

    def one_report(self, feeder, number, signature=7):
        """Feeds one alert and returns the message that comes of it, or None."""
        feeder.write(build_alert(number, signature, second=number))
        messages = self.crm.collect(1)
        return messages[0] if messages else None

    def expected(self, number, entry, signature=7):
        (record_type, payload), = records(build_alert(number, signature, second=number))
        return expected_message(Alert(record_type, payload), entry)

    def test_fifty_hangups_under_load_cost_nothing(self):
        entry = Entry("Load", 2, "rule", "DISPLAY:WithRaw")
        harness.write_events({7: entry})
        harness.write_config(log__maxfilesize=2000000000)
        daemon = self.daemon().ready()
        load = LoadThread(7)
        load.start()
        self.addCleanup(load.end)

        def settled():
            """Descriptors and threads of a running cycle, with the FIFO open."""
            descriptors = daemon.descriptors()
            return (descriptors, daemon.threads()) if str(ALERT_FIFO) in descriptors else None

        self.hang_up(daemon, 2)
        before = harness.wait_for(lambda: settled() and settled()[1] == 3 and settled(),
                                  "all threads")
        messages = []
        for cycle in range(3, 53):
            self.hang_up(daemon, cycle)
            # Each cycle is to carry events: an alert is no longer pending once 128 follow it.
            came = self.crm.collect(1)
            self.assertTrue(came, f"no report in cycle {cycle}")
            messages += came
        harness.wait_for(lambda: settled() == before, f"{before} again, not {settled()}")
        load.end()
        self.assertEqual(0, daemon.stop())
        self.assert_clean_errors(daemon)

        messages += self.crm.drain()
        last = -1
        for message in messages:
            number = int.from_bytes(message[32 + 128:32 + 136], "little")
            self.assertGreater(number, last, "in order, and no alert twice")
            self.assertLess(number, load.written)
            (record_type, payload), = records(load.record(number))
            self.assertEqual(expected_message(Alert(record_type, payload), entry), message)
            last = number
        self.assertEqual(51, harness.count_log("Received HUP signal"))

    def test_goes_round_with_no_file_changed(self):
        daemon = self.daemon().ready()
        self.hang_up(daemon, 2)
        for message in ("EventBridge is initialized for multiple thread mode.",
                        "Want to start EVENT thread", f"Opening file: {ALERT_FIFO}"):
            harness.wait_log(message, 2)
        self.assertEqual(0, harness.count_log(RELOADED))
        self.assertEqual(1, harness.count_log("Want to start ERROR thread"))
        self.assertEqual(0, daemon.stop())

    def test_opens_the_fifo_again_though_another_thread_took_the_hangup(self):
        daemon = self.daemon().ready()
        harness.wait_log(f"Opening file: {ALERT_FIFO}")
        harness.wait_for(lambda: daemon.threads() == 3, "both threads")
        daemon.idle()
        # Nothing interrupts the wait of the main thread, so nothing but the reload closes the FIFO.
        ctypes.CDLL(None).tgkill(daemon.pid, daemon.tasks()[2], signal.SIGHUP)
        daemon.ready(2)
        harness.wait_log(f"Opening file: {ALERT_FIFO}", 2)
        self.assertEqual(0, daemon.stop())

    def test_reads_the_configuration_again_only_when_its_time_differs(self):
        harness.write_config(evidencelog__suppress=4, evidencelog__maxfiles=21)
        daemon = self.daemon().ready()
        times = CONFIG.stat()
        CONFIG.write_text("tarn.evidencelog.suppress = 8\n")
        os.utime(CONFIG, ns=(times.st_atime_ns, times.st_mtime_ns))
        self.hang_up(daemon, 2)
        self.assertEqual(0, harness.count_log(RELOADED))

        # Backwards is a difference too. The key that has gone keeps its value, and the evidence
        # settings go to the packet log's interface again.
        os.utime(CONFIG, (1000, 1000))
        self.hang_up(daemon, 3)
        messages = harness.log_messages()
        reloaded = messages[messages.index(RELOADED):]
        self.assertIn("tarn.evidencelog.suppress = 8", reloaded)
        self.assertIn("tarn.evidencelog.maxfiles = 21", reloaded)
        self.assertIn("Log evidence throttling set to to 8 seconds.", messages)
        self.assertEqual(0, daemon.stop())

    def test_leaves_a_changed_file_alone_until_the_hangup(self):
        entry = Entry("First", 1, "rule", "DISPLAY:WithoutRaw")
        changed = Entry("Second", 3, "other rule", "DISPLAY:WithoutRaw")
        harness.write_events({7: entry})
        daemon = self.daemon().ready()
        feeder = self.feeder()
        harness.write_events({7: changed})
        self.assertEqual(self.one_report(feeder, 1), self.expected(1, entry))
        self.hang_up(daemon, 2)
        self.assertEqual(self.one_report(self.feeder(), 2), self.expected(2, changed))
        self.hang_up(daemon, 3)
        self.assertEqual(1, harness.count_log(RELOADED), "nothing has changed since")
        self.assertEqual(0, daemon.stop())

    def test_leaves_a_touched_configuration_alone_until_the_hangup(self):
        entry = Entry("Any", 1, "rule", "DISPLAY:WithoutRaw")
        harness.write_events({7: entry})
        daemon = self.daemon().ready()
        harness.write_config(evidencelog__maxfiles=21)
        self.assertEqual(self.expected(1, entry), self.one_report(self.feeder(), 1))
        self.assertEqual(0, harness.count_log(RELOADED))
        self.assertEqual(0, harness.count_log("tarn.evidencelog.maxfiles = 21"))
        self.hang_up(daemon, 2)
        self.assertEqual(1, harness.count_log(RELOADED))
        self.assertEqual(1, harness.count_log("tarn.evidencelog.maxfiles = 21"))
        self.hang_up(daemon, 3)
        self.assertEqual(1, harness.count_log(RELOADED), "nothing has changed since")
        self.assertEqual(0, daemon.stop())

    def test_outlives_a_storm_of_hangups_with_a_rotation_at_every_line(self):
        harness.write_events({7: Entry("Load", 2, "rule", "DISPLAY:WithRaw")})
        harness.write_config(log__maxfilesize=1, log__maxfiles=3)
        daemon = self.daemon()
        self.feeder()  # opens once the reader loop has
        load = LoadThread(7)
        load.start()
        self.addCleanup(load.end)
        for number in range(3000):
            daemon.send(signal.SIGHUP)
            if number % 1000 == 999:
                self.assertTrue(self.crm.collect(1), "it still works")
        load.end()
        self.assertEqual(0, daemon.stop())
        self.assert_clean_errors(daemon)
        self.assertEqual(3, len(harness.log_files()))

    def test_releases_what_is_pending_after_a_second(self):
        entry = Entry("Pending", 1, "rule", "DISPLAY:WithoutRaw")
        harness.write_events({7: entry})
        daemon = self.daemon().ready()
        feeder = self.feeder()
        began = time.monotonic()
        self.assertEqual(self.expected(1, entry), self.one_report(feeder, 1))
        waited = time.monotonic() - began
        self.assertGreater(waited, 0.9, "the quiet second")
        self.assertLess(waited, 2.9)
        self.assertEqual(0, daemon.stop())

    def test_rebuilds_the_event_table(self):
        entry = Entry("Kept", 1, "rule", "DISPLAY:WithoutRaw")
        harness.write_events({7: entry, 8: entry})
        daemon = self.daemon().ready()
        harness.write_events({7: entry, 9: entry})
        self.hang_up(daemon, 2)
        self.assertEqual(self.one_report(self.feeder(), 1, 9), self.expected(1, entry, 9))
        self.feeder().write(build_alert(2, 8))
        self.assertEqual(-signal.SIGSEGV, daemon.wait(), "8 is unknown by now")

    def test_reads_the_state_file_before_a_changed_file(self):
        daemon = self.daemon().ready()
        Path("/etc/qor/tarn.state").write_text("tarn.evidencelog.maxkbytes = 77\n")
        self.hang_up(daemon, 2)
        self.assertEqual(0, harness.count_log("tarn.evidencelog.maxkbytes = 77"))
        harness.write_config()
        self.hang_up(daemon, 3)
        self.assertEqual(1, harness.count_log("tarn.evidencelog.maxkbytes = 77"))
        self.assertEqual(0, daemon.stop())

    def test_applies_the_log_level_at_once(self):
        daemon = self.daemon().ready()
        harness.write_config(level=4)
        daemon.send(signal.SIGHUP)
        harness.wait_log(RELOADED)
        self.assertEqual(0, daemon.stop())
        self.assert_quiet(RELOADED)
        messages = harness.log_messages()
        self.assertNotIn("tarn.log.level = 4", messages, "the dump is a debug message")
        self.assertEqual(1, messages.count(harness.READY))

    def test_changes_the_crm_channel(self):
        entry = Entry("Moved", 1, "rule", "DISPLAY:WithoutRaw")
        harness.write_events({7: entry})
        daemon = self.daemon().ready()
        harness.write_config(engine__crm=5)
        other = CrmReader(5)
        self.addCleanup(other.close)
        self.hang_up(daemon, 2)
        self.feeder().write(build_alert(1, 7, second=1))
        self.assertEqual(other.collect(1), [self.expected(1, entry)])
        self.assertIsNone(self.crm.read())
        self.assertEqual(0, daemon.stop())

    def test_changes_between_the_two_thread_modes(self):
        daemon = self.daemon().ready()
        harness.wait_for(lambda: daemon.threads() == 3, "both threads")
        harness.write_config(debug__single=1)
        self.hang_up(daemon, 2)
        self.assertEqual(2, daemon.threads())
        harness.write_config(debug__single=0)
        self.hang_up(daemon, 3)
        harness.wait_for(lambda: daemon.threads() == 3, "the event thread again")
        self.assertEqual(0, daemon.stop())
        self.assertEqual(1, harness.count_log("EventBridge is initialized for single thread mode."))

    def test_keeps_the_error_thread_and_restarts_the_event_thread(self):
        daemon = self.daemon().ready()
        harness.wait_for(lambda: daemon.threads() == 3, "both threads")
        before = set(daemon.tasks())
        self.hang_up(daemon, 2)
        harness.wait_for(lambda: daemon.threads() == 3, "both threads")
        after = set(daemon.tasks())
        self.assertEqual(2, len(before & after), "main and the error thread")
        self.assertEqual(0, daemon.stop())

    def test_keeps_the_event_threads_processor(self):
        harness.write_config(engine__cpu=1)
        daemon = self.daemon().ready()
        assigned = ("to CPU 1", "to CPU 2")

        def lines(text):
            return [message for message in harness.log_messages()
                    if "event thread" in message and message.endswith(text)]

        harness.wait_for(lambda: len(lines(assigned[0])) == 1, "the first binding")
        harness.write_config(engine__cpu=2)
        self.hang_up(daemon, 2)
        harness.wait_for(lambda: len(lines(assigned[0])) == 2, "the same object's binding")
        self.assertEqual([], lines(assigned[1]))
        self.assertEqual(0, daemon.stop())

    def test_leaves_the_open_log_and_the_main_threads_processor_alone(self):
        daemon = self.daemon().ready()
        processors = os.sched_getaffinity(daemon.pid)
        harness.write_config(log__file="/cache/qor/other.log", log__maxfilesize=100, snort__cpu=1)
        self.hang_up(daemon, 2)
        harness.wait_log("tarn.log.file = /cache/qor/other.log")
        self.assertEqual(os.sched_getaffinity(daemon.pid), processors)
        self.assertEqual(0, daemon.stop())
        self.assertFalse(Path("/cache/qor/other.log").exists())
        self.assertEqual([harness.LOG], harness.log_files(), "no rotation at the new size")

    def test_leaves_the_pid_file_alone(self):
        daemon = self.daemon().ready()
        PID_FILE.write_text("left alone\n")
        self.hang_up(daemon, 2)
        self.assertEqual("left alone\n", PID_FILE.read_text())
        self.assertEqual(0, daemon.stop())
        self.assertFalse(PID_FILE.exists())

    def test_drops_queued_events_and_replaces_a_thread_that_does_not_stop(self):
        entry = Entry("Blocked", 1, "rule", "DISPLAY:WithoutRaw")
        EVENT_CONFIG.write_text(harness.event_lines(
            7, entry, "response = quarantine-traffic",
            "quarantine.rule = quarantine-intruder-address, duration: 60"))
        manager = SilentSecurityManager()
        self.addCleanup(manager.close)
        daemon = self.daemon().ready()
        feeder = self.feeder()
        for number in range(5):
            feeder.write(build_alert(number, 7, second=number))
        waiting = "DbtComm opened command channel."
        harness.wait_log(waiting)
        harness.wait_for(lambda: harness.count_log("Sending event to event bridge") == 5,
                         "all five in the bridge")
        self.hang_up(daemon, 2)
        messages = harness.log_messages()
        self.assertIn("Event thread join timeout exceeded", messages)
        dropped = [message for message in messages if message.startswith("EventBridge drops")]
        self.assertIn(dropped, (["EventBridge drops 4 queued events during finalizing."],
                                ["EventBridge drops 5 queued events during finalizing."]))
        self.assertIsNone(self.crm.read())
        manager.close()
        self.hang_up(daemon, 3)
        self.assertEqual(self.one_report(self.feeder(), 9), self.expected(9, entry))
        self.assertEqual(0, daemon.stop())

    def test_keeps_losing_a_hangup_that_comes_while_the_engine_restarts(self):
        # A table of this size takes long enough to read for a second hangup to come meanwhile.
        entry = Entry("Many", 1, "rule", "DISPLAY:WithoutRaw")
        daemon = self.daemon().ready()
        harness.write_events({signature: entry for signature in range(60000)})
        daemon.send(signal.SIGHUP)
        harness.wait_for(lambda: str(EVENT_CONFIG) in daemon.descriptors(), "the file to be read")
        daemon.send(signal.SIGHUP)
        harness.wait_log("Received HUP signal", 2)
        daemon.ready(2)
        messages = harness.log_messages()
        second = len(messages) - 1 - messages[::-1].index("Received HUP signal")
        self.assertLess(second, messages.index(RELOADED), "it came while the file was read")
        self.assertEqual(self.expected(1, entry), self.one_report(self.feeder(), 1))
        self.assertEqual(0, daemon.stop())
        self.assertEqual(2, harness.count_log(harness.READY), "one cycle came of both")

    def test_keeps_losing_a_hangup_that_comes_while_the_engine_stops(self):
        # A security manager that never answers holds the event thread for the whole of its join,
        # and the second hangup comes during that wait.
        EVENT_CONFIG.write_text(harness.event_lines(
            7, Entry("Blocked", 1, "rule", "DISPLAY:WithoutRaw"), "response = quarantine-traffic",
            "quarantine.rule = quarantine-intruder-address, duration: 60"))
        manager = SilentSecurityManager()
        self.addCleanup(manager.close)
        daemon = self.daemon().ready()
        self.feeder().write(build_alert(1, 7, second=1))
        harness.wait_log("DbtComm opened command channel.")
        daemon.send(signal.SIGHUP)
        harness.wait_log("EVENT thread is running, stop it")
        daemon.send(signal.SIGHUP)
        harness.wait_log("Received HUP signal", 2)
        daemon.ready(2)
        self.assertEqual(0, daemon.stop())
        self.assertEqual(2, harness.count_log(harness.READY), "one cycle came of both")

    def test_releases_what_is_pending_when_the_hangup_interrupts_the_wait(self):
        entry = Entry("Pending", 1, "rule", "DISPLAY:WithoutRaw")
        harness.write_events({7: entry})
        harness.write_config(debug__single=1)
        daemon = self.daemon().ready()
        self.feeder().write(build_alert(1, 7, second=1) + build_packet(1, b"packet"))
        harness.wait_log("Associate alert event 1 with packet event")
        harness.wait_for(daemon.main_thread_sleeps, "the reader to wait again")
        self.hang_up(daemon, 2)
        self.assertEqual(self.crm.drain(), [self.expected(1, entry)])
        self.assertEqual(0, daemon.stop())

    def check_gone(self, path):
        daemon = self.daemon().ready().idle()
        path.unlink()
        self.hang_up_and_fail(daemon, f'Cannot obtain file status for "{path}".')

    def hang_up_and_fail(self, daemon, message):
        self.assertIsNone(daemon.process.poll(), "not before the hangup")
        daemon.send(signal.SIGHUP)
        self.assertEqual(4, daemon.wait())
        messages = harness.log_messages()
        self.assertIn(message, messages)
        self.assertIn("Error thread is still alive. Force quit it.", messages)
        self.assertEqual("tarn exiting", messages[-1])
        self.assertFalse(PID_FILE.exists())
        self.assert_clean_errors(daemon)

    def test_ends_when_the_configuration_has_gone(self):
        self.check_gone(CONFIG)

    def test_ends_when_the_event_configuration_has_gone(self):
        self.check_gone(EVENT_CONFIG)

    def test_ends_when_the_configuration_is_no_file_any_more(self):
        daemon = self.daemon().ready().idle()
        CONFIG.unlink()
        CONFIG.mkdir()
        self.hang_up_and_fail(
            daemon, f'Invalid file status mode {CONFIG.stat().st_mode} for "{CONFIG}".')

    def test_ends_when_a_fifo_has_become_a_file(self):
        daemon = self.daemon().ready().idle()
        ALERT_FIFO.unlink()
        ALERT_FIFO.write_text("a file")
        daemon.send(signal.SIGHUP)
        self.assertEqual(4, daemon.wait())
        self.assertIn("Event thread is still alive. Force quit it.", harness.log_messages())
        self.assertIn("Error thread is still alive. Force quit it.", harness.log_messages())
        self.assert_clean_errors(daemon)


if __name__ == "__main__":
    harness.main()
