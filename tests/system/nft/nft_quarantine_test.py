#!/usr/bin/env python3
"""`tarnctl secmgr --nft` with the real nft and real packets."""

import os
import signal
import socket
import struct
import subprocess
import time
from pathlib import Path

from manager import PATIENCE, wait_for
from network import (IN, IN6, NFT, IP, OTHER_PORT, OUT, OUT6, OUT6_TOO, OUT_TOO, PORT, SENSOR,
                     SENSOR_IN, NetworkTest, main, run)

SANDBOX = Path(__file__).resolve().parents[3] / "scripts" / "sandbox"
ADDED, REFUSED = struct.pack("=II", 15, 0), struct.pack("=II", 3, 0)


class NftQuarantine(NetworkTest):
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

    def test_what_hosts_need_to_reach_each_other_is_refused(self):
        manager = self.manager("--never", IN)
        for intruder in ("0.0.0.0", "0.1.2.3", "127.9.9.9", "169.254.7.7", "224.0.0.251",
                         "255.255.255.255", "10.9.1.255", "10.9.2.255"):
            self.assertEqual(REFUSED, manager.ask(f"ip intruder addr {intruder}"), intruder)
            self.assertEqual(REFUSED, manager.ask(f"ip victim addr {intruder}"), intruder)
        for intruder in ("::", "fe80::1", "ff02::1", "ff02::1:ff00:1", "ff02::1:ff00:2",
                         "::ffff:10.9.2.2", "64:ff9b::a09:202", "2002:a09:202::1"):
            for more in ("", " icmpv6", " icmpv6 type 135", " udp src port 0 dst port 0"):
                for who in ("intruder", "victim"):
                    self.assertEqual(REFUSED, manager.ask(f"ipv6 {who} addr {intruder}{more}"))
        for kind in range(133, 138):
            self.assertEqual(REFUSED, manager.ask(f"ipv6 intruder addr {OUT6} icmpv6 type {kind}"))
        self.assertNotIn("set ", run(NFT, "list table inet tarn"))
        self.assertEqual([True, True], self.forwarded())

    def test_neighbours_find_each_other_whatever_is_asked_for(self):
        manager = self.manager()
        for victim in ("ff02::1:ff00:1", "ff02::1:ff00:2", "ff02::1:ff00:3", "ff02::1"):
            self.assertEqual(REFUSED, manager.ask(f"ipv6 victim addr {victim} icmpv6"))
        for kind in (135, 136):
            for who in ("intruder", "victim"):
                for address in (OUT6, IN6):
                    manager.ask(f"ipv6 {who} addr {address} icmpv6 type {kind}")
        # Every host asks for its neighbours' link addresses anew.
        for side in (self.network.outside, self.network.inside):
            side.ip("-6", "neighbour", "flush", "dev", "eth")
        for name in ("out", "in"):
            run(IP, "-6", "neighbour", "flush", "dev", name)
        self.assertEqual([True, True], self.forwarded((OUT6, OUT6_TOO), IN6))

    def test_broadcast_and_multicast_still_arrive(self):
        manager = self.manager()
        self.assertEqual(REFUSED, manager.ask("ip victim addr 10.9.1.255"))
        self.assertEqual(REFUSED, manager.ask("ip victim addr 255.255.255.255"))
        self.assertEqual(REFUSED, manager.ask("ip victim addr 224.0.0.251"))
        for target in ("10.9.1.255", "255.255.255.255", "224.0.0.251"):
            receiver = self.socket_in(None, socket.SOCK_DGRAM, "0.0.0.0", PORT)
            group = struct.pack("4s4s", socket.inet_aton("224.0.0.251"), socket.inet_aton(SENSOR))
            receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
            sender = self.socket_in(self.network.outside, socket.SOCK_DGRAM, OUT)
            sender.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
            sender.sendto(target.encode(), (target, PORT))
            self.assertEqual(target.encode(), receiver.recv(100))
            receiver.close()

    def test_another_form_of_a_protected_address_is_not_cut_off(self):
        forms = ("64:ff9b::a09:202", "2002:a09:202::1")
        for form in forms:
            self.network.inside.ip("address", "add", f"{form}/128", "dev", "eth", "nodad")
            run(IP, "-6", "route", "replace", f"{form}/128", "via", IN6)
        manager = self.manager("--never", IN)
        for form in forms:
            self.assertEqual(REFUSED, manager.ask(f"ipv6 victim addr {form}"))
            receiver = self.socket_in(self.network.inside, socket.SOCK_DGRAM, form, PORT)
            sender = self.socket_in(self.network.outside, socket.SOCK_DGRAM, OUT6)
            sender.sendto(b"passes", (form, PORT))
            self.assertEqual(b"passes", receiver.recv(100))

    # --- what others do meanwhile -----------------------------------------------------------------

    def test_a_rule_holds_again_after_the_ruleset_was_flushed(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT_TOO}"))
        run(NFT, "flush ruleset; add table inet filter; add chain inet filter theirs; "
                 "add rule inet filter theirs ip saddr 192.0.2.1 accept")
        self.assertEqual([True, True], self.forwarded())
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual([False, True], self.forwarded())
        self.assertEqual(2, manager.errors().count("somebody else has removed the table"))
        manager.stop()
        self.assertIn("secmgr: 1 rule in force", manager.errors())

    def test_a_rule_holds_again_after_the_table_was_emptied_or_deleted(self):
        manager = self.manager()
        for harm in ("flush table inet tarn", "delete table inet tarn",
                     "flush chain inet tarn prerouting", "flush set inet tarn ip_saddr",
                     "add table inet tarn { flags dormant; }",
                     "delete element inet tarn ip_saddr { 10.9.1.2 }",
                     "delete table inet tarn; add table inet tarn"):
            self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
            self.assertEqual([False, True], self.forwarded(), harm)
            run(NFT, harm)
            self.assertEqual([True, True], self.forwarded(), harm)
            self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
            self.assertEqual([False, True], self.forwarded(), harm)

    def test_only_what_the_kernel_has_is_shown(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT_TOO} proto 47 counter 5b"))
        self.assertEqual(ADDED, manager.ask(f"ipv6 victim addr {IN6} icmpv6 type 128 code 0"))
        run(NFT, f"delete element inet tarn ip_saddr {{ {OUT} }}")
        manager.stop()
        self.assertIn("secmgr: 2 rules in force", manager.errors())
        self.assertIn(f"(somebody else has removed it): SID 1  ip intruder addr {OUT} ",
                      manager.errors())

    def test_a_kernel_that_does_not_answer_makes_a_refusal(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        os.kill(manager.worker(), signal.SIGSTOP)
        start = time.monotonic()
        self.assertEqual(REFUSED, manager.ask(f"ip intruder addr {OUT_TOO}"))
        self.assertLess(time.monotonic() - start, 3.0, "the daemon waits for five seconds")
        self.assertEqual([False, True], self.forwarded())
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT_TOO}"))
        self.assertEqual([False, False], self.forwarded())

    def test_an_address_that_becomes_the_hosts_own_is_reachable_again(self):
        mine, mine6 = "10.9.1.77", "2001:db8:1::77"
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip victim addr {mine}"))
        self.assertEqual(ADDED, manager.ask(f"ipv6 victim addr {mine6}"))
        run(IP, "address", "add", f"{mine}/24", "dev", "out")
        self.addCleanup(run, IP, "address", "delete", f"{mine}/24", "dev", "out")
        run(IP, "address", "add", f"{mine6}/64", "dev", "out", "nodad")
        self.addCleanup(run, IP, "address", "delete", f"{mine6}/64", "dev", "out")
        wait_for(lambda: manager.errors().count("no longer in force") == 2, "the rules to end")
        for address, source in ((mine, OUT), (mine6, OUT6)):
            receiver = self.socket_in(None, socket.SOCK_DGRAM, address, PORT)
            sender = self.socket_in(self.network.outside, socket.SOCK_DGRAM, source)
            sender.sendto(b"arrives", (address, PORT))
            self.assertEqual(b"arrives", receiver.recv(100))
            word = "ipv6" if ":" in address else "ip"
            self.assertEqual(REFUSED, manager.ask(f"{word} victim addr {address}"))

    def test_a_hangup_reads_the_lists_again(self):
        never = Path("/var/tmp/never")
        never.write_text("", encoding="utf-8")
        manager = self.manager("--never-file", str(never))
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual([False, True], self.forwarded())
        never.write_text(f"{OUT}\n", encoding="utf-8")
        manager.hang_up()
        wait_for(lambda: "the lists were read again" in manager.errors(), "the lists")
        self.assertEqual([True, True], self.forwarded())
        self.assertEqual(REFUSED, manager.ask(f"ip intruder addr {OUT}"))
        never.write_text("nonsense\n", encoding="utf-8")
        manager.hang_up()
        wait_for(lambda: "the lists stay as they were" in manager.errors(), "the refusal")
        self.assertEqual(REFUSED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual(0, manager.stop()[0])

    def test_a_sandbox_leaves_the_tables_of_the_machine_alone(self):
        command = [os.environ["TARNCTL_BINARY"], "secmgr", "--nft", "--timeout", "0.1"]
        for words, status in ((command, 1), (["--net", *command], 0),
                              (["unshare", "--net", *command], 0)):
            result = subprocess.run([SANDBOX, *words], check=False, capture_output=True, text=True)
            self.assertEqual(status, result.returncode, result.stderr)
            self.assertEqual(status, result.stderr.count("call scripts/sandbox with --net"))
            self.assertNotIn("inet tarn", run(NFT, "list tables"))

    def test_a_limit_of_rules_is_kept(self):
        manager = self.manager("--max-rules", "2")
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}"))
        self.assertEqual(ADDED, manager.ask("ip intruder addr 192.0.2.9"))
        self.assertEqual(REFUSED, manager.ask(f"ip intruder addr {OUT_TOO}"))
        self.assertEqual([False, True], self.forwarded())
        self.assertIn("the limit of 2 rules in force is reached (--max-rules)", manager.stop()[1])

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

    def test_a_rule_takes_a_fraction_of_the_time_of_a_run_of_nft(self):
        run(NFT, "add table inet timed; add set inet timed s { type ipv4_addr; }")
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask("ip intruder addr 192.0.2.1"), "the set is made")

        def shortest(act):
            times = []
            for host in range(1, 40):
                began = time.monotonic()
                act(f"198.51.100.{host}")
                times.append(time.monotonic() - began)
            return min(times)

        asked = shortest(lambda address: manager.ask(f"ip intruder addr {address}"))
        ran = shortest(lambda address: run(NFT, f"add element inet timed s {{ {address} }}"))
        # It is a tenth or less, but more under a sanitizer.
        self.assertLess(3 * asked, ran)

    def test_an_end_far_away_is_taken(self):
        manager = self.manager()
        self.assertEqual(ADDED, manager.ask(f"ip intruder addr {OUT}", 200 * 365 * 86400))


if __name__ == "__main__":
    main()
