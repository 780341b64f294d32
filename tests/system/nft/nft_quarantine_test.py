#!/usr/bin/env python3
"""`tarnctl secmgr --nft` with the real nft and real packets.

Three network namespaces: an outside with two addresses, an inside with one, and between them the
sensor, which forwards and runs the manager.

    outside 10.9.1.2, 10.9.1.3 -- 10.9.1.1 sensor 10.9.2.1 -- 10.9.2.2 inside
    outside 2001:db8:1::2, ::3 -- ::1      sensor 2001:db8:2::1 -- ::2 inside

The script runs itself in a user namespace, where it may do all that without being root, with a
/var/tmp of its own. TARNCTL_BINARY names the command.
"""

import ctypes
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time
import unittest
from pathlib import Path

SOCKET = "/var/tmp/.secmgrsock"
NFT, IP = "/usr/sbin/nft", "/usr/sbin/ip"
ADDED, REFUSED = struct.pack("=II", 15, 0), struct.pack("=II", 3, 0)
CLONE_NEWNET = 0x40000000
PATIENCE = 30.0
PORT, OTHER_PORT = 4000, 4001

OUT, OUT_TOO, SENSOR, SENSOR_IN, IN = "10.9.1.2", "10.9.1.3", "10.9.1.1", "10.9.2.1", "10.9.2.2"
OUT6, OUT6_TOO, IN6 = "2001:db8:1::2", "2001:db8:1::3", "2001:db8:2::2"

_libc = ctypes.CDLL(None, use_errno=True)


def run(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


def wait_for(condition, what):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {PATIENCE:.0f} s for {what}")
        time.sleep(0.01)


class Namespace:
    """A network namespace, which a process of no other use keeps."""

    def __init__(self):
        self._keeper = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
        own = os.readlink("/proc/self/ns/net")
        wait_for(lambda: os.readlink(f"/proc/{self._keeper.pid}/ns/net") != own, "a namespace")
        self._file = os.open(f"/proc/{self._keeper.pid}/ns/net", os.O_RDONLY)

    @property
    def pid(self):
        return str(self._keeper.pid)

    def ip(self, *words):
        run("nsenter", f"--net=/proc/{self.pid}/ns/net", IP, *words)

    def __enter__(self):
        """From here on this thread makes its sockets there."""
        self._home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        self._go(self._file)

    def __exit__(self, *_):
        self._go(self._home)
        os.close(self._home)

    @staticmethod
    def _go(file):
        if _libc.setns(file, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")

    def close(self):
        self._keeper.kill()
        self._keeper.wait()
        os.close(self._file)


def family(address):
    return socket.AF_INET6 if ":" in address else socket.AF_INET


class Network:
    def __init__(self):
        self.outside, self.inside = Namespace(), Namespace()
        for side, name, net in ((self.outside, "out", "1"), (self.inside, "in", "2")):
            run(IP, "link", "add", name, "type", "veth", "peer", "name", "eth", "netns", side.pid)
            run(IP, "link", "set", name, "up")
            run(IP, "address", "add", f"10.9.{net}.1/24", "dev", name)
            run(IP, "address", "add", f"2001:db8:{net}::1/64", "dev", name, "nodad")
            side.ip("link", "set", "eth", "up")
            for host in ("2", "3"):
                side.ip("address", "add", f"10.9.{net}.{host}/24", "dev", "eth")
                side.ip("address", "add", f"2001:db8:{net}::{host}/64", "dev", "eth", "nodad")
            side.ip("route", "add", "default", "via", f"10.9.{net}.1")
            side.ip("-6", "route", "add", "default", "via", f"2001:db8:{net}::1")
        run(IP, "link", "set", "lo", "up")
        Path("/proc/sys/net/ipv4/ip_forward").write_text("1", encoding="ascii")
        Path("/proc/sys/net/ipv6/conf/all/forwarding").write_text("1", encoding="ascii")

    def close(self):
        self.outside.close()
        self.inside.close()


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


class NftQuarantine(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.network = Network()
        cls.addClassCleanup(cls.network.close)
        cls.number = 0

    def setUp(self):
        # What belongs to somebody else, and must be there afterwards as it was.
        run(NFT, "flush ruleset")
        run(NFT, "add table inet filter; add chain inet filter theirs; "
                 "add rule inet filter theirs ip saddr 192.0.2.1 accept")
        self.theirs = run(NFT, "list table inet filter")
        self.addCleanup(lambda: self.assertEqual(run(NFT, "list table inet filter"), self.theirs))

    def manager(self, *options, **more):
        manager = Manager(*options, **more)
        self.addCleanup(manager.end)
        return manager

    # --- packets ----------------------------------------------------------------------------------

    def socket_in(self, namespace, kind, address, port=0, protocol=0):
        if namespace is None:
            made = socket.socket(family(address), kind, protocol)
        else:
            with namespace:
                made = socket.socket(family(address), kind, protocol)
        self.addCleanup(made.close)
        made.bind((address, port))
        made.settimeout(PATIENCE)
        return made

    def datagrams_cross(self, senders, receiver, to):
        """Which of the senders' datagrams arrive. The last sender's must: a path keeps the order,
        so that what has not come before it never comes."""
        type(self).number += 1
        payloads = [struct.pack("=II", self.number, place) for place in range(len(senders))]
        for sender, payload in zip(senders, payloads):
            try:
                sender.sendto(payload, to)
            except PermissionError:
                pass  # how the output hook lets its sender know
        arrived = [False] * len(senders)
        while not arrived[-1]:
            data = receiver.recv(100)
            if data in payloads:
                arrived[payloads.index(data)] = True
        return arrived[:-1]

    def forwarded(self, sources=(OUT, OUT_TOO), target=IN, port=PORT, source_port=0):
        """Which of the outside's addresses reach the inside over the sensor."""
        receiver = self.socket_in(self.network.inside, socket.SOCK_DGRAM, target, port)
        senders = [self.socket_in(self.network.outside, socket.SOCK_DGRAM, source, source_port)
                   for source in sources]
        # The mark comes from an address that no test cuts off.
        mark = {IN: "10.9.1.9", IN6: "2001:db8:1::9"}[target]
        self.network.outside.ip("address", "replace", f"{mark}/{24 if '.' in mark else 64}", "dev",
                                "eth", *(["nodad"] if ":" in mark else []))
        senders.append(self.socket_in(self.network.outside, socket.SOCK_DGRAM, mark))
        try:
            return self.datagrams_cross(senders, receiver, (target, port))
        finally:
            for used in (*senders, receiver):
                used.close()

    # --- what is cut off --------------------------------------------------------------------------

    def test_an_address_is_cut_off_and_another_is_not(self):
        manager = self.manager()
        self.assertEqual([True, True], self.forwarded())
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual([False, True], self.forwarded())
        status, output = manager.stop()
        self.assertEqual(0, status)
        self.assertIn("  accepted  ", output)
        self.assertEqual([True, True], self.forwarded(), "--flush lets it flow again")
        self.assertNotIn("inet tarn", run(NFT, "list tables"))

    def test_ipv6_likewise(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ipv6 intruder addr {OUT6}"))
        self.assertEqual([False, True], self.forwarded((OUT6, OUT6_TOO), IN6))

    def test_traffic_flows_again_after_the_end_though_the_manager_is_gone(self):
        manager = self.manager(flush=False)
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}", 3))
        end = time.time() + 3
        self.assertEqual([False, True], self.forwarded())
        manager.end()
        wait_for(lambda: self.forwarded() == [True, True], "the quarantine to end")
        self.assertGreater(time.time(), end - 1.1)
        run(NFT, "delete table inet tarn")

    def test_a_later_end_holds(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}", 2))
        end = time.time() + 2
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}", 600))
        wait_for(lambda: time.time() > end, "the first end to pass")
        self.assertEqual([False, True], self.forwarded())

    def test_what_is_sent_to_the_sensor_is_cut_off(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        receiver = self.socket_in(None, socket.SOCK_DGRAM, SENSOR, PORT)
        senders = [self.socket_in(self.network.outside, socket.SOCK_DGRAM, source)
                   for source in (OUT, OUT_TOO)]
        self.assertEqual([False], self.datagrams_cross(senders, receiver, (SENSOR, PORT)))

    def test_what_the_sensor_sends_to_a_victim_is_cut_off(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip victim addr {IN} udp src port 0 dst port {PORT}"))
        receivers = [self.socket_in(self.network.inside, socket.SOCK_DGRAM, IN, port)
                     for port in (PORT, OTHER_PORT)]
        sender = self.socket_in(None, socket.SOCK_DGRAM, SENSOR_IN)
        with self.assertRaises(PermissionError):
            sender.sendto(b"cut off", (IN, PORT))
        sender.sendto(b"passes", (IN, OTHER_PORT))
        self.assertEqual(b"passes", receivers[1].recv(100))

    def test_ports_protocol_and_both_addresses_count(self):
        manager = self.manager()
        rule = f"ip intruder addr {OUT} victim addr {IN} udp src port 5000 dst port {PORT}"
        self.assertEqual(ADDED, manager.ask(rule))
        self.assertEqual([False, True], self.forwarded(source_port=5000))
        self.assertEqual([True, True], self.forwarded(source_port=5001))
        self.assertEqual([True, True], self.forwarded(source_port=5000, port=OTHER_PORT))

    def test_another_protocol_is_not_cut_off(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT} tcp src port 0 dst port 0"))
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT_TOO} udp src port 0 dst port 0"))
        self.assertEqual([True, False], self.forwarded())

    def test_a_tcp_connection_is_cut_off_in_the_middle(self):
        manager = self.manager()
        listener = self.socket_in(self.network.inside, socket.SOCK_STREAM, IN, PORT)
        listener.listen(1)
        client = self.socket_in(self.network.outside, socket.SOCK_STREAM, OUT)
        client.connect((IN, PORT))
        server, _ = listener.accept()
        self.addCleanup(server.close)
        server.settimeout(PATIENCE)
        client.sendall(b"before")
        self.assertEqual(b"before", server.recv(100))
        self.assertEqual(ADDED,
                         manager.ask(f"ip intruder addr {OUT} tcp src port 0 dst port {PORT}"))
        client.sendall(b"after")
        self.assertEqual([True, True], self.forwarded(), "and the path has been used since")
        server.setblocking(False)
        with self.assertRaises(BlockingIOError):
            server.recv(100)

    def test_icmp_type_and_code_count(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT} icmp type 8 code 0"))
        receiver = self.socket_in(self.network.inside, socket.SOCK_RAW, IN,
                                  protocol=socket.IPPROTO_ICMP)
        sender = self.socket_in(self.network.outside, socket.SOCK_RAW, OUT,
                                protocol=socket.IPPROTO_ICMP)
        arrived = []
        for kind, code in ((8, 0), (8, 1), (13, 0)):
            head = struct.pack(">BBHHH", kind, code, 0, 0x7A, code)
            total = sum(struct.unpack(">4H", head))
            total = (total & 0xFFFF) + (total >> 16)
            sender.sendto(head[:2] + struct.pack(">H", ~total & 0xFFFF) + head[4:], (IN, 0))
        while (13, 0) not in arrived:
            data = receiver.recv(1000)[20:]
            arrived.append((data[0], data[1]))
        self.assertIn((8, 1), arrived)
        self.assertNotIn((8, 0), arrived)

    def test_a_counter_lets_so_many_bytes_a_second_pass(self):
        manager = self.manager()
        # A datagram of 8 bytes takes 36.
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT} counter 100b"))
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT_TOO} counter 100000b"))
        crossed = self.forwarded((OUT,) * 20 + (OUT_TOO,) * 20)
        self.assertLess(sum(crossed[:20]), 20, "what is over is dropped")
        self.assertEqual([True, True], crossed[:2], "and what is not passes")
        self.assertEqual(20, sum(crossed[20:]), "each rule has a limit of its own")

    # --- what is refused --------------------------------------------------------------------------

    def test_what_must_never_be_cut_off_is_refused(self):
        never = Path("/var/tmp/never")
        never.write_text("# ours\n10.9.2.0/24\n", encoding="utf-8")
        manager = self.manager("--never", OUT_TOO, "--never-file", str(never))
        for pieces in ("ip", "ip tcp src port 1 dst port 2", f"ip intruder addr {OUT_TOO}",
                       f"ip intruder addr {OUT} victim addr {IN}", "ip victim addr 127.0.0.1",
                       f"ip victim addr {SENSOR}", "ipv6 intruder addr 2001:db8:1::1",
                       "ipv6 intruder addr ::1"):
            self.assertEqual(REFUSED, manager.ask(pieces), pieces)
        self.assertEqual(REFUSED, manager.ask(f"ip intruder addr {OUT}", -1))
        self.assertNotIn("set ", run(NFT, "list table inet tarn"))
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        status, output = manager.stop()
        self.assertEqual(0, status)
        self.assertIn("10.9.2.2 is never quarantined, as part of 10.9.2.0/24", output)
        self.assertIn("names no address", output)
        self.assertIn("its end has come already", output)
        self.assertIn("10 rules, 1 accepted", manager.errors())

    def test_a_second_manager_touches_nothing(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        second = subprocess.run([os.environ["TARNCTL_BINARY"], "secmgr", "--nft", "--flush"],
                                check=False, capture_output=True, text=True)
        self.assertEqual(1, second.returncode)
        self.assertIn("another receiver is there already", second.stderr)
        self.assertEqual([False, True], self.forwarded())

    def test_every_shape_of_rule_is_taken(self):
        manager = self.manager()
        addresses = {"ip": ("192.0.2.1", "192.0.2.2"), "ipv6": ("2001:db8:9::1", "2001:db8:9::2")}
        ports = [f" src port {source} dst port {target}" for source in (0, 7) for target in (0, 8)]
        fields = ["", " type 3", " code 4", " type 3 code 4"]
        asked = 0
        for word, (intruder, victim) in addresses.items():
            icmp = " icmp" if word == "ip" else " icmpv6"
            protocols = ["", " proto 47", " proto 255", *(icmp + more for more in fields),
                         *(name + more for name in (" tcp", " udp") for more in ports)]
            for where in (f" intruder addr {intruder}", f" victim addr {victim}",
                          f" intruder addr {intruder} victim addr {victim}"):
                for protocol in protocols:
                    for counter in ("", " counter 4294967295b"):
                        self.assertEqual(ADDED, manager.ask(word + where + protocol + counter))
                        asked += 1
        self.assertIn(f"{asked} rules, {asked} accepted", (manager.stop(), manager.errors())[1])

    def test_an_end_far_away_is_taken(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}", 200 * 365 * 86400))


def reexecuted():
    """Runs this script again in namespaces of its own, and is its exit status."""
    os.environ["TARN_NFT_NAMESPACE"] = "1"
    return subprocess.run(
        ["unshare", "--user", "--map-root-user", "--net", "--mount", "--pid", "--fork",
         "--kill-child", "--mount-proc", sys.executable, __file__, *sys.argv[1:]],
        check=False).returncode


def obstacle():
    """Why this machine cannot do it, if it can't."""
    for tool in (NFT, IP):
        if shutil.which(tool) is None:
            return f"{tool} is missing; run scripts/setup"
    trial = subprocess.run(["unshare", "--user", "--map-root-user", "--net", NFT, "add table inet x"],
                           check=False, capture_output=True, text=True)
    return trial.stderr.strip() if trial.returncode != 0 else ""


def main():
    if not os.access(os.environ.get("TARNCTL_BINARY", ""), os.X_OK):
        sys.exit("TARNCTL_BINARY must name the command.")
    if os.environ.get("TARN_NFT_NAMESPACE") != "1":
        reason = obstacle()
        if reason:
            print(f"skipped: no nf_tables in a network namespace here: {reason}")
            sys.exit(77)
        sys.exit(reexecuted())
    run("mount", "-t", "tmpfs", "tmpfs", "/var/tmp")
    unittest.main(verbosity=2)


if __name__ == "__main__":
    main()
