#!/usr/bin/env python3
"""`tarnctl secmgr --nft --hook`: each hook with real packets, and what it leaves alone.

For the hook of a bridge there are two more hosts, which a bridge of the sensor connects:

    left 10.9.3.2, 10.9.3.3 -- sensor's bridge -- right 10.9.3.4
    left 2001:db8:3::2, ::3 -- sensor's bridge -- right ::4
"""

import json
import os
import socket
import struct
import subprocess
from pathlib import Path

from network import (IN, IN6, IP, NFT, OTHER_PORT, OUT, OUT6, OUT6_TOO, OUT_TOO, PORT, SENSOR,
                     SENSOR_IN, Namespace, NetworkTest, main, run)

ADDED = struct.pack("=II", 15, 0)
LEFT, LEFT_TOO, RIGHT = "10.9.3.2", "10.9.3.3", "10.9.3.4"
LEFT6, LEFT6_TOO, RIGHT6 = "2001:db8:3::2", "2001:db8:3::3", "2001:db8:3::4"


class Bridge:
    def __init__(self):
        self.left, self.right = Namespace(), Namespace()
        run(IP, "link", "add", "middle", "type", "bridge")
        run(IP, "link", "set", "middle", "up")
        # Where this is 1 the kernel also shows what passes a bridge to the hooks of IP.
        for name in ("iptables", "ip6tables"):
            switch = Path(f"/proc/sys/net/bridge/bridge-nf-call-{name}")
            if switch.exists():
                switch.write_text("0", encoding="ascii")
        for side, name, hosts in ((self.left, "left", "23"), (self.right, "right", "4")):
            run(IP, "link", "add", name, "type", "veth", "peer", "name", "eth", "netns", side.pid)
            run(IP, "link", "set", name, "master", "middle", "up")
            side.ip("link", "set", "eth", "up")
            for host in hosts:
                side.ip("address", "add", f"10.9.3.{host}/24", "dev", "eth")
                side.ip("address", "add", f"2001:db8:3::{host}/64", "dev", "eth", "nodad")

    def close(self):
        run(IP, "link", "delete", "middle")
        self.left.close()
        self.right.close()


class NftHook(NetworkTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.bridge = Bridge()
        cls.addClassCleanup(cls.bridge.close)

    def hooked(self, *hooks, options=()):
        words = [word for hook in hooks for word in ("--hook", hook)]
        return self.manager(*words, *options)

    def to_sensor(self, sources=(OUT, OUT_TOO), target=SENSOR):
        """Which of the outside's addresses reach the sensor itself; the last must."""
        receiver = self.socket_in(None, socket.SOCK_DGRAM, target, PORT)
        senders = [self.socket_in(self.network.outside, socket.SOCK_DGRAM, source)
                   for source in sources]
        try:
            return self.datagrams_cross(senders, receiver, (target, PORT))
        finally:
            for used in (*senders, receiver):
                used.close()

    def test_forward_protects_what_is_behind_and_leaves_the_sensor_alone(self):
        manager = self.hooked("forward")
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual(ADDED, manager.ask(f"ipv6 intruder addr {OUT6}"))
        self.assertEqual([False, True], self.forwarded())
        self.assertEqual([False, True], self.forwarded((OUT6, OUT6_TOO), IN6))
        self.assertEqual([True], self.to_sensor())
        self.assertEqual([True], self.to_sensor((OUT6, OUT6_TOO), "2001:db8:1::1"))

    def test_input_protects_the_sensor_and_leaves_what_is_behind_alone(self):
        manager = self.hooked("input")
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual(ADDED, manager.ask(f"ipv6 intruder addr {OUT6}"))
        self.assertEqual([False], self.to_sensor())
        self.assertEqual([False], self.to_sensor((OUT6, OUT6_TOO), "2001:db8:1::1"))
        self.assertEqual([True, True], self.forwarded())
        self.assertEqual([True, True], self.forwarded((OUT6, OUT6_TOO), IN6))

    def test_output_stops_what_the_sensor_sends_only(self):
        manager = self.hooked("output")
        for rule, source, target in ((f"ip victim addr {IN}", SENSOR_IN, IN),
                                     (f"ipv6 victim addr {IN6}", "2001:db8:2::1", IN6)):
            self.assertEqual(ADDED, manager.ask(f"{rule} udp src port 0 dst port {PORT}"))
            sender = self.socket_in(None, socket.SOCK_DGRAM, source)
            with self.assertRaises(PermissionError):
                sender.sendto(b"cut off", (target, PORT))
            sender.sendto(b"passes", (target, OTHER_PORT))
        self.assertEqual([True, True], self.forwarded())
        self.assertEqual([True, True], self.forwarded((OUT6, OUT6_TOO), IN6))

    def test_prerouting_alone_leaves_what_the_sensor_sends_alone(self):
        manager = self.hooked("prerouting")
        self.assertEqual(ADDED, manager.ask(f"ip victim addr {IN}"))
        receiver = self.socket_in(self.network.inside, socket.SOCK_DGRAM, IN, PORT)
        self.socket_in(None, socket.SOCK_DGRAM, SENSOR_IN).sendto(b"passes", (IN, PORT))
        self.assertEqual(b"passes", receiver.recv(100))

    def test_a_counter_is_a_limit_at_each_hook(self):
        for hook, crossed in (("forward", lambda: self.forwarded((OUT,) * 20 + (OUT_TOO,))[:20]),
                              ("input", lambda: self.to_sensor((OUT,) * 20 + (OUT_TOO,)))):
            manager = self.hooked(hook)
            self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT} counter 100b"))
            passed = crossed()
            self.assertEqual([True, True], passed[:2], hook)
            self.assertIn(False, passed, hook)
            manager.stop()

    def test_a_second_manager_with_other_hooks_leaves_nothing_of_the_first(self):
        self.hooked("bridge", "input").kill()
        self.assertIn("bridge tarn", run(NFT, "list tables"))
        manager = self.hooked("forward")
        self.assertNotIn("bridge tarn", run(NFT, "list tables"))
        self.assertNotIn("hook input", run(NFT, "list table inet tarn"))
        manager.kill()
        manager = self.hooked("bridge")
        self.assertNotIn("inet tarn", run(NFT, "list tables"))
        manager.stop()
        self.assertNotIn("tarn", run(NFT, "list tables"))

    def bridged(self, sources=(LEFT, LEFT_TOO), target=RIGHT, port=PORT):
        """Which of the left's addresses reach the right; the last must."""
        receiver = self.socket_in(self.bridge.right, socket.SOCK_DGRAM, target, port)
        senders = [self.socket_in(self.bridge.left, socket.SOCK_DGRAM, source)
                   for source in sources]
        try:
            return self.datagrams_cross(senders, receiver, (target, port))
        finally:
            for used in (*senders, receiver):
                used.close()

    def test_the_usual_hooks_do_not_see_what_passes_a_bridge(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {LEFT}"))
        self.assertEqual([True], self.bridged())

    def test_a_bridge_protects_the_hosts_behind_it(self):
        manager = self.manager("--hook", "bridge")
        self.assertEqual([True], self.bridged())
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {LEFT}"))
        self.assertEqual(ADDED, manager.ask(f"ipv6 intruder addr {LEFT6}"))
        self.assertEqual([False], self.bridged())
        self.assertEqual([False], self.bridged((LEFT6, LEFT6_TOO), RIGHT6))
        self.assertEqual([True, True], self.forwarded(), "and routed packets pass")
        manager.stop()
        self.assertEqual([True], self.bridged())

    def test_ports_and_a_counter_count_on_a_bridge(self):
        manager = self.manager("--hook", "bridge")
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {LEFT} udp src port 0 dst port {PORT}"))
        self.assertEqual([False], self.bridged())
        self.assertEqual([True], self.bridged(port=OTHER_PORT))
        self.assertEqual(ADDED, manager.ask(f"ipv6 intruder addr {LEFT6} counter 200b"))
        passed = self.bridged((LEFT6,) * 20 + (LEFT6_TOO,), RIGHT6)
        self.assertEqual([True, True], passed[:2])
        self.assertIn(False, passed)

    def test_both_tables_hold_each_rule_and_are_restored(self):
        options = ("--hook", "bridge", "--hook", "forward", "--state", "/var/tmp/quarantine")
        manager = self.manager(*options, flush=False)
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {LEFT}"))
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        for harm in ("list ruleset", "delete table bridge tarn; delete table inet tarn"):
            manager.kill()
            run(NFT, harm)
            manager = self.manager(*options, flush=False)
            self.assertEqual([False], self.bridged())
            self.assertEqual([False, True], self.forwarded())
        run(NFT, "delete table bridge tarn")
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {LEFT}"))
        self.assertIn("somebody else has removed the table", manager.errors())
        self.assertEqual([False], self.bridged())
        manager.kill()
        run(NFT, "delete table inet tarn; delete table bridge tarn")

    def test_packets_are_counted_over_both_tables(self):
        control = "/var/tmp/control"
        manager = self.manager("--hook", "bridge", "--hook", "forward", "--control", control)
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {LEFT}"))
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.bridged()
        self.forwarded((OUT, OUT, OUT_TOO))
        answer = subprocess.run([os.environ["TARNCTL_BINARY"], "quarantine", "list", "--json",
                                 "--control", control], check=True, capture_output=True).stdout
        self.assertEqual([1, 2], [rule["packets"] for rule in json.loads(answer)["rules"]])

    def test_every_shape_of_rule_is_taken_on_a_bridge(self):
        manager = self.manager("--hook", "bridge")
        ports = [f" src port {source} dst port {target}" for source in (0, 7) for target in (0, 8)]
        for word, one, two, icmp in (("ip", "192.0.2.1", "192.0.2.2", " icmp"),
                                     ("ipv6", "2001:db8:9::1", "2001:db8:9::2", " icmpv6")):
            for what in ("", " proto 47", icmp, icmp + " type 3", icmp + " type 3 code 4",
                         *(name + more for name in (" tcp", " udp") for more in ports)):
                for counter in ("", " counter 1000b"):
                    rule = f"{word} intruder addr {one} victim addr {two}{what}{counter}"
                    self.assertEqual(ADDED, manager.ask(rule), rule)


if __name__ == "__main__":
    main()
