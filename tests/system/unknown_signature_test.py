#!/usr/bin/env python3
"""An alert whose signature has no entry ends the daemon by a fault, after saying so."""

import signal

import harness
from peers.crm import Entry
from unified2 import build_alert


class UnknownSignature(harness.DaemonTest):
    def check(self, single):
        harness.write_config(debug__single=single)
        harness.write_events({7: Entry("Known", 1, "rule", "DISPLAY:WithoutRaw")})
        daemon = self.daemon().ready()
        self.feeder().write(build_alert(1, 78))
        self.assertEqual(-signal.SIGSEGV, daemon.wait())

        messages = harness.log_messages()
        first = messages.index("Cannot get response setting for issue '78'")
        self.assertEqual("Fail to look up Snort event 78 from TaRN rule configuration.",
                         messages[first + 1])
        fault = messages.index("Received SEGV signal", first)
        self.assertRegex(messages[fault + 1], r"^Stacktrace \(([1-9]|10) frames\):$")
        frames = int(messages[fault + 1].split("(")[1].split()[0])
        self.assertEqual(len(messages), fault + 2 + frames, "one line a frame ends the log")
        self.assertNotIn("tarn exiting", messages)
        self.assertIsNone(self.crm.read(), "no report is sent")
        self.assertEqual(0, self.crm.posts())
        self.assertEqual(f"{daemon.pid}\n", harness.PID_FILE.read_text(), "the PID file stays")

    def test_ends_the_daemon_on_the_reader_thread(self):
        self.check(single=1)

    def test_ends_the_daemon_on_the_event_thread(self):
        self.check(single=0)

    def test_starts_again_over_the_pid_file_that_was_left(self):
        self.check(single=1)
        harness.LOG.unlink()
        daemon = self.daemon().ready()
        self.assertEqual(f"{daemon.pid}\n", harness.PID_FILE.read_text())
        self.assertEqual(0, daemon.stop())


if __name__ == "__main__":
    harness.main()
