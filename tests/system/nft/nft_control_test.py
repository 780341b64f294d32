#!/usr/bin/env python3
"""`tarnctl quarantine` and the `tarnctl secmgr --nft --control` that carries its orders out."""

import json
import os
import subprocess
from pathlib import Path

try:
    import jsonschema
except ImportError:
    jsonschema = None

from network import OUT, OUT_TOO, SENSOR, NetworkTest, main

SCHEMA = Path(__file__).resolve().parents[3] / "docs" / "schemas" / "quarantine.json"
CONTROL = "/var/tmp/quarantine.sock"
STATE = "/var/tmp/quarantine"


class NftControl(NetworkTest):
    def keeper(self, *options):
        return self.manager("--control", CONTROL, *options)

    def quarantine(self, *words, status=0):
        result = subprocess.run([os.environ["TARNCTL_BINARY"], "quarantine", *words, "--control",
                                 CONTROL], check=False, capture_output=True, text=True,
                                stdin=subprocess.DEVNULL)
        self.assertEqual(status, result.returncode, result.stderr)
        return result.stdout if status == 0 else result.stderr

    def answer(self, *words):
        """The answer as JSON, which is what the schema says."""
        answer = json.loads(self.quarantine(*words, "--json"))
        if jsonschema is not None:
            schema = json.loads(SCHEMA.read_text(encoding="utf-8"))
            jsonschema.Draft202012Validator(schema).validate(answer)
        return answer

    def test_an_address_is_cut_off_and_let_through_again(self):
        manager = self.keeper()
        self.assertIn("in force for", self.quarantine("add", OUT, "--for", "30m", "--why", "scans"))
        self.assertEqual([False, True], self.forwarded())
        self.assertIn(f"{OUT} is cut off, by 1 rule", self.quarantine("test", OUT))
        self.assertIn(f"{OUT_TOO} is not cut off", self.quarantine("test", OUT_TOO))
        rule, = self.answer("list")["rules"]
        self.assertEqual((1, 36, "scans", None),
                         (rule["packets"], rule["bytes"], rule["why"], rule["issueId"]))
        self.assertIn("1 packet dropped  by hand: scans  ip intruder", self.quarantine("list"))
        self.assertEqual([OUT], [ended["intruder"]
                                 for ended in self.answer("remove", OUT)["removed"]])
        self.assertEqual([True, True], self.forwarded())
        self.assertIn("put into force by user 0", manager.errors())
        self.assertIn("no longer in force (by user 0)", manager.errors())

    def test_packets_of_each_rule_are_counted(self):
        manager = self.keeper()
        manager.ask(f"ip intruder addr {OUT}")
        manager.ask(f"ip intruder addr {OUT_TOO} counter 100000b")
        self.forwarded((OUT,) * 5 + (OUT_TOO,) * 3)
        first, second = self.answer("list")["rules"]
        self.assertEqual((5, 180, 1), (first["packets"], first["bytes"], first["issueId"]))
        self.assertIsNone(second["packets"], "the kernel tells the limit only")
        self.answer("add", OUT, "--for", "1d")
        self.forwarded()
        self.assertEqual(1, self.answer("list")["rules"][0]["packets"], "a later end counts anew")

    def test_a_test_names_what_protects_an_address(self):
        never = Path("/var/tmp/never")
        never.write_text("# ours\n10.9.2.0/24\n", encoding="utf-8")
        self.keeper("--never-file", str(never))
        self.assertEqual({"entry": "10.9.2.0/24", "source": f"{never}, line 2"},
                         self.answer("test", "10.9.2.77")["protectedBy"])
        self.assertEqual("an address of this host",
                         self.answer("test", SENSOR)["protectedBy"]["source"])
        self.assertIn("is never quarantined", self.quarantine("add", SENSOR, status=1))
        self.assertEqual([], self.answer("list")["rules"])

    def test_orders_outlive_the_manager(self):
        manager = self.keeper("--state", STATE)
        self.quarantine("add", OUT, "--why", "scans")
        self.quarantine("add", OUT_TOO)
        self.quarantine("remove", OUT_TOO)
        manager.kill()
        manager = self.keeper("--state", STATE)
        rule, = self.answer("list")["rules"]
        self.assertEqual((OUT, "scans"), (rule["intruder"], rule["why"]))
        self.assertEqual([False, True], self.forwarded())
        self.assertIn("use --yes", self.quarantine("flush", status=1))
        self.assertEqual(1, len(self.answer("flush", "--yes")["removed"]))
        self.assertEqual([True, True], self.forwarded())
        manager.kill()
        self.keeper("--state", STATE)
        self.assertEqual([], self.answer("list")["rules"])

    def test_a_dry_run_says_what_would_be(self):
        self.keeper("--dry-run")
        self.quarantine("add", OUT)
        self.assertIn(f"{OUT} would be cut off", self.quarantine("test", OUT))
        self.assertIn("nothing is cut off", self.quarantine("list"))
        self.assertFalse(self.answer("list")["cutsOff"])
        self.assertEqual([True, True], self.forwarded())

    def test_without_a_service_there_is_a_hint(self):
        self.assertIn("no quarantine is there; start tarnctl secmgr", self.quarantine("list",
                                                                                    status=1))
        manager = self.keeper()
        second = subprocess.run([os.environ["TARNCTL_BINARY"], "secmgr", "--control", CONTROL],
                                check=False, capture_output=True, text=True)
        self.assertEqual(1, second.returncode)
        self.assertEqual(0, manager.stop()[0])
        self.assertFalse(Path(CONTROL).exists())


if __name__ == "__main__":
    main()
