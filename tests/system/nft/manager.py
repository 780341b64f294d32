"""`tarnctl secmgr --nft` as a child process, and a client of it."""

import os
import signal
import socket
import struct
import subprocess
import time
from pathlib import Path

SOCKET = "/var/tmp/.secmgrsock"
PATIENCE = 30.0


def wait_for(condition, what):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {PATIENCE:.0f} s for {what}")
        time.sleep(0.01)


class Manager:
    """tarnctl secmgr, and a client of it."""

    def __init__(self, *options, flush=True):
        self._errors = Path("/var/tmp/errors")
        with self._errors.open("w", encoding="utf-8") as errors:
            self._process = subprocess.Popen(
                [os.environ["TARNCTL_BINARY"], "secmgr", "--nft", *(["--flush"] if flush else []),
                 *options], stdout=subprocess.PIPE, stderr=errors, text=True)
        wait_for(lambda: "serving at" in self.errors() or self._process.poll() is not None,
                 "the manager")
        self._client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._client.connect(SOCKET)

    def errors(self):
        return self._errors.read_text(encoding="utf-8")

    def ask(self, pieces, seconds=600):
        """Asks for a rule; the answer, and when the rule ends."""
        end = int(time.time()) + seconds
        text = f"{pieces} expires {time.strftime('%Y-%m-%dT%H:%M:%SZ', time.gmtime(end))}".encode()
        body = struct.pack("=II", 1, 1) + text + b"\0"
        self._client.sendall(struct.pack("=II", 11, len(body)) + body)
        return self._client.recv(8, socket.MSG_WAITALL)

    def worker(self):
        """The process that changes the table."""
        children = Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children")
        return int(children.read_text(encoding="ascii").split()[0])

    def kill(self):
        """As a fault or an impatient person would end it; what it was doing is not finished."""
        self._process.kill()
        self._process.wait()

    def hang_up(self):
        self._process.send_signal(signal.SIGHUP)

    def stop(self):
        """The exit status and what it said of each rule."""
        self._client.close()
        self._process.send_signal(signal.SIGTERM)
        output = self._process.communicate(timeout=PATIENCE)[0]
        return self._process.returncode, output

    def end(self):
        self._client.close()
        if self._process.poll() is None:
            self._process.kill()
            self._process.wait()
        self._process.stdout.close()
