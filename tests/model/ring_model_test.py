#!/usr/bin/env python3
"""Explores every interleaving of the model of the ring, and compares what holds with what should."""

import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

MODEL = Path(__file__).resolve().parent / "ring.pml"
KILLS = ["WRITER_DIES", "READER_DIES"]


class RingModelTest(unittest.TestCase):
    def explore(self, *macros):
        """What the verifier says of the model with these macros: its violated assertion, or nothing."""
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["spin", "-a", *(f"-D{macro}" for macro in macros), MODEL], cwd=folder,
                           check=True, capture_output=True)
            subprocess.run(["cc", "-O2", "-DSAFETY", "-DCOLLAPSE", "-o", "pan", "pan.c"],
                           cwd=folder, check=True, capture_output=True)
            said = subprocess.run(["./pan", "-m1000000", "-n"], cwd=folder, check=True,
                                  capture_output=True, text=True).stdout
        self.assertNotIn("max search depth too small", said)
        self.assertNotIn("out of memory", said)
        self.assertIn("State-vector", said, "the verifier came to no end")
        violated = [line for line in said.splitlines()
                    if "assertion violated" in line or "invalid end state" in line]
        return violated[0] if violated and "errors: 0" not in said else ""

    def assert_holds(self, *macros):
        self.assertEqual("", self.explore(*macros))

    def assert_fails(self, text, *macros):
        self.assertIn(text, self.explore(*macros))

    def test_every_message_arrives_whole_and_once(self):
        self.assert_holds()

    def test_a_killed_writer_costs_nothing(self):
        self.assert_holds("WRITER_DIES")

    def test_a_reader_killed_before_its_first_store_costs_nothing(self):
        self.assert_holds(*KILLS)

    def test_a_reader_killed_between_its_stores_is_the_only_one_that_is_stuck(self):
        self.assert_holds(*KILLS, "READER_DIES_INSIDE")
        self.assert_holds(*KILLS, "FIND_STUCK")
        self.assert_fails("assertion violated 0", *KILLS, "READER_DIES_INSIDE", "FIND_STUCK")

    def test_a_stuck_ring_is_emptied_while_the_writer_runs(self):
        self.assert_holds(*KILLS, "READER_DIES_INSIDE", "REPAIR")

    def test_a_reset_of_sides_killed_anywhere_makes_a_sound_ring(self):
        self.assert_holds(*KILLS, "READER_DIES_INSIDE", "REPAIR", "DEATHS=1", "MESSAGES=4", "RESET")

    def test_a_reset_that_was_killed_lets_old_bytes_pass_for_messages(self):
        self.assert_fails("assertion violated", "RESET", "RESET_DIES", "STRICT")

    def test_a_reset_that_was_killed_is_done_again(self):
        self.assert_holds("RESET", "RESET_DIES", "RESET_AGAIN", "STRICT")

    def test_a_message_of_no_bytes_leaves_the_reader_stuck(self):
        self.assert_fails("assertion violated", "EMPTY_MESSAGE")

    def test_the_terminator_is_a_second_guard_only(self):
        self.assert_holds(*KILLS, "NO_TERMINATOR")

    def test_an_index_stored_before_its_message_is_noticed(self):
        self.assert_fails("assertion violated", "EARLY_INDEX")

    def test_a_message_that_fills_the_ring_is_noticed(self):
        self.assert_fails("assertion violated", "FULL_RING")

    def test_a_read_index_stored_before_the_length_is_zeroed_is_noticed(self):
        self.assert_fails("assertion violated", "INDEX_FIRST")


if __name__ == "__main__":
    sys.exit(unittest.main())
