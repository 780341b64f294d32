#!/usr/bin/env python3
"""What `tarnctl import` makes of a sensor's rules is what `tarnctl check --rules` asks for, and the
daemon starts with it. The rules are written as the community writes them, for both generations of
Snort."""

import json
import os
import shutil
import signal
import subprocess
import tempfile
import unittest
from pathlib import Path

import harness
from harness import CONFIG, EVENT_CONFIG, PATIENCE, TREE
from unified2 import build_alert

TARNCTL = os.environ["TARNCTL_BINARY"]

SNORT_2 = r'''# Copyright and licence, as a rule set begins.
#-----------
# EXAMPLE RULES
#-----------

alert tcp $EXTERNAL_NET any -> $HOME_NET $HTTP_PORTS (msg:"SERVER-WEBAPP \"quoted\" name\; and: a colon"; flow:to_server,established; content:"/cgi-bin/x|3B|.cgi"; fast_pattern:only; http_uri; pcre:"/sid:9\d{3};/U"; metadata:policy balanced-ips drop, ruleset community, service http; reference:url,example.org/?sid=1;classtype:web-application-attack; sid:2001; rev:5;)
alert udp $HOME_NET any -> any 53 ( \
    msg:"PROTOCOL-DNS over three lines"; \
    content:"|01 00|"; classtype:misc-activity; sid:2002; rev:1; )
# alert tcp any any -> any any (msg:"DELETED disabled"; sid:2003; rev:2;)
#alert tcp any any -> any any (msg:"DELETED disabled without a blank"; sid:2004; rev:2;)
alert tcp any any -> any any (msg:"no sid at all"; content:"x";)
alert icmp any any <> any any (msg:"revision 1"; sid:2005; rev:1; priority:3;)
alert icmp any any <> any any (msg:"revision 7"; sid:2005; rev:7; priority:1;)
alert icmp any any <> any any (msg:"revision 3"; sid:2005; rev:3; priority:2;)
pass tcp any any -> any any (msg:"never alerts"; sid:2006; rev:1;)
drop tcp any any -> any any (msg:"caf\xe9 dropped"; sid:2007; rev:1; classtype:attempted-admin;)
alert ( msg: "DECODE_NOT_IPV4_DGRAM"; sid: 1; gid: 116; rev: 1; metadata: rule-type decode; classtype:protocol-command-decode; )
'''.replace(r"\xe9", "\u00e9")

SNORT_3 = r'''alert http
(
    msg:"SERVER-OTHER a rule without a header";
    flow:to_server,established;
    http_uri;
    content:"/a;b",fast_pattern,nocase;
    content:"\"; sid:9999; \"";
    service:http;
    classtype:trojan-activity;
    sid:300001; rev:3;
)
/* alert tcp any any -> any any ( msg:"in a comment"; sid:300002; ) */
alert tcp $EXTERNAL_NET any -> $HOME_NET 80
(
    # a comment within a rule
    msg:"SERVER-OTHER with a comment";
    rem:"a remark with sid:9998; in it";
    metadata:policy max-detect-ips drop;
    sid:300003; rev:1;
)
alert file ( msg:"a file rule"; file_data; content:"MZ"; sid:300004; rev:1; enable:no; )
alert ( gid:112; sid:1; rev:1; msg:"(arp_spoof) unicast ARP request"; )
# alert tcp any any -> any any ( msg:"disabled"; sid:300005; rev:1; )
'''


class Import(harness.DaemonTest):
    def setUp(self):
        super().setUp()
        shutil.copy(TREE / "samples" / "tarn.conf", CONFIG)
        EVENT_CONFIG.unlink(missing_ok=True)
        self.folder = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)

    def run_tarnctl(self, *words, status=0):
        done = subprocess.run([TARNCTL, *map(str, words)], capture_output=True, text=True,
                              check=False, timeout=PATIENCE)
        self.assertEqual(status, done.returncode, done.stdout + done.stderr)
        return done

    def rules(self, name, text):
        path = self.folder / name
        path.write_text(text, encoding="utf-8")
        return path

    def entries(self):
        """The entries in force: id to severity and name."""
        answer = json.loads(self.run_tarnctl("check", "--json", "--summary", "--no-places").stdout)
        return {entry["id"]: (entry["severity"], entry["name"]) for entry in answer["entries"]}

    def assert_silent(self, *paths):
        words = [word for path in paths for word in ("--rules", path)]
        done = self.run_tarnctl("check", "--strict", *words)
        self.assertRegex(done.stdout, r"\A0 errors, 0 warnings in \d+ settings and \d+ entr(y|ies)\n\Z")
        self.assertEqual("", done.stderr)

    def test_rules_of_snort_2(self):
        path = self.rules("community.rules", SNORT_2)
        done = self.run_tarnctl("import", path)
        self.assertIn(f"{path}:12: the rule has no sid\n", done.stderr)
        self.assertIn(": 5 entries added, 0 removed, 0 kept\n", done.stderr)
        self.assertEqual({1: ("low", "DECODE_NOT_IPV4_DGRAM"),
                          2001: ("high", 'SERVER-WEBAPP "quoted" name; and: a colon'),
                          2002: ("low", "PROTOCOL-DNS over three lines"),
                          2005: ("high", "revision 7"),
                          2007: ("high", "caf\u00e9 dropped")}, self.entries())
        self.assert_silent(path)
        self.assertIn(f"# tarnctl import: 1:2002 at {path}:7\n",
                      EVENT_CONFIG.read_text(encoding="utf-8"))

    def test_rules_of_snort_3(self):
        path = self.rules("snort3-community.rules", SNORT_3)
        self.run_tarnctl("import", path)
        self.assertEqual({1: ("low", "(arp_spoof) unicast ARP request"),
                          300001: ("high", "SERVER-OTHER a rule without a header"),
                          300003: ("low", "SERVER-OTHER with a comment")}, self.entries())
        self.assert_silent(path)

    def test_both_with_maps_and_a_configuration(self):
        community = self.rules("community.rules", SNORT_2)
        snort3 = self.rules("snort3.rules", SNORT_3)
        sid_map = self.rules("sid-msg.map", "2001 || of the map || url,example.org\n"
                                            "400001 || only in the map\n")
        gen_map = self.rules("gen-msg.map", "129 || 12 || TCP Small Segment\n")
        done = self.run_tarnctl("import", self.folder)
        self.assertIn("signature 1 is used by generators 112, 116, which share one entry\n",
                      done.stderr)
        entries = self.entries()
        self.assertEqual(("low", "only in the map"), entries[400001])
        self.assertEqual(("low", "TCP Small Segment"), entries[12])
        self.assertEqual('SERVER-WEBAPP "quoted" name; and: a colon', entries[2001][1])
        # The shared signature is a warning, so it alone keeps a strict check from being silent.
        done = self.run_tarnctl("check", "--rules", self.folder)
        self.assertIn("[id-under-two-generators]", done.stdout)
        self.assertIn("0 errors, 1 warning in", done.stdout)
        for path in (snort3, sid_map, gen_map, community):
            path.unlink()
        configuration = self.rules("snort.conf", "var RULE_PATH rules\n"
                                                 "include $RULE_PATH/local.rules\n"
                                                 "output unified2: filename alerts.fifo, limit 128, "
                                                 "nostamp, vlan_event_types\n")
        (self.folder / "rules").mkdir()
        self.rules("rules/local.rules", "alert tcp any any -> any any (msg:\"local\"; sid:50;)\n")
        self.run_tarnctl("import", "--prune", configuration)
        self.assertEqual({50: ("low", "local")}, self.entries())
        self.assert_silent(configuration)

    def test_the_daemon_starts_with_it_and_takes_a_second_run_at_a_hangup(self):
        path = self.rules("community.rules", SNORT_2)
        self.run_tarnctl("import", path)
        CONFIG.write_text("tarn.log.level = 5\n", encoding="utf-8")
        daemon = self.daemon().ready()
        first = EVENT_CONFIG.read_bytes()
        self.run_tarnctl("import", path)
        self.assertEqual(first, EVENT_CONFIG.read_bytes())
        self.rules("community.rules",
                   SNORT_2 + 'alert tcp any any -> any any (msg:"new"; sid:2999;)\n')
        self.run_tarnctl("import", path)
        self.assertTrue(EVENT_CONFIG.read_bytes().startswith(first))
        self.assert_silent(path)
        daemon.send(signal.SIGHUP)
        daemon.ready(2)
        self.feeder().write(build_alert(1, 2999))
        (report,) = self.crm.collect(1)
        self.assertIn(b"new", report)
        self.assertEqual(0, daemon.stop())


if __name__ == "__main__":
    harness.main()
