#!/usr/bin/env python3
"""`tarnctl packetlog` as a service: its files in pcapng, hangups under load, kills, its folder gone."""

import os
import random
import shutil
import signal
import socket
import struct
import subprocess
import threading
import unittest
from pathlib import Path

import harness
from peers import packet_logger

TARNCTL = os.environ["TARNCTL_BINARY"]
FOLDER = Path("/cache/captures")
SIGNATURE = 1000001
QUEUE = 1 + int(Path("/proc/sys/net/unix/max_dgram_qlen").read_text(encoding="ascii"))


def capture(number):
    """A request with a packet that holds its number, of one of three signatures."""
    packet = struct.pack("<I", number) * 20
    request = struct.pack("<8I", 4, 120, 1, 0, 0, 0, 0, SIGNATURE + number % 3)
    request += b"SNORT".ljust(56, b"\0")
    request += struct.pack("<8I", len(packet), len(packet), 1700000000 + number, 7, 0, 0, 0, 0)
    return request.ljust(128, b"\0") + packet


def options_of(data):
    options = []
    while data:
        code, length = struct.unpack_from("<HH", data)
        if code == 0:
            break
        options.append((code, data[4:4 + length]))
        data = data[4 + (length + 3) // 4 * 4:]
    return options


def packets_of(path):
    """(number, comment) of each packet of a file in pcapng, every block of which is whole."""
    data = path.read_bytes()
    packets = []
    kinds = []
    while data:
        kind, length = struct.unpack_from("<II", data)
        assert len(data) >= length >= 12 and length % 4 == 0, (path, length, len(data))
        assert struct.unpack_from("<I", data, length - 4)[0] == length, path
        body = data[8:length - 4]
        kinds.append(kind)
        if kind == 6:
            interface, high, low, captured, original = struct.unpack_from("<5I", body)
            number = struct.unpack_from("<I", body, 20)[0]
            assert body[20:20 + captured] == struct.pack("<I", number) * 20, path
            assert (interface, captured, original) == (0, 80, 80), path
            assert (high << 32) + low == (1700000000 + number) * 1000000 + 7, path
            comments = [text.decode() for code, text in options_of(body[20 + captured:])
                        if code == 1]
            assert len(comments) == 1, comments
            packets.append((number, comments[0]))
        data = data[length:]
    assert kinds[:2] == [0x0A0D0D0A, 1] and set(kinds[2:]) <= {6}, (path, kinds)
    return packets


def numbers_in(name):
    """The numbers of all packets of a set of files, the oldest file first."""
    paths = sorted(FOLDER.glob(f"{name}*.pcapng"), reverse=True,
                   key=lambda path: int((path.name.split(".") + ["0"])[1].replace("pcapng", "0")))
    return [number for path in paths for number, _ in packets_of(path)]


class PacketLogService(unittest.TestCase):
    def setUp(self):
        shutil.rmtree(FOLDER, ignore_errors=True)
        FOLDER.mkdir()
        self.sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sender.settimeout(harness.PATIENCE)
        self.addCleanup(self.sender.close)

    def start(self, *options):
        process = subprocess.Popen(
            [TARNCTL, "packetlog", "--dir", FOLDER, "--quiet", "--format", "pcapng",
             "--keep-days", "30", *options], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE, text=True)

        def end():
            process.kill()
            process.wait()
            process.stderr.close()
        self.addCleanup(end)
        harness.wait_for(lambda: self.is_taken(b"") or process.poll() is not None, "the socket")
        self.assertIsNone(process.poll())
        return process

    def is_taken(self, datagram):
        """Whether somebody receives; an empty datagram is malformed, and told."""
        try:
            if datagram:
                self.sender.sendto(datagram, packet_logger.PATH)
            else:
                with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as probe:
                    probe.connect(packet_logger.PATH)
            return True
        except (FileNotFoundError, ConnectionRefusedError, ConnectionResetError):
            return False

    def stop(self, process, status=0):
        process.terminate()
        _, errors = process.communicate(timeout=harness.PATIENCE)
        self.assertEqual(status, process.returncode, errors)
        return errors

    def test_each_packet_has_the_comment_of_its_signature(self):
        process = self.start()
        for number in range(30):
            self.assertTrue(self.is_taken(capture(number)))
        harness.wait_for(lambda: len(numbers_in("all")) == 30, "the packets")
        self.assertIn("30 messages, 0 records, 30 packets\n", self.stop(process))
        for place in range(3):
            signature = SIGNATURE + place
            self.assertEqual([(number, f"signature {signature}, from SNORT")
                              for number in range(place, 30, 3)],
                             packets_of(FOLDER / f"event-{signature}.pcapng"))

    def test_hangups_under_load_lose_nothing(self):
        process = self.start()
        count = 400
        for number in range(count):
            if number % 20 == 10:
                before = len(list(FOLDER.glob("all*")))
                process.send_signal(signal.SIGHUP)
                harness.wait_for(lambda: len(list(FOLDER.glob("all*"))) > before, "a new file")
            self.assertTrue(self.is_taken(capture(number)))
        harness.wait_for(lambda: len(numbers_in("all")) == count, "the packets")
        self.assertIn(f"{count} packets\n", self.stop(process))
        self.assertEqual(list(range(count)), numbers_in("all"))
        for place in range(3):
            self.assertEqual(list(range(place, count, 3)), numbers_in(f"event-{SIGNATURE + place}"))

    def test_kills_leave_whole_files_and_lose_what_waited_in_the_socket(self):
        chance = random.Random(7)
        kills = 15
        sent = 0
        for _ in range(kills):
            process = self.start()
            for _ in range(chance.randrange(1, 60)):
                if self.is_taken(capture(sent)):
                    sent += 1
            process.kill()
            process.wait()
        self.stop(self.start())
        numbers = numbers_in("all")
        self.assertEqual(sorted(set(numbers)), numbers, "in order, and none twice")
        self.assertLessEqual(sent - len(numbers), kills * QUEUE)
        for place in range(3):
            found = numbers_in(f"event-{SIGNATURE + place}")
            self.assertEqual(sorted(set(found)), found)
            # The last packet of a run may be in the one file and not yet in the other.
            missing = set(number for number in numbers if number % 3 == place) - set(found)
            self.assertLessEqual(len(missing), kills)

    def test_a_folder_that_has_gone_costs_packets_until_it_is_back(self):
        process = self.start()
        self.assertTrue(self.is_taken(capture(0)))
        harness.wait_for(lambda: numbers_in("all") == [0], "the first packet")
        shutil.rmtree(FOLDER)
        self.assertTrue(self.is_taken(capture(1)))
        line = ""
        while f"packets are lost: {FOLDER}" not in line:
            line = process.stderr.readline()
            self.assertNotEqual("", line)
        self.assertIn("No such file or directory", line)
        FOLDER.mkdir()
        self.assertTrue(self.is_taken(capture(2)))
        harness.wait_for(lambda: (FOLDER / "all.pcapng").exists() and numbers_in("all") == [2],
                         "the packet after it")
        errors = self.stop(process, status=1)
        self.assertIn("packets are kept again; 1 packet lost\n", errors)
        self.assertIn("3 packets, 1 lost\n", errors)

    def test_a_full_disk_costs_packets_until_there_is_room(self):
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", FOLDER],
                          stderr=subprocess.DEVNULL, check=False).returncode != 0:
            self.skipTest("this user cannot make a small disk")
        self.addCleanup(subprocess.run, ["umount", "--lazy", FOLDER], check=True)
        filler = FOLDER / "filler"
        filler.write_bytes(bytes(40960))
        process = self.start()
        number = 0
        lost = []

        def read():
            for line in process.stderr:
                if f"packets are lost: {FOLDER}" in line:
                    lost.append(line)
                    return
        reader = threading.Thread(target=read)
        reader.start()
        while reader.is_alive() and number < 2000:
            self.assertTrue(self.is_taken(capture(number)))
            number += 1
        reader.join(harness.PATIENCE)
        self.assertIn("No space left on device", lost[0])
        filler.unlink()
        self.assertTrue(self.is_taken(capture(5000)))
        harness.wait_for(lambda: numbers_in("all")[-1] == 5000, "the packet after it")
        errors = self.stop(process, status=1)
        self.assertIn("packets are kept again; ", errors)
        numbers = numbers_in("all")
        self.assertEqual(sorted(set(numbers)), numbers)

    def test_the_files_stay_within_their_limits(self):
        others = FOLDER / "notes.txt"
        others.write_text("mine", encoding="utf-8")
        process = self.start("--keep-files", "6", "--rotate", "1K")
        for number in range(60):
            self.assertTrue(self.is_taken(capture(number)))

        def is_settled():
            newest = FOLDER / "all.pcapng"
            return (newest.exists() and (59 in dict(packets_of(newest)))
                    and len(list(FOLDER.glob("*.pcapng"))) <= 6)
        harness.wait_for(is_settled, "the last packet, and the limit")
        self.assertIn("deleted", self.stop(process))
        self.assertTrue(others.exists())
        self.assertEqual(59, numbers_in("all")[-1])


if __name__ == "__main__":
    harness.main()
