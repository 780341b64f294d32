#!/usr/bin/env python3
"""`tarnctl secmgr --nft --state`: what is in force outlives the manager, whenever it is killed."""

import json
import os
import random
import socket
import struct
import subprocess
import threading
import time
import zlib
from pathlib import Path

from manager import wait_for
from network import IN, NFT, OUT, OUT_TOO, PORT, NetworkTest, main, run

ADDED, REFUSED = struct.pack("=II", 15, 0), struct.pack("=II", 3, 0)
STATE = Path("/var/tmp/quarantine")
KILLS = 25


def in_kernel():
    """The addresses that are cut off, each with the seconds that it has left."""
    listing = json.loads(run(NFT, "-j", "list table inet tarn"))
    found = {}
    for entry in listing["nftables"]:
        for element in entry.get("set", {}).get("elem", []):
            found[element["elem"]["val"]] = element["elem"]["expires"]
    return found


def in_file():
    """The addresses that the state file has in force."""
    found = {}
    for line in STATE.read_text(encoding="utf-8").splitlines()[1:]:
        entry = json.loads(line.split(" ", 1)[1])
        address = entry.get("rule", entry.get("ended")).split()[3]
        if "rule" in entry:
            found[address] = entry
        else:
            found.pop(address, None)
    return found


class NftState(NetworkTest):
    def setUp(self):
        super().setUp()
        STATE.unlink(missing_ok=True)

    def keeper(self, *options, flush=False):
        return self.manager("--state", str(STATE), *options, flush=flush)

    def test_a_quarantine_outlives_the_manager_and_the_table(self):
        manager = self.keeper()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual([False, True], self.forwarded())
        for harm in ("list ruleset", "delete table inet tarn"):  # a restart, and a reboot
            manager.kill()
            run(NFT, harm)
            manager = self.keeper()
            self.assertIn(f"1 rule of {STATE} in force again, 0 had ended", manager.errors())
            self.assertEqual([False, True], self.forwarded())
            self.assertTrue(500 < in_kernel()[OUT] <= 600, in_kernel())
        self.assertEqual(0, manager.stop()[0])
        self.assertEqual([False, True], self.forwarded(), "also after an end in good order")
        self.assertEqual([OUT], list(in_file()))

    def test_a_restart_leaves_no_gap(self):
        manager = self.keeper()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        receiver = self.socket_in(self.network.inside, socket.SOCK_DGRAM, IN, PORT)
        sender = self.socket_in(self.network.outside, socket.SOCK_DGRAM, OUT)
        mark = self.socket_in(self.network.outside, socket.SOCK_DGRAM, OUT_TOO)
        done = threading.Event()
        sent = 0

        def knock():
            nonlocal sent
            while not done.is_set():
                sender.sendto(b"knock", (IN, PORT))
                sent += 1

        knocking = threading.Thread(target=knock)
        knocking.start()
        try:
            for _ in range(5):
                manager.kill()
                manager = self.keeper()
        finally:
            done.set()
            knocking.join()
        mark.sendto(b"mark", (IN, PORT))
        self.assertEqual(b"mark", receiver.recv(100), "the first that comes through")
        self.assertGreater(sent, 1000)

    def test_flush_ends_it_for_good(self):
        manager = self.keeper(flush=True)
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual(0, manager.stop()[0])
        self.keeper()
        self.assertEqual({}, in_kernel())

    def test_kernel_and_file_agree_whenever_the_manager_is_killed(self):
        chance = random.Random(1)
        answered = set()
        number = 0
        for _ in range(KILLS):
            manager = self.keeper()
            kernel = in_kernel()
            self.assertEqual(set(in_file()), set(kernel), "after the start they agree")
            self.assertLessEqual(answered, set(kernel), "and what was answered is in force")
            killer = threading.Timer(chance.uniform(0.0, 0.15), manager.kill)
            killer.start()
            try:
                while True:
                    number += 1
                    address = f"203.0.{number // 256}.{number % 256}"
                    if manager.ask(f"ip intruder addr {address}") != ADDED:
                        break
                    answered.add(address)
            except (ConnectionError, OSError):
                pass
            killer.join()
        self.assertGreater(len(answered), KILLS)

    def test_a_kill_while_it_starts_loses_nothing(self):
        manager = self.keeper()
        for host in range(1, 200):
            self.assertEqual(ADDED, manager.ask(f"ip intruder addr 203.0.113.{host}"))
        manager.kill()
        chance = random.Random(2)
        for _ in range(KILLS):
            process = subprocess.Popen([os.environ["TARNCTL_BINARY"], "secmgr", "--nft", "--state",
                                        str(STATE)], stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
            time.sleep(chance.uniform(0.0, 0.05))
            process.kill()
            process.wait()
        self.keeper()
        self.assertEqual(199, len(in_kernel()))
        self.assertEqual(set(in_file()), set(in_kernel()))

    def test_a_damaged_line_is_named_and_skipped(self):
        manager = self.keeper()
        for host in (1, 2, 3):
            self.assertEqual(ADDED, manager.ask(f"ip intruder addr 203.0.113.{host}"))
        manager.kill()
        STATE.write_text(STATE.read_text(encoding="utf-8").replace("113.2 ", "113.9 "),
                         encoding="utf-8")
        manager = self.keeper()
        self.assertIn(f"{STATE}, line 3: damaged, and skipped", manager.errors())
        self.assertEqual({"203.0.113.1", "203.0.113.3"}, set(in_kernel()))

    def test_a_full_quarantine_is_restored(self):
        # As many as --max-rules allows, written as the manager writes them.
        end = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() + 3600))
        with STATE.open("w", encoding="utf-8") as state:
            state.write("tarn-quarantine 1\n")
            for number in range(65536):
                text = (f'{{"rule":"ip intruder addr 203.{number >> 16}.{number >> 8 & 255}.'
                        f'{number & 255} expires {end}","issueId":1,"asked":1,"since":0}}')
                state.write(f"{zlib.crc32(text.encode()):08x} {text}\n")
        manager = self.keeper()
        self.assertIn("65536 rules of", manager.errors())
        self.assertEqual(65536, len(in_kernel()))
        self.assertEqual(REFUSED, manager.ask(f"ip intruder addr {OUT}"), "which is full")

    def test_a_full_disk_does_not_stop_the_quarantine(self):
        run("mount", "-t", "tmpfs", "-o", "size=32k,mode=755", "tmpfs", "/mnt")
        self.addCleanup(run, "umount", "/mnt")
        manager = self.manager("--state", "/mnt/quarantine", flush=False)
        Path("/mnt/ballast").write_bytes(b"x" * 28672)
        for host in range(1, 60):
            self.assertEqual(ADDED, manager.ask(f"ip intruder addr 203.0.113.{host}"))
        wait_for(lambda: "rules are in force that a restart would forget" in manager.errors(),
                 "the trouble to be told")
        Path("/mnt/ballast").unlink()
        wait_for(lambda: Path("/mnt/quarantine").read_text(encoding="utf-8").count("\n") == 60,
                 "the file to have all of them")
        self.assertEqual(59, len(in_kernel()))

    def test_a_dry_run_changes_nothing(self):
        manager = self.keeper()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        manager.kill()
        run(NFT, "delete table inet tarn")
        before = STATE.read_bytes()
        manager = self.keeper("--dry-run")
        self.assertEqual(ADDED, manager.ask("ip intruder addr 203.0.113.1"))
        self.assertEqual(REFUSED, manager.ask("ip intruder addr 127.0.0.1"))
        self.assertEqual(0, manager.stop()[0])
        self.assertIn("nothing is cut off", manager.errors())
        self.assertIn("2 rules in force", manager.errors())
        self.assertEqual(before, STATE.read_bytes())
        self.assertNotIn("tarn", run(NFT, "list tables"))
        self.assertEqual([True, True], self.forwarded())


if __name__ == "__main__":
    main()
