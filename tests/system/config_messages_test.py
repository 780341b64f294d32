#!/usr/bin/env python3
"""What the loader says of broken lines: on standard error and in the system log at start, where the
log is not open yet, and in the log after a reload."""

import harness
from harness import CONFIG, EVENT_CONFIG, count_log, wait_for, wait_log, write_newer

STATE = harness.Path("/etc/qor/tarn.state")
MISSING_VALUE = "Config file entry is missing value: '{}'"
MISSING_NAME = "Config file entry is missing parameter name: '{}'"
TIMEOUT = ("Tuning parameter: 'tarn.evidencelog.file.timeout = {}' is out of range (5-30), "
           "setting it to {} minutes.")


class ConfigMessages(harness.DaemonTest):
    def assert_said_at_start(self, daemon, word, message, times=1):
        self.assertEqual(times, daemon.errors().splitlines().count(f"{word}: {message}"), message)

        def in_the_system_log():
            return sum(line.endswith(message) for line in self.system_log.lines()) >= times
        wait_for(in_the_system_log, f"{times} x {message!r} in the system log")
        self.assertEqual(0, count_log(message), f"{message!r} in a log that was not open")

    def test_at_start_they_reach_standard_error_and_the_system_log(self):
        CONFIG.write_text("tarn.log.level = 5\nno equals sign\n= 3\n"
                          "tarn.evidencelog.file.timeout = 4\n")
        EVENT_CONFIG.write_text("se.7.msg\n=seven\n")
        daemon = self.daemon().ready()
        self.assert_said_at_start(daemon, "Warning", MISSING_VALUE.format("no equals sign"))
        self.assert_said_at_start(daemon, "Warning", MISSING_NAME.format("= 3"))
        self.assert_said_at_start(daemon, "Notice", TIMEOUT.format(4, 5))
        self.assert_said_at_start(daemon, "Warning", MISSING_VALUE.format("se.7.msg"))
        self.assert_said_at_start(daemon, "Warning", MISSING_NAME.format("=seven"))
        self.assertEqual(0, daemon.stop())

    def test_at_start_a_line_of_the_state_file_is_reported_once_for_each_kind_of_file(self):
        STATE.write_text("no equals sign\n= 3\ntarn.evidencelog.file.timeout = 31\n")
        daemon = self.daemon().ready()
        self.assert_said_at_start(daemon, "Warning", MISSING_VALUE.format("no equals sign"), 2)
        self.assert_said_at_start(daemon, "Warning", MISSING_NAME.format("= 3"), 2)
        self.assert_said_at_start(daemon, "Notice", TIMEOUT.format(31, 30))
        self.assertEqual(0, daemon.stop())

    def test_after_a_reload_they_are_in_the_log_alone(self):
        daemon = self.daemon().ready()
        write_newer(CONFIG, "tarn.log.level = 5\nno equals sign\n= 3\n"
                            "tarn.evidencelog.file.timeout = 4\n")
        write_newer(EVENT_CONFIG, "se.7.msg\n")
        daemon.send(harness.signal.SIGHUP)
        daemon.ready(cycle=2)
        for message in (MISSING_VALUE.format("no equals sign"), MISSING_NAME.format("= 3"),
                        TIMEOUT.format(4, 5), MISSING_VALUE.format("se.7.msg")):
            wait_log(message)
            self.assertEqual(1, count_log(message), message)
            self.assertNotIn(message, daemon.errors())
        self.assertEqual(0, daemon.stop())


if __name__ == "__main__":
    harness.main()
