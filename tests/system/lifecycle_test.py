#!/usr/bin/env python3
"""How the daemon starts, refuses to start, and stops; its exit status, texts and PID file."""

import ctypes
import os
import signal
from pathlib import Path

import harness
from harness import ALERT_FIFO, CONFIG, ERROR_FIFO, EVENT_CONFIG, PID_FILE
from peers.packet_logger import ENGINE_SHUTTING_DOWN, ENGINE_STARTING, PacketLogger

USAGE = """\
Usage: tarn -c <tarn_config_file> -n <snort_event_config_file> [-d] [-m] [-s] [-v] [-h]
The options are as follows:
-c\t Specifies the tarn configuration file name.
-n\t Specifies the snort configuration file name.
-d\t Running the application as a daemon.
-v\t Displays version information.
-h\t Displays help information.
"""
NOT_A_FIFO = ("Fatal error: %s is already created by SNORT, reader won't work. "
              "Please remove it manually")
NOT_FREED = "tarn is exiting without having completely freed the Packet Log Control interface."


class HeldThread:
    """One thread of a child process, stopped as a debugger stops it, until it is let go."""

    ATTACH, DETACH, WAIT_ALL_THREADS = 16, 17, 0x40000000

    def __init__(self, task):
        self._task = task
        self._ptrace(self.ATTACH, task)
        os.waitpid(task, self.WAIT_ALL_THREADS)

    @staticmethod
    def _ptrace(request, task):
        library = ctypes.CDLL(None, use_errno=True)
        if library.ptrace(ctypes.c_long(request), ctypes.c_long(task), None, None) != 0:
            number = ctypes.get_errno()
            raise OSError(number, os.strerror(number))

    def close(self):
        if self._task:
            task, self._task = self._task, None
            try:
                self._ptrace(self.DETACH, task)
            except ProcessLookupError:
                # It has ended, and its process cannot end before the tracer has taken note of it.
                os.waitpid(task, self.WAIT_ALL_THREADS)


def running_copies():
    """Every process that runs the daemon's binary, zombies left out."""
    binary = os.path.realpath(os.environ["TARN_BINARY"])
    found = []
    for entry in Path("/proc").iterdir():
        try:
            if entry.name.isdigit() and os.readlink(entry / "exe") == binary:
                found.append(int(entry.name))
        except OSError:
            pass  # It has ended, or is a kernel thread's.
    return found


class Lifecycle(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(self.end_copies)

    def end_copies(self):
        for pid in running_copies():
            os.kill(pid, signal.SIGKILL)
        harness.wait_for(lambda: not running_copies(), "the daemons to be gone")

    def assert_in_order(self, expected, messages):
        """Each of `expected` is in `messages`, in that order."""
        position = 0
        for text in expected:
            self.assertIn(text, messages[position:], f"after {expected[:expected.index(text)]}")
            position = messages.index(text, position) + 1

    def fails(self, *arguments, **options):
        """Runs a daemon that is to refuse its start; returns what came on standard error."""
        daemon = self.daemon(*arguments, **options)
        self.assertEqual(4, daemon.wait())
        self.assert_clean_errors(daemon)
        return daemon.errors()

    def check_stop(self, number, message, level):
        daemon = self.daemon().ready()
        harness.wait_log("File is opened, waiting for Snort events")
        daemon.idle()
        self.assertEqual(f"{daemon.pid}\n", PID_FILE.read_text())
        self.assertEqual(0, daemon.stop(number))
        self.assertFalse(PID_FILE.exists())
        self.assert_clean_errors(daemon)
        self.assert_in_order([
            f"Using config file {CONFIG}, snort config file {EVENT_CONFIG}",
            "tarn.log.level = 5",
            "Set CPU affinity to 0",
            "Initializing Channel to Packet Logging Daemon",
            "Initializing EventBridge.",
            "EventBridge is initialized for multiple thread mode.",
            "Want to start EVENT thread",
            "Want to start ERROR thread",
            f"Creating FIFO: {ALERT_FIFO}",
            f"Creating FIFO: {ERROR_FIFO}",
            "Enter event reader loop...",
            f"Opening file: {ALERT_FIFO}",
            "File is opened, waiting for Snort events",
            message,
            "Exit event reader loop...",
            "Error thread is running, stop it",
            "EVENT thread is running, stop it",
            "Terminate TaRN",
            "Number of Control Messages Attempted: 1.",
            "Number of Start Offending Packet Capture message failures: 0.",
            "Number of Frames not sent to packet logging daemon: 0.",
            "Number of Control Messages Skipped due to throttling: 0.",
            "tarn exiting",
        ], harness.log_messages())
        self.assertEqual("tarn exiting", harness.log_messages()[-1])
        self.assertNotIn(NOT_FREED, harness.log_messages())
        self.assertEqual([], [text for text in harness.log_messages() if "still alive" in text])
        if level <= 3:
            self.assert_logged_at(level, message)
        else:
            self.assert_quiet(message)
        for text in ("Number of Control Messages Attempted: 1.",
                     "Number of Start Offending Packet Capture message failures: 0.",
                     "Number of Frames not sent to packet logging daemon: 0.",
                     "Number of Control Messages Skipped due to throttling: 0.", "tarn exiting"):
            self.assert_logged_at(3, text)

    def test_stops_on_a_termination_signal(self):
        self.check_stop(signal.SIGTERM, "Received TERM signal", 5)

    def test_stops_on_an_interrupt(self):
        self.check_stop(signal.SIGINT, "Received INT signal", 1)

    def test_stops_on_a_quit_without_a_core(self):
        self.check_stop(signal.SIGQUIT, "Received QUIT signal", 1)

    def test_raises_its_priority(self):
        own = os.getpriority(os.PRIO_PROCESS, 0)
        daemon = self.daemon().ready()
        refused = "Unable to increase packet processing priority" in daemon.errors()
        expected = own if refused else max(own - 20, -20)
        self.assertEqual(expected, os.getpriority(os.PRIO_PROCESS, daemon.pid))
        self.assertEqual(0, daemon.stop())

    def test_binds_the_main_thread_to_its_processor(self):
        for number in sorted(os.sched_getaffinity(0)):
            with self.subTest(number=number):
                harness.write_config(snort__cpu=number)
                harness.LOG.unlink(missing_ok=True)
                daemon = self.daemon().ready()
                self.assertEqual({number}, os.sched_getaffinity(daemon.pid))
                harness.wait_for(lambda: daemon.threads() == 3, "both threads")
                for task in daemon.tasks():
                    self.assertEqual({number}, os.sched_getaffinity(task), "inherited")
                self.assert_quiet(f"Set CPU affinity to {number}")
                self.assertEqual(0, daemon.stop())

    def test_runs_on_without_its_processor(self):
        harness.write_config(snort__cpu=1023)
        daemon = self.daemon().ready()
        self.assertEqual(os.sched_getaffinity(0), os.sched_getaffinity(daemon.pid))
        self.assert_logged_at(2, "Unable to set CPU affinity to 1023")
        self.assertEqual(0, daemon.stop())

    def test_quits_an_error_thread_that_does_not_stop_in_time(self):
        daemon = self.daemon().ready().idle()
        harness.wait_for(lambda: daemon.threads() == 3, "both threads")
        # The event thread was made first, the error thread after it.
        held = self.hold(daemon.tasks()[2])
        daemon.send(signal.SIGTERM)
        harness.wait_log("Error thread join timeout exceeded")
        held.close()
        self.assertEqual(0, daemon.wait())
        self.assert_logged_at(1, "Error thread join timeout exceeded")
        waited = (harness.stamp_of("Error thread join timeout exceeded")
                  - harness.stamp_of("Error thread is running, stop it"))
        self.assertGreater(waited, 1.9)
        self.assertLess(waited, 4)
        self.assertNotIn("Error thread is still alive. Force quit it.", harness.log_messages())

    def test_quits_an_event_thread_that_does_not_stop_in_time(self):
        daemon = self.daemon().ready().idle()
        harness.wait_for(lambda: daemon.threads() == 3, "both threads")
        held = self.hold(daemon.tasks()[1])
        daemon.send(signal.SIGTERM)
        harness.wait_log("Event thread join timeout exceeded")
        held.close()
        self.assertEqual(0, daemon.wait())
        self.assert_logged_at(1, "Event thread join timeout exceeded")
        waited = (harness.stamp_of("Event thread join timeout exceeded")
                  - harness.stamp_of("EVENT thread is running, stop it"))
        self.assertGreater(waited, 1.9)
        self.assertLess(waited, 4)

    def hold(self, task):
        try:
            held = HeldThread(task)
        except PermissionError as error:
            self.skipTest(f"a thread cannot be held here: {error}")
        self.addCleanup(held.close)
        return held

    def test_tells_the_start_on_standard_error_and_the_end_in_the_system_log(self):
        daemon = self.daemon().ready()
        lines = daemon.errors().splitlines()
        self.assertEqual("Notice: tarn starting", lines[0])
        self.assertIn(lines[1:], ([], ["Warning: Unable to increase packet processing priority"]))
        self.assertEqual(0, daemon.stop())
        harness.wait_for(lambda: any("tarn exiting" in line for line in self.system_log.lines()),
                         "the last line in the system log")
        log = self.system_log.lines()
        self.assertTrue(any(line.startswith("<14>") and line.endswith("tarn starting")
                            for line in log), log)
        self.assertTrue(any(line.startswith("<131>") and
                            line.endswith(f"tarn[{daemon.pid}]: tarn exiting")
                            for line in log), log)

    def test_runs_one_thread_less_in_single_thread_mode(self):
        harness.write_config(debug__single=1)
        daemon = self.daemon().ready()
        harness.wait_for(lambda: daemon.threads() == 2, "main and the error thread")
        self.assertEqual(0, daemon.stop())
        self.assertNotIn("Want to start EVENT thread", harness.log_messages())

    def test_logs_no_step_of_the_start_above_the_level(self):
        harness.write_config(level=4)
        daemon = self.daemon()
        self.feeder()  # opens once the reader loop has
        self.assertEqual(0, daemon.stop())
        messages = harness.log_messages()
        self.assertRegex(messages[0], "^tarn base address: 0x[0-9a-f]+$")
        for step in ("Using config file", "Set CPU affinity", "Initializing Channel",
                     "Want to start", "Enter event reader loop...", "Received TERM signal",
                     "Terminate TaRN"):
            self.assertNotIn(step, harness.log_text())
        self.assertFalse(any("base address" in line for line in self.system_log.lines()))
        self.assertEqual("tarn exiting", messages[-1])

    def test_carries_its_marks(self):
        binary = Path(os.environ["TARN_BINARY"]).read_bytes()
        for mark in (b"@(#)!QORNAME!tarn!QORNAME!", b"@(#)!QORVER!1.0.116.251!QORVER!",
                     b"@(#)!QORSPECIAL!!QORSPECIAL!"):
            self.assertIn(mark + b"\0", binary)

    def test_shows_its_usage(self):
        daemon = self.daemon("-h")
        self.assertEqual(0, daemon.wait())
        self.assertEqual(USAGE, daemon.errors())

    def test_shows_its_version(self):
        daemon = self.daemon("-v")
        self.assertEqual(0, daemon.wait())
        self.assertEqual("tarn1.0.116.251\n", daemon.errors())

    def test_refuses_an_unknown_option(self):
        self.assertEqual("Error: Unrecognized option: -x\n" + USAGE
                         + "Info: tarn exiting\n", self.fails("-x"))

    def test_keeps_refusing_an_option_that_its_usage_names(self):
        for letter in "ms":
            self.assertIn(f"Error: Unrecognized option: -{letter}\n", self.fails(f"-{letter}"))

    def test_refuses_an_option_without_its_argument(self):
        for letter in "cn":
            self.assertIn(f"Error: Unrecognized option: -{letter}\n{USAGE}",
                          self.fails(f"-{letter}"))

    def test_ignores_a_file_name_that_is_empty_or_looks_like_an_option(self):
        for names in (("-x", "-y"), ("", "")):
            with self.subTest(names=names):
                harness.LOG.unlink(missing_ok=True)
                daemon = self.daemon("-c", names[0], "-n", names[1]).ready()
                self.assertEqual(0, daemon.stop())
                self.assertIn(f"Using config file {CONFIG}, snort config file {EVENT_CONFIG}",
                              harness.log_messages())

    def test_takes_other_configuration_files(self):
        CONFIG.rename("/etc/qor/other.conf")
        EVENT_CONFIG.rename("/etc/qor/other_event.conf")
        daemon = self.daemon("-c", "/etc/qor/other.conf", "-n", "/etc/qor/other_event.conf").ready()
        self.assertEqual(0, daemon.stop())

    def test_refuses_a_second_copy(self):
        first = self.daemon().ready()
        self.assertEqual("Notice: tarn starting\n"
                         f"Error: Process tarn with PID {first.pid} is already running. Exiting.\n"
                         "Info: tarn exiting\n", self.fails())
        self.assertEqual(f"{first.pid}\n", PID_FILE.read_text())
        self.assertEqual(0, first.stop())

    def test_starts_over_a_pid_file_that_names_nobody(self):
        for text in ("0\n", "nobody\n", "", "4194305\n"):
            with self.subTest(text=text):
                PID_FILE.write_text(text)
                harness.LOG.unlink(missing_ok=True)
                daemon = self.daemon().ready()
                self.assertEqual(f"{daemon.pid}\n", PID_FILE.read_text())
                self.assertEqual(0, daemon.stop())

    def test_runs_on_without_a_pid_file(self):
        PID_FILE.mkdir()
        daemon = self.daemon().ready()
        self.assertIn(f"Warning: Unable to create PID file: {PID_FILE}\n", daemon.errors())
        self.assertEqual(0, daemon.stop())
        self.assertTrue(PID_FILE.is_dir())

    def test_refuses_a_missing_configuration(self):
        for path in (CONFIG, EVENT_CONFIG):
            with self.subTest(path=path):
                text = path.read_text()
                path.unlink()
                self.assertIn(f'Error: Cannot obtain file status for "{path}".\n', self.fails())
                self.assertFalse(PID_FILE.exists())
                path.write_text(text)

    def test_refuses_a_configuration_that_is_no_regular_file(self):
        mode = os.stat("/etc/qor").st_mode
        for option in "cn":
            self.assertIn(f'Error: Invalid file status mode {mode} for "/etc/qor".\n',
                          self.fails(f"-{option}", "/etc/qor"))

    def test_refuses_a_fifo_that_is_a_plain_file(self):
        for path in (ALERT_FIFO, ERROR_FIFO):
            with self.subTest(path=path):
                path.write_text("from the sensor")
                self.fails()
                self.assertIn(NOT_A_FIFO % path, harness.log_messages())
                self.assertEqual("from the sensor", path.read_text())
                self.assertFalse(PID_FILE.exists())
                path.unlink()
                harness.LOG.unlink()

    def test_keeps_the_readers_of_a_start_that_failed_half_way(self):
        # They hold the bridge and the bridge holds the packet log interface, so the packet logging
        # daemon does not learn of the end.
        logger = PacketLogger()
        self.addCleanup(logger.close)
        ERROR_FIFO.write_text("from the sensor")
        self.fails()
        messages = harness.log_messages()
        self.assert_in_order([
            "Event thread is still alive. Force quit it.",
            "Error thread is still alive. Force quit it.",
            "Number of Control Messages Attempted: 1.",
            NOT_FREED,
            "tarn exiting",
        ], messages)
        self.assertEqual("tarn exiting", messages[-1])
        for message in ("Event thread is still alive. Force quit it.",
                        "Error thread is still alive. Force quit it.", NOT_FREED):
            self.assert_logged_at(1, message)
        logger.close()
        self.assertEqual(1, len(logger.of_type(ENGINE_STARTING)))
        self.assertEqual([], logger.of_type(ENGINE_SHUTTING_DOWN))

    def test_refuses_a_fifo_that_cannot_be_made(self):
        ALERT_FIFO.parent.rmdir()
        self.addCleanup(ALERT_FIFO.parent.mkdir)
        self.fails()
        self.assertIn(f"Cannot create FIFO: {ALERT_FIFO}, reason: No such file or directory",
                      harness.log_messages())

    def test_keeps_the_fifos_of_an_earlier_run(self):
        self.assertEqual(0, self.daemon().ready().stop())
        before = ALERT_FIFO.stat().st_ino
        harness.LOG.unlink()
        self.assertEqual(0, self.daemon().ready().stop())
        self.assertEqual(ALERT_FIFO.stat().st_ino, before)
        self.assertIn(f"FIFO: {ALERT_FIFO} is already existed", harness.log_messages())

    def test_refuses_a_queue_that_cannot_be_opened(self):
        os.unlink(self.crm.path)
        os.mkdir(self.crm.path)
        self.fails()
        for message in ("CRM communication channel cannot be opened.",
                        "EventBridge failed to initialize CrmEventProducer.",
                        "Error starting the engine"):
            self.assertIn(message, harness.log_messages())

    def test_keeps_the_parents_number_in_the_pid_file_of_a_background_daemon(self):
        parent = self.daemon("-d")
        self.assertEqual(0, parent.wait())
        harness.wait_log(harness.READY)
        pid, = running_copies()
        self.assertNotEqual(pid, parent.pid)
        self.assertEqual(f"{parent.pid}\n", PID_FILE.read_text())
        self.assertEqual(os.getsid(pid), pid)
        self.assertEqual("/", os.readlink(f"/proc/{pid}/cwd"))
        for descriptor in range(3):
            self.assertEqual("/dev/null", os.readlink(f"/proc/{pid}/fd/{descriptor}"))

        # Nobody has that number any more, so a second copy starts.
        second = self.daemon()
        harness.wait_for(lambda: len(running_copies()) == 2 and PID_FILE.read_text()
                         == f"{second.pid}\n", "the second copy")
        harness.wait_log(harness.READY)
        self.assertEqual(0, second.stop())
        os.kill(pid, signal.SIGTERM)
        harness.wait_for(lambda: not running_copies(), "the background daemon to stop")

    def test_keeps_resolving_a_relative_path_from_the_root_in_the_background(self):
        self.assertEqual(0, self.daemon("-d", "-c", "tarn.conf", cwd=CONFIG.parent).wait())
        harness.wait_for(lambda: not running_copies(), "the daemon to give up")
        harness.wait_for(lambda: any('Cannot obtain file status for "tarn.conf".' in line
                                     for line in self.system_log.lines()), "its reason")
        self.daemon("-c", "tarn.conf", cwd=CONFIG.parent).ready()

    def test_closes_every_descriptor_that_it_was_started_with(self):
        descriptor = os.open("/dev/null", os.O_RDONLY)
        self.addCleanup(os.close, descriptor)
        os.set_inheritable(descriptor, True)
        daemon = self.daemon(pass_fds=(descriptor,)).ready()
        self.assertEqual(1, daemon.descriptors().count("/dev/null"), "standard input alone")
        self.assertEqual(0, daemon.stop())


if __name__ == "__main__":
    harness.main()
