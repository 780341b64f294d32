#!/usr/bin/env python3
"""Counts what is lost and what comes twice between the event queue and the file of `tarnctl crm`.

A writer stands in for the daemon and puts reports of a number of their own into the ring, while
`tarnctl crm --eve` is killed at random moments and started again. With --spill the lines go to a
collector that is away now and then; with --redis to a Redis server that is killed now and then, and
to a file as well. It runs in scripts/sandbox:

  scripts/sandbox --keep BUILD env TARNCTL_BINARY=... PYTHONPATH=tests/system \\
      tests/system/tarnctl/crm_soak.py --reports 1000000 --kills 200
"""

import argparse
import ctypes
import ctypes.util
import json
import mmap
import os
import random
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

import harness

FILE = Path("/cache/eve.json")
SOCKET = Path("/cache/collector")
STREAM_FILE = Path("/cache/stream.json")
REDIS = Path("/cache/redis")
SPILL = Path("/cache/spill")
RING = Path("/var/tmp/EventQueueCRM2-0")
RING_BYTES = 0x800000
SEMAPHORE = b"/EventQueueCRM.sem"
BATCH = 512  # reports that tarnctl crm holds at most
ISSUE_AT = 32 + 28  # where a message has the number of its signature
NUMBER_AT = b'"signature_id":'


def report():
    """A whole message with a number to be filled in."""
    fixed = bytearray(256)
    struct.pack_into("<H", fixed, 0, 1)
    struct.pack_into("<I", fixed, 36, 0xFFFFFFFF)
    struct.pack_into("<QQIIIII", fixed, 128, 1763022257, 1763022257, 1, 0, 6, 2, 0xFFFFFFFF)
    struct.pack_into("<HHB", fixed, 192, 0x0800, 6, 1)
    texts = (b"", b"DISPLAY:WithRaw", b"Soak:high", b"")
    offsets, at = [], 256
    for text in texts:
        offsets.append(at)
        at += len(text) + 1
    head = struct.pack("<8I", 1, 32 + at, *offsets, 5, 0)
    pairs = b"Rule\0alert tcp any any -> any any (msg:\"Soak\"; sid:1; rev:2;)\0\0"
    return bytearray(head + fixed + b"".join(text + b"\0" for text in texts)
                     + struct.pack("<II", 3, 8 + len(pairs)) + pairs + struct.pack("<II", 0xFF, 8))


class Writer:
    """The daemon's end of the ring and of its semaphore."""

    def __init__(self):
        fd = os.open(RING, os.O_RDWR | os.O_CREAT, 0o700)
        os.ftruncate(fd, RING_BYTES)
        self._map = mmap.mmap(fd, RING_BYTES)
        os.close(fd)
        self._words = memoryview(self._map).cast("I")
        self._size = RING_BYTES - 8
        self._message = report()
        library = ctypes.CDLL(ctypes.util.find_library("c"), use_errno=True)
        library.sem_open.restype = ctypes.c_void_p
        self._semaphore = ctypes.c_void_p(library.sem_open(SEMAPHORE, os.O_CREAT, 0o600, 0))
        self._post = library.sem_post

    def write(self, number):
        """Puts one report in. False when there is no room."""
        struct.pack_into("<I", self._message, ISSUE_AT, number)
        length = len(self._message)
        read, write = self._words[0], self._words[1]
        need = (length + 7) // 4 * 4
        if self._size - (write - read) % self._size <= need:
            return False
        following = (write + need) % self._size
        first = min(length, self._size - write - 4)
        start = 8 + write + 4
        self._map[start:start + first] = self._message[:first]
        self._map[8:8 + length - first] = self._message[first:]
        if following != read:
            self._words[2 + following // 4] = 0
        self._words[2 + write // 4] = length
        self._words[1] = following
        self._post(self._semaphore)
        return True

    def is_empty(self):
        return self._words[0] == self._words[1]


def waiting_lines():
    """Lines in the spill files, as their headers have them."""
    return sum(struct.unpack_from("<Q", path.read_bytes()[:48], 32)[0]
               for path in SPILL.parent.glob(SPILL.name + "*"))


class Collector:
    """Reads lines at a socket into the file, and is away now and then."""

    OPTIONS = ["--eve", f"unix:{SOCKET}", "--spill", str(SPILL)]
    FILES = [FILE]

    def __init__(self, seed):
        self._random = random.Random(seed)
        self._stop = False
        self.rounds = 0
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def _run(self):
        with open(FILE, "wb") as file:
            while not self._stop:
                SOCKET.unlink(missing_ok=True)
                with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
                    listener.bind(str(SOCKET))
                    listener.listen()
                    self._serve(listener, file, time.monotonic() + 2 + self._random.random())
                self.rounds += 1
                time.sleep(self._random.random())

    def _serve(self, listener, file, until):
        """Takes one connection after the other; of half a line at the end of one nothing is kept."""
        while not self._stop and time.monotonic() < until:
            listener.settimeout(0.05)
            try:
                connection = listener.accept()[0]
            except TimeoutError:
                continue
            with connection:
                connection.settimeout(0.05)
                rest = b""
                while not self._stop and time.monotonic() < until:
                    try:
                        part = connection.recv(65536)
                    except TimeoutError:
                        continue
                    if not part:
                        break
                    whole, end, rest = (rest + part).rpartition(b"\n")
                    file.write(whole + end)

    def close(self):
        self._stop = True
        self._thread.join()


class RedisServer:
    """A Redis server that keeps what it has answered for, and is killed now and then."""

    OPTIONS = ["--redis", f"unix:{REDIS}", "--stream", "soak", "--stream-limit", "100000000",
               "--eve", str(FILE), "--spill", str(SPILL)]
    FILES = [FILE, STREAM_FILE]

    def __init__(self, seed):
        self._random = random.Random(seed)
        self._stop = threading.Event()
        self.rounds = 0
        Path("/cache/redis_data").mkdir()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def _server(self):
        return subprocess.Popen(
            ["redis-server", "--port", "0", "--unixsocket", str(REDIS), "--save", "",
             "--appendonly", "yes", "--appendfsync", "no", "--dir", "/cache/redis_data"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def _run(self):
        while not self._stop.is_set():
            server = self._server()
            if self._stop.wait(1 + self._random.random()):
                self._dump()
            server.kill()
            server.wait()
            REDIS.unlink(missing_ok=True)
            self.rounds += 1
            self._stop.wait(self._random.random())

    def _dump(self):
        """Writes the lines of the stream into a file."""
        answered = harness.wait_for(
            lambda: (answer := self._ask("XRANGE", "soak", "-", "+")).startswith(b"1") and answer,
            "the stream")
        STREAM_FILE.write_bytes(b"".join(line for line in answered.splitlines(keepends=True)
                                         if line.startswith(b"{")))

    @staticmethod
    def _ask(*words):
        return subprocess.run(["redis-cli", "-s", str(REDIS), "--raw", *words], check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout

    def close(self):
        """Ends while the server runs, so that the stream can be read."""
        harness.wait_for(lambda: self._ask("PING") == b"PONG\n", "the server")
        self._stop.set()
        self._thread.join()


class Soak:
    def __init__(self, options):
        self.options = options
        self.writer = Writer()
        self.collector = None
        if options.spill or options.redis:
            self.collector = (RedisServer if options.redis else Collector)(options.seed)
        self.written = 0
        self.errors = open("/cache/soak_errors", "ab")
        self.service = None

    def start(self):
        where = self.collector.OPTIONS if self.collector else ["--eve", str(FILE)]
        self.service = subprocess.Popen(
            [os.environ["TARNCTL_BINARY"], "crm", *where], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=self.errors)

    def write_up_to(self, number, seconds=None):
        """Writes until so many reports are in, or the time is up."""
        deadline = time.monotonic() + (harness.PATIENCE if seconds is None else seconds)
        while self.written < number:
            if self.writer.write(self.written):
                self.written += 1
            else:
                time.sleep(0.001)
                assert self.service.poll() is None, "tarnctl crm has ended by itself"
            if self.written % 64 == 0 and time.monotonic() > deadline:
                return

    def run(self):
        random.seed(self.options.seed)
        places = sorted(random.randrange(self.options.reports * 95 // 100)
                        for _ in range(self.options.kills))
        self.start()
        for place in places:
            while self.written < place:
                self.write_up_to(place)
            # The reader is behind by what the ring holds, so that it is at work when it is killed.
            self.write_up_to(self.options.reports, random.random() * self.options.gap)
            self.service.kill()
            self.service.wait()
            self.start()
        while self.written < self.options.reports:
            self.write_up_to(self.options.reports)
        harness.wait_for(self.writer.is_empty, "the last report to be taken", 10 * harness.PATIENCE)
        if self.collector:
            harness.wait_for(lambda: waiting_lines() == 0, "the spill files to be empty",
                             10 * harness.PATIENCE)
            self.collector.close()
        self.service.send_signal(signal.SIGTERM)
        assert self.service.wait(harness.PATIENCE) == 0

    def count(self, path):
        away = self.collector.rounds if self.collector else 0
        seen = bytearray(self.options.reports)
        doubled = runs = out_of_order = 0
        last = -1
        with open(path, "rb") as file:
            for line in file:
                at = line.index(NUMBER_AT) + len(NUMBER_AT)
                number = int(line[at:line.index(b",", at)])
                if number == last + 1:
                    last = number
                elif number <= last and last - number < BATCH:
                    runs += 1  # a batch begins again
                    last = number
                else:
                    out_of_order += 1
                    last = number
                doubled += seen[number]
                seen[number] = 1
                assert line.endswith(b"}\n"), "half a line"
        return {"file": path.name, "reports": self.options.reports, "kills": self.options.kills,
                "lost": seen.count(0), "doubled": doubled, "batchesAgain": runs,
                "outOfOrder": out_of_order, "timesAway": away,
                "most": (self.options.kills + away) * BATCH}


def main():
    assert "TARN_SANDBOX" in os.environ, "run this in scripts/sandbox"
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--reports", type=int, default=20000)
    parser.add_argument("--kills", type=int, default=10)
    parser.add_argument("--gap", type=float, default=0.05, help="seconds at most up to a kill")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--spill", action="store_true",
                        help="a collector at a socket that is away now and then, and a spill file")
    parser.add_argument("--redis", action="store_true",
                        help="a Redis server that is killed now and then, a file and spill files")
    soak = Soak(parser.parse_args())
    soak.run()
    is_fine = True
    for path in soak.collector.FILES if soak.collector else [FILE]:
        result = soak.count(path)
        print(json.dumps(result))
        is_fine = (is_fine and result["lost"] == result["outOfOrder"] == 0
                  and result["doubled"] <= result["most"])
    return 0 if is_fine else 1


if __name__ == "__main__":
    sys.exit(main())
