"""Network namespaces, packets that go through them, and a test that runs in namespaces of its own.

Three network namespaces: an outside with two addresses, an inside with one, and between them the
sensor, which forwards and runs the manager.

    outside 10.9.1.2, 10.9.1.3 -- 10.9.1.1 sensor 10.9.2.1 -- 10.9.2.2 inside
    outside 2001:db8:1::2, ::3 -- ::1      sensor 2001:db8:2::1 -- ::2 inside

A script runs itself in a user namespace, where it may do all that without being root, with a
/var/tmp of its own. TARNCTL_BINARY names the command.
"""

import ctypes
import os
import shutil
import socket
import struct
import subprocess
import sys
import unittest
from pathlib import Path

from manager import PATIENCE, Manager, wait_for

NFT, IP = "/usr/sbin/nft", "/usr/sbin/ip"
CLONE_NEWNET = 0x40000000
PORT, OTHER_PORT = 4000, 4001

OUT, OUT_TOO, SENSOR, SENSOR_IN, IN = "10.9.1.2", "10.9.1.3", "10.9.1.1", "10.9.2.1", "10.9.2.2"
OUT6, OUT6_TOO, IN6 = "2001:db8:1::2", "2001:db8:1::3", "2001:db8:2::2"

_libc = ctypes.CDLL(None, use_errno=True)


def run(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


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


class NetworkTest(unittest.TestCase):
    """Tests with a network, and with tables of somebody else."""

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


def reexecuted():
    """Runs this script again in namespaces of its own, and is its exit status."""
    os.environ["TARN_NFT_NAMESPACE"] = "1"
    return subprocess.run(
        ["unshare", "--user", "--map-root-user", "--net", "--mount", "--pid", "--fork",
         "--kill-child", "--mount-proc", sys.executable, *sys.argv],
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
