"""A real daemon, driven from outside: what every system test uses.

A test derives from `DaemonTest`, which gives it empty directories, a reader of the CRM queue, a
system log and a daemon that is certain to be gone afterwards. Conditions are waited for, never
slept for. It all runs within scripts/sandbox and refuses to run anywhere else, since it writes
below /etc and /cache. The binary is named by TARN_BINARY.
"""

import errno
import fcntl
import os
import resource
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import time
import unittest
from pathlib import Path

from peers.crm import CrmReader

CONFIG = Path("/etc/qor/tarn/tarn.conf")
EVENT_CONFIG = Path("/etc/qor/tarn/tarn_event.conf")
LOG = Path("/cache/qor/tarn.log")
PID_FILE = Path("/var/run/tarn0.pid")
ALERT_FIFO = Path("/var/cache/qor-tarn/alerts.fifo")
ERROR_FIFO = Path("/var/cache/qor-tarn/errmsgs.fifo")
DEV_LOG = Path("/dev/log")
TREE = Path(__file__).resolve().parents[2]
# A daemon under a sanitizer on a busy machine still answers well within this many seconds.
PATIENCE = float(os.environ.get("TARN_TEST_PATIENCE", "30"))
READY = "Enter event reader loop..."
LOG_LOCAL0 = 16 << 3  # the facility in a priority of the system log


def wait_for(condition, what, seconds=PATIENCE):
    """Returns the first true value of `condition()`, or fails with `what`."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds:.0f} s for {what}")
        time.sleep(0.01)


def write_config(level=5, **settings):
    """Writes tarn.conf; a dot in a key is written as a double underscore."""
    lines = [f"tarn.log.level = {level}"]
    lines += [f"tarn.{key.replace('__', '.')} = {value}" for key, value in settings.items()]
    write_newer(CONFIG, "\n".join(lines) + "\n")


def event_lines(signature, entry, *more):
    words = {1: "low", 2: "medium", 3: "high"}
    lines = [f"se.{signature}.severity = {words[entry.severity]}",
             f"se.{signature}.rule = {entry.rule}",
             f"se.{signature}.msg = {entry.name}",
             f"se.{signature}.user.response = {entry.user_response}"]
    return "\n".join(lines + [f"se.{signature}.{line}" for line in more]) + "\n"


def write_events(entries):
    """Writes tarn_event.conf from a map of signature to crm.Entry."""
    write_newer(EVENT_CONFIG, "".join(event_lines(signature, entry)
                                      for signature, entry in entries.items()))


def write_newer(path, text):
    """Writes a file whose modification time differs from the former one's by whole seconds."""
    former = int(path.stat().st_mtime) if path.exists() else None
    path.write_text(text, encoding="utf-8")
    if former is not None and int(path.stat().st_mtime) == former:
        os.utime(path, (former + 2, former + 2))


class SystemLog:
    """Stands in for the system's log daemon at /dev/log; a thread keeps the socket empty."""

    def __init__(self):
        DEV_LOG.unlink(missing_ok=True)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(DEV_LOG))
        self._lines = []
        self._stop, self._stopped = os.pipe()
        self._thread = threading.Thread(target=self._collect, daemon=True)
        self._thread.start()

    def _collect(self):
        while True:
            ready, _, _ = select.select([self._socket, self._stop], [], [])
            if self._socket in ready:
                self._lines.append(self._socket.recv(65536).decode(errors="replace"))
            elif ready:
                return

    def lines(self):
        return list(self._lines)

    def close(self):
        os.close(self._stopped)
        self._thread.join()
        os.close(self._stop)
        self._socket.close()
        DEV_LOG.unlink(missing_ok=True)


def stamp_of(message):
    """The time of the first line with this message, in seconds since the epoch."""
    for line in log_text().splitlines():
        if line.count(" ") >= 3 and line.split(" ", 3)[3] == message:
            stamp = line[:23]
            return time.mktime(time.strptime(stamp[:19], "%Y/%m/%d %H:%M:%S")) + float(stamp[19:])
    raise AssertionError(f"no {message!r} in the log")


class Feeder:
    """The sensor's end of the alert FIFO. Each record goes in with one write."""

    def __init__(self, path=ALERT_FIFO):
        self._fd = wait_for(lambda: self._open(path), f"a reader of {path}") - 1
        os.set_blocking(self._fd, True)

    @staticmethod
    def _open(path):
        try:
            return os.open(path, os.O_WRONLY | os.O_NONBLOCK) + 1  # a descriptor, yet never false
        except OSError as error:
            if error.errno in (errno.ENXIO, errno.ENOENT):
                return 0
            raise

    def unread(self):
        """Bytes that the daemon has not taken yet."""
        return struct.unpack("i", fcntl.ioctl(self._fd, termios.FIONREAD, bytes(4)))[0]

    def write(self, record):
        # Beyond PIPE_BUF a write is only whole while the pipe has room for all of it.
        if len(record) > select.PIPE_BUF:
            self.drained()
        written = wait_for(lambda: self._write(record), "the daemon to open its end again")
        assert written == len(record), f"{written} of {len(record)} bytes written"

    def _write(self, record):
        try:
            return os.write(self._fd, record)
        except BrokenPipeError:
            return 0  # The daemon has given its end up and is about to open it again.

    def drained(self):
        wait_for(lambda: self.unread() == 0, "the FIFO to be drained")

    def close(self):
        os.close(self._fd)


class Daemon:
    """One run of the daemon as a direct child; standard error goes to a file, since the daemon
    closes every descriptor above 2 as it starts."""

    def __init__(self, *arguments, cwd="/", pass_fds=()):
        self.binary = os.environ["TARN_BINARY"]
        self._errors = tempfile.TemporaryFile(dir="/cache")
        self._log_inode = self._log_offset = self._cycles = 0
        self.process = subprocess.Popen(
            [self.binary, *map(str, arguments)], cwd=cwd, pass_fds=pass_fds,
            stdin=subprocess.DEVNULL, stdout=self._errors, stderr=self._errors)

    @property
    def pid(self):
        return self.process.pid

    def ready(self, cycle=1):
        """Waits until the reader loop has been entered for the `cycle`th time. Needs level 5."""
        def entered():
            if self.process.poll() is not None:
                raise AssertionError(f"the daemon ended with {self.process.returncode}:\n"
                                     + self.errors() + log_text())
            return self._count_cycles() >= cycle
        wait_for(entered, f"cycle {cycle} of the reader loop")
        return self

    def _count_cycles(self):
        """Reads only what the log has gained since the last call; a load makes it long."""
        if LOG.exists():
            with LOG.open("rb") as file:
                inode = os.fstat(file.fileno()).st_ino
                if inode != self._log_inode:
                    self._log_inode, self._log_offset = inode, 0
                file.seek(self._log_offset)
                gained = file.read()
            gained = gained[:gained.rfind(b"\n") + 1]
            self._log_offset += len(gained)
            self._cycles += gained.count(READY.encode())
        return self._cycles

    def send(self, number):
        self.process.send_signal(number)

    def wait(self, seconds=PATIENCE):
        """The exit status, negative for a signal."""
        try:
            return self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"the daemon still runs after {seconds:.0f} s:\n"
                                 + log_text()[-4000:]) from None

    def stop(self, number=signal.SIGTERM):
        self.send(number)
        return self.wait()

    def errors(self):
        """All that came out on standard output and standard error."""
        self._errors.seek(0)
        return self._errors.read().decode(errors="replace")

    def descriptors(self):
        return sorted(os.readlink(entry.path) for entry in os.scandir(f"/proc/{self.pid}/fd"))

    def tasks(self):
        """The numbers of its threads, without the one that a sanitizer may add."""
        tasks = sorted(map(int, os.listdir(f"/proc/{self.pid}/task")))
        return tasks[:1] + tasks[2:] if b"__tsan_init" in Path(self.binary).read_bytes() else tasks

    def threads(self):
        return len(self.tasks())

    def main_thread_sleeps(self):
        return self._sleeps(self.pid)

    def idle(self):
        """Waits until every thread waits for something, the new ones in their loops included."""
        wait_for(lambda: all(map(self._sleeps, self.tasks())), "all threads to wait")
        return self

    def _sleeps(self, task):
        try:
            status = Path(f"/proc/{self.pid}/task/{task}/stat").read_text(encoding="ascii")
        except FileNotFoundError:
            return False
        return status.rpartition(")")[2].split()[0] == "S"

    def end(self):
        """Leaves nothing behind, whatever the test did."""
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self._errors.close()


def log_files():
    """The log, oldest file first."""
    return [path for path in (*sorted(LOG.parent.glob(LOG.name + ".*"), reverse=True), LOG)
            if path.exists()]


def log_text():
    return "".join(path.read_text(errors="replace") for path in log_files())


def log_messages():
    """The messages of the log without their time and thread."""
    return [line.split(" ", 3)[3] for line in log_text().splitlines() if line.count(" ") >= 3]


def count_log(message):
    return log_messages().count(message)


def wait_log(message, times=1):
    try:
        wait_for(lambda: count_log(message) >= times, f"{times} x {message!r}")
    except AssertionError as error:
        raise AssertionError(f"{error} in the log, which ends:\n{log_text()[-3000:]}") from None


class DaemonTest(unittest.TestCase):
    """Starts each test on a clean machine and leaves no process behind."""

    channel = 2

    def setUp(self):
        for directory in ("/etc/qor", "/etc/crm", "/etc/snort", "/cache", "/run",
                          "/var/cache/qor-tarn", "/var/tmp", "/dev/shm"):
            for entry in os.scandir(directory):
                if os.path.ismount(entry.path) or str(TREE).startswith(entry.path):
                    continue
                if entry.is_dir(follow_symlinks=False):
                    shutil.rmtree(entry.path)
                else:
                    os.unlink(entry.path)
        for directory in ("/etc/qor/tarn", "/etc/snort/rules", "/cache/qor"):
            os.makedirs(directory)
        self.system_log = SystemLog()
        self.addCleanup(self.system_log.close)
        self.crm = CrmReader(self.channel)
        self.addCleanup(self.crm.close)
        write_config()
        write_events({})

    def daemon(self, *arguments, **options):
        """Starts a daemon; the test's end is the daemon's end."""
        daemon = Daemon(*arguments, **options)
        self.addCleanup(daemon.end)
        return daemon

    def feeder(self):
        feeder = Feeder()
        self.addCleanup(feeder.close)
        return feeder

    def in_system_log(self, level, message):
        """Whether the daemon's open log has sent the message to the system log at this level."""
        return any(line.startswith(f"<{LOG_LOCAL0 + level}>") and line.endswith(f"]: {message}")
                   for line in self.system_log.lines())

    def assert_logged_at(self, level, message):
        """A message of level 1 to 3 is in the system log under its level."""
        wait_for(lambda: self.in_system_log(level, message),
                 f"{message!r} at level {level} in the system log")
        self.assertIn(message, log_messages())

    def assert_quiet(self, message):
        """A message of level 4 or 5 is in the log and not in the system log."""
        self.assertIn(message, log_messages())
        self.assertFalse(any(message in line for line in self.system_log.lines()), message)

    def assert_clean_errors(self, daemon):
        """Standard error holds the messages of the start and no report of a sanitizer."""
        errors = daemon.errors()
        self.assertNotIn("Sanitizer", errors)
        self.assertNotIn("runtime error", errors)


def main():
    if os.environ.get("TARN_SANDBOX") != "1":
        sys.exit("The system tests write below /etc and /cache: run them with scripts/sandbox.")
    if not os.access(os.environ.get("TARN_BINARY", ""), os.X_OK):
        sys.exit("TARN_BINARY must name the daemon's binary.")
    # A fault that a test asks for is to leave no core file.
    resource.setrlimit(resource.RLIMIT_CORE, (0, resource.getrlimit(resource.RLIMIT_CORE)[1]))
    cases = os.environ.get("TARN_TEST_CASES")
    unittest.main(verbosity=2, failfast="TARN_FAIL_FAST" in os.environ,
                  argv=sys.argv + (["-k", cases] if cases else []))
