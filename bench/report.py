#!/usr/bin/python3
"""Runs the benchmarks of a build and prints their ratios, each beside its bound.

scripts/bench builds the release and calls this. The exit status is 1 when a bound is missed.
"""

import argparse
import json
import os
import subprocess
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
SINGLE = ("^(TwoCopies/512|WriteAndRead/512|FindHit/10000|LogSuppressed.*|LoadEventFile/.*)"
          "(_median)?$")
FLAT_KB = 256  # growth that the allocator's own pages may take


class Page:
    """Lines of a figure, what bounds it, and the verdict."""

    def __init__(self):
        self.missed = False

    def line(self, what, value, bound, holds):
        self.missed |= not holds
        print(f"{what:<58} {value:>14}   {bound:<10} {'ok' if holds else 'MISSED'}")

    def figure(self, what, value):
        print(f"{what:<58} {value:>14}")


def medians(build, repetitions):
    """Name to result of the single benchmarks; times are of the processor, in nanoseconds."""
    output = subprocess.run(
        [build / "bench" / "tarn_bench", f"--benchmark_filter={SINGLE}", "--benchmark_format=json",
         f"--benchmark_repetitions={repetitions}", "--benchmark_report_aggregates_only=true"],
        check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    results = {}
    for result in json.loads(output)["benchmarks"]:
        if result["aggregate_name"] == "median":
            result["ns"] = result["cpu_time"] * scale[result["time_unit"]]
            results[result["run_name"]] = result
    return results


def end_to_end(build, what, *arguments):
    environment = dict(os.environ, TARN_BINARY=str(build / "src" / "tarn"),
                       TARN_END_TO_END=str(build / "bench" / "tarn_end_to_end"),
                       PYTHONDONTWRITEBYTECODE="1")
    output = subprocess.run(
        [TREE / "scripts" / "sandbox", "--keep", str(build), sys.executable,
         str(TREE / "bench" / "end_to_end.py"), what, *map(str, arguments)],
        check=True, env=environment, stdout=subprocess.PIPE).stdout
    return json.loads(output)


def report_single(page, results):
    copies, ring = results["TwoCopies/512"]["ns"], results["WriteAndRead/512"]["ns"]
    page.line("ring: two copies of 512 bytes, over write and read", f"{copies / ring:.2f}",
              ">= 0.5", copies >= 0.5 * ring)
    find = results["FindHit/10000"]
    page.line(f"table: allocations of a lookup among 10,000 ({find['ns']:.0f} ns)",
              f"{find['allocations']:.0f}", "0", find["allocations"] == 0)
    for name, result in results.items():
        if name.startswith("LogSuppressed"):
            page.line(f"log: {name}", f"{result['ns']:.2f} ns", "< 2 ns", result["ns"] < 2)
        if name.startswith("LoadEventFile"):
            page.line(f"configuration: {name}", f"{result['ns'] / 1e9:.3f} s", "< 1 s",
                      result["ns"] < 1e9)


def report_speed(page, speed):
    for key, what in (("wall", "records/s"), ("processor", "records/s of processor time")):
        for name in ("daemon", "bare"):
            page.figure(f"end to end: {name}, {what}", f"{speed[key][name]:.0f}")
    share = min(speed["share"]["daemon"], speed["share"]["bare"])
    page.figure("end to end: least share of CPU 0 that a reader had", f"{share:.2f}")
    page.line("end to end: daemon over bare loop, processor time",
              f"{speed['processor']['ratio']:.2f}", ">= 0.7", speed["processor"]["ratio"] >= 0.7)
    if share >= 0.8:
        page.line("end to end: daemon over bare loop, wall time", f"{speed['wall']['ratio']:.2f}",
                  ">= 0.7", speed["wall"]["ratio"] >= 0.7)
    else:
        # The readers waited for the machine or for the sensor, so this says nothing of them.
        page.figure("end to end: daemon over bare loop, wall time (disturbed)",
                    f"{speed['wall']['ratio']:.2f}")


def report_plain(page, speed):
    """The same with the records of kinds that the daemon does not take, and logs a line for each."""
    page.figure("end to end: the same with unknown extra data, processor time",
                f"{speed['processor']['ratio']:.2f}")


def report_memory(page, memory):
    growth = memory["last_kb"] - memory["first_kb"]
    page.figure(f"memory: resident after warm-up, of {memory['alerts']} alerts",
                f"{memory['first_kb']} kB")
    page.figure("memory: resident at the end", f"{memory['last_kb']} kB")
    page.line("memory: growth", f"{growth} kB", f"<= {FLAT_KB} kB", growth <= FLAT_KB)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=Path, required=True, help="a build directory")
    parser.add_argument("--repetitions", type=int, default=7)
    parser.add_argument("--alerts", type=int, default=302000,
                        help="alerts of the memory run; 10000000 is the full one")
    options = parser.parse_args()
    build = options.build.resolve()
    page = Page()
    report_single(page, medians(build, options.repetitions))
    report_speed(page, end_to_end(build, "speed", "--repetitions", options.repetitions))
    report_plain(page, end_to_end(build, "speed", "--repetitions", options.repetitions,
                                  "--feed", "plain"))
    report_memory(page, end_to_end(build, "memory", "--alerts", options.alerts))
    sys.exit(1 if page.missed else 0)


if __name__ == "__main__":
    main()
