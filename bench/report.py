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
SINGLE = ("^(TwoCopies/(64|512|4096)|WriteAndRead/(64|512|4096)|Find(Hit|InMap)/[15]0000|Log.*"
          "|LoadEventFile/.*|Report(sIntoFile|sAsJson|LinesAlone))(_median)?$")
RINGS = {64: 0.6, 512: 0.8, 4096: 0.9}  # bytes of a message, and the share of two bare copies
LOG_LINE_NS = 700
SUPPRESSED_NS = 1
LOAD_MS = 30
# Reports a second of the processor: into a file as EVE JSON, and as objects with all their fields.
REPORTS = {"ReportsIntoFile": 200000, "ReportsAsJson": 150000}
LEVEL_5_NS = 750  # of which 50 for the alert itself
LEVEL_5_RECORDS = 20000
FLAT_KB = 256  # growth that the allocator's own pages may take
BUSY = 0.8  # share of a processor with which a reader's wall time counts
# The least ratio to the loop that calls select always, from the pipe as it comes and from a full
# one, and to the loop that calls it for an empty pipe.
SPEEDS = {"single": (1.25, 1.4, 0.65), "one-cpu": (1.15, 1.15, 0), "two-cpus": (1.15, 1.15, 0)}
PLAIN = 0.5  # with the records that the daemon does not take, and a full pipe
START_MS = {"single": 5, "one-cpu": 8}
RELOAD_MS = {"reload": 1, "changed": 3}


class Page:
    """Lines of a figure, what bounds it, and the verdict."""

    def __init__(self):
        self.missed = False

    def line(self, what, value, bound, holds):
        self.missed |= not holds
        verdict = "ok" if holds else "MISSED"
        print(f"{what:<74} {value:>22}   {bound:<10} {verdict}", flush=True)

    def figure(self, what, value):
        print(f"{what:<74} {value:>22}", flush=True)


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
    for size, least in RINGS.items():
        ratio = results[f"TwoCopies/{size}"]["ns"] / results[f"WriteAndRead/{size}"]["ns"]
        page.line(f"ring: two copies of {size} bytes, over write and read", f"{ratio:.2f}",
                  f">= {least}", ratio >= least)
    find = results["FindHit/50000"]
    page.line("table: allocations of a lookup", f"{find['allocations']:.0f}", "0",
              find["allocations"] == 0)
    ratio = find["ns"] / results["FindInMap/50000"]["ns"]
    page.line(f"table: lookup among 50,000 ({find['ns']:.0f} ns), over unordered_map",
              f"{ratio:.2f}", "<= 1.5", ratio <= 1.5)
    for name, result in results.items():
        if name.startswith("LogSuppressed"):
            page.line(f"log: {name}", f"{result['ns']:.2f} ns", f"<= {SUPPRESSED_NS} ns",
                      result["ns"] <= SUPPRESSED_NS)
        if name.startswith("LogFileLine"):
            bare = results["LogBareWrite"]["ns"]
            page.line(f"log: a line in the file (its write alone: {bare:.0f} ns)",
                      f"{result['ns']:.0f} ns", f"<= {LOG_LINE_NS} ns",
                      result["ns"] <= LOG_LINE_NS)
        if name.startswith("LoadEventFile"):
            page.line(f"configuration: {name}", f"{result['ns'] / 1e6:.0f} ms",
                      f"<= {LOAD_MS} ms", result["ns"] <= LOAD_MS * 1e6)


def report_reports(page, results):
    """What becomes of reports in tarnctl, if that was built."""
    if "ReportsIntoFile" not in results:
        return
    words = {"ReportsIntoFile": "reports: into a file, without packets, of a second",
             "ReportsAsJson": "reports: as JSON with packets, of a second"}
    for name, least in REPORTS.items():
        rate = results[name]["items_per_second"]
        page.line(words[name], f"{rate:.0f}", f">= {least}", rate >= least)
    ratio = results["ReportsIntoFile"]["ns"] / results["ReportLinesAlone"]["ns"]
    page.figure("reports: into a file, over the write of the lines alone", f"{ratio:.1f}")


def text_of(ratio):
    return f"{ratio['median']:.2f} ({ratio['least']:.2f} to {ratio['most']:.2f})"


def report_ratio(page, what, speed, key, bare, least):
    """A ratio of wall time is bound only when both had their processor: otherwise they waited for
    the machine or for the sensor, and it says nothing of them."""
    ratio = speed[key]["over " + bare]
    share = min(speed["share"][name]["median"] for name in ("daemon", bare))
    if key == "wall" and share < BUSY:
        page.figure(f"{what}, wall time (share {share:.2f}: disturbed)", text_of(ratio))
    else:
        words = {"wall": "wall time", "processor": "processor time"}[key]
        page.line(f"{what}, {words}", text_of(ratio), f">= {least}", ratio["median"] >= least)


def report_speed(page, mode, speed, full):
    name = {"single": "one thread", "one-cpu": "two threads, one CPU",
            "two-cpus": "two threads, two CPUs"}[mode]
    stream, burst, empty = SPEEDS[mode]
    page.figure(f"{name}: daemon, records/s of processor time",
                f"{full['processor']['daemon']['median']:.0f}")
    report_ratio(page, f"{name}: stream, over bare loop", speed, "wall", "bare", stream)
    report_ratio(page, f"{name}: full pipe, over bare loop", full, "wall", "bare", burst)
    if mode == "single":  # two threads spend more than the one that reads
        report_ratio(page, f"{name}: full pipe, over bare loop", full, "processor", "bare", 1.1)
        report_ratio(page, f"{name}: full pipe, over loop with few selects", full, "wall",
                     "bare-empty", empty)
    lost = speed["lost"] + full["lost"]
    page.line(f"{name}: alerts lost of {speed['alerts'] + full['alerts']}", f"{lost}", "0",
              lost == 0)


def report_packets(page, speed):
    """Another stream: alerts and their packets, without extra data."""
    report_ratio(page, "no extra data: full pipe, over bare loop", speed, "processor", "bare", 1.0)
    page.line(f"no extra data: alerts lost of {speed['alerts']}", f"{speed['lost']}", "0",
              speed["lost"] == 0)


def report_level_5(page, speed):
    """A line is a write, and few writes are something else; so this has all that is between two
    lines, too."""
    median = speed["line_ns"]["median"]
    page.line("level 5: processor time of the daemon, over its lines", f"{median:.0f} ns",
              f"<= {LEVEL_5_NS} ns", median <= LEVEL_5_NS)
    page.line(f"level 5: alerts lost of {speed['alerts']}", f"{speed['lost']}", "0",
              speed["lost"] == 0)


def report_plain(page, speed):
    """The same with the records of kinds that the daemon does not take, and logs a line for each."""
    report_ratio(page, "unknown extra data: over bare loop", speed, "processor", "bare", PLAIN)
    page.line(f"unknown extra data: alerts lost of {speed['alerts']}", f"{speed['lost']}", "0",
              speed["lost"] == 0)


def report_start(page, mode, times):
    """The shortest of the times: whatever else the machine does makes them longer only."""
    def line(what, key, limit):
        shortest = times[key]["least"] * 1e3
        page.line(what, f"{shortest:.1f} ms", f"<= {limit} ms", shortest <= limit)

    line(f"start to both FIFOs, {mode}", "start", START_MS[mode])
    if mode == "single":
        for key, limit in RELOAD_MS.items():
            line(f"hangup to reader loop, {key}", key, limit)


def report_memory(page, memory):
    lost = memory["alerts"] - memory["reports"]
    page.line(f"memory: alerts lost of {memory['alerts']}", f"{lost}", "0", lost == 0)
    growth = memory["last_kb"] - memory["first_kb"]
    page.figure(f"memory: resident after warm-up, of {memory['alerts']} alerts",
                f"{memory['first_kb']} kB")
    page.figure("memory: resident at the end", f"{memory['last_kb']} kB")
    page.line("memory: growth", f"{growth} kB", f"<= {FLAT_KB} kB", growth <= FLAT_KB)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=Path, required=True, help="a build directory")
    parser.add_argument("--repetitions", type=int, default=5)
    parser.add_argument("--alerts", type=int, default=302000,
                        help="alerts of the memory run; 10000000 is the full one")
    options = parser.parse_args()
    build = options.build.resolve()
    page = Page()
    singles = medians(build, options.repetitions)
    report_single(page, singles)
    report_reports(page, singles)
    repetitions = ["--repetitions", options.repetitions]
    for mode in SPEEDS:
        report_speed(page, mode, *(
            end_to_end(build, "speed", *repetitions, "--mode", mode, *bursts)
            for bursts in ((), ("--bursts",))))
    report_plain(page, end_to_end(build, "speed", *repetitions, "--bursts", "--feed", "plain"))
    report_packets(page, end_to_end(build, "speed", *repetitions, "--bursts", "--feed", "packets"))
    report_level_5(page, end_to_end(build, "speed", *repetitions, "--level", 5,
                                    "--records", LEVEL_5_RECORDS))
    for mode in START_MS:
        report_start(page, mode, end_to_end(build, "start", *repetitions, "--mode", mode,
                                            "--level", 5))
    report_memory(page, end_to_end(build, "memory", "--alerts", options.alerts))
    sys.exit(1 if page.missed else 0)


if __name__ == "__main__":
    main()
