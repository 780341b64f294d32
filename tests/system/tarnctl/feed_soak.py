#!/usr/bin/env python3
"""Counts what is lost and what comes twice between a sensor's spool and the CRM.

A sensor writes alerts that each have a second of their own into spool files that it rotates, a
feeder feeds a real daemon, and a CRM counts the reports of each alert, while the daemon and the
feeder are killed or the daemon is made to load its files again. It runs in scripts/sandbox:

  scripts/sandbox --keep BUILD env TARN_BINARY=... TARNCTL_BINARY=... PYTHONPATH=tests/system \\
      tests/system/tarnctl/feed_soak.py kills --alerts 1000000 --daemon-kills 200 --feeder-kills 200

The sub-commands: kills; reloads (tarnctl reload with a feeder); hangups (plain ones, with a feeder);
bare-hangups (plain ones, and a sensor that writes into the FIFO by itself); rate (feed beside
replay).
"""

import argparse
import json
import os
import random
import resource
import shutil
import signal
import statistics
import subprocess
import sys
import time
from pathlib import Path

import harness
from peers.crm import CrmReader, Entry
from unified2 import build_alert, build_packet

SPOOL = Path("/cache/spool")
BOOKMARK = Path("/cache/feed/bookmark")
SIGNATURE = 7
FIRST_SECOND = 1_000_000_000  # the second of alert 0; the second of a report is its number
START_TIME = 32 + 128  # where a message has it
PACKET = bytes(range(60))
PENDING = 128  # alerts that the daemon keeps for a second when no more come


class Sensor:
    """Writes alerts with their packets, some of them in pieces, and begins a new file now and then."""

    def __init__(self, total, per_file=20000):
        self.total = total
        self.written = 0
        self._per_file = per_file
        self._stamp = 1_700_000_000
        self._file = None
        self._rest = b""
        shutil.rmtree(SPOOL, ignore_errors=True)
        SPOOL.mkdir(parents=True)

    @staticmethod
    def group(number):
        return (build_alert(number & 0xFFFF, SIGNATURE, second=FIRST_SECOND + number)
                + build_packet(number & 0xFFFF, PACKET))

    def write_up_to(self, number):
        """Writes until so many alerts are out. Each call leaves the last record half-written."""
        number = min(number, self.total)
        while self.written < number:
            if self.written % self._per_file == 0:
                self._finish_file()
                self._stamp += 1
                self._file = open(SPOOL / f"u2.{self._stamp}", "wb", buffering=0)
            upto = min(number, (self.written // self._per_file + 1) * self._per_file, self.written + 500)
            data = self._rest + b"".join(map(self.group, range(self.written, upto)))
            cut = 30 if upto < self.total else 0
            self._rest = data[len(data) - cut:]
            self._file.write(data[:len(data) - cut])
            self.written = upto

    def _finish_file(self):
        if self._file is not None:
            self._file.write(self._rest)
            self._file.close()
        self._rest = b""

    def close(self):
        self._finish_file()
        self._file = None


class Count:
    """The reports of each alert."""

    def __init__(self, total, crm):
        self._crm = crm
        self.reports = bytearray(total)
        self.seen = 0  # alerts with a report
        self.doubled = 0  # reports beyond the first

    def take(self):
        while (message := self._crm.read()) is not None:
            self._crm.take_post()
            number = int.from_bytes(message[START_TIME:START_TIME + 8], "little") - FIRST_SECOND
            if self.reports[number] == 0:
                self.seen += 1
            else:
                self.doubled += 1
            self.reports[number] = min(255, self.reports[number] + 1)

    def missing(self):
        return self.reports.count(0)


class Run:
    """One daemon, one feeder, and what they are made to go through."""

    def __init__(self, total, single):
        self.total = total
        harness.write_config(level=2, debug__single=int(single))
        harness.write_events({SIGNATURE: Entry("Soak", 2, "rule", "DISPLAY:WithRaw")})
        BOOKMARK.parent.mkdir(parents=True, exist_ok=True)
        for path in BOOKMARK.parent.iterdir():
            path.unlink()
        self.crm = CrmReader()
        self.count = Count(total, self.crm)
        self.sensor = Sensor(total)
        self.daemon = self.feeder = None
        self.errors = open("/cache/feed/errors", "w+b")
        self.fed_again = 0

    def start_daemon(self):
        self.daemon = subprocess.Popen([os.environ["TARN_BINARY"]], stdin=subprocess.DEVNULL,
                                       stdout=self.errors, stderr=self.errors)

    def start_feeder(self, *arguments):
        self.feeder = subprocess.Popen(
            [os.environ["TARNCTL_BINARY"], "feed", str(SPOOL / "u2"), "--bookmark", str(BOOKMARK),
             "--json", *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=self.errors)

    @staticmethod
    def kill(process):
        process.kill()
        process.wait()
        if process.stdout:
            process.stdout.close()

    def pump(self, seconds=0.0, lead=20000):
        """Writes and counts for a time."""
        deadline = time.monotonic() + seconds
        while True:
            self.sensor.write_up_to(self.count.seen + lead)
            self.count.take()
            if time.monotonic() >= deadline:
                return
            time.sleep(0.001)

    def finish(self, seconds=120):
        """Waits for the last reports, and a while longer for those that should not come."""
        self.sensor.write_up_to(self.total)
        self.sensor.close()
        deadline = time.monotonic() + seconds
        while self.count.seen < self.total and time.monotonic() < deadline:
            self.count.take()
            time.sleep(0.005)
        self.pump(1.5)

    def end(self):
        if self.feeder and self.feeder.poll() is None:
            self.feeder.terminate()
            self.counters = json.loads(self.feeder.communicate(timeout=30)[0])
        if self.daemon and self.daemon.poll() is None:
            self.daemon.terminate()
            self.daemon.wait(30)
        self.errors.seek(0)
        self.told = self.errors.read().decode()
        self.errors.close()
        self.crm.close()

    def result(self, **more):
        return {"alerts": self.total, "lost": self.count.missing(), "doubled": self.count.doubled,
                **more}


def kills(options):
    """Kills daemon and feeder at random moments; some of them soon after another."""
    random.seed(options.seed)
    run = Run(options.alerts, options.single)
    started = time.monotonic()
    run.start_daemon()
    run.start_feeder(*options.feed)
    victims = ["daemon"] * options.daemon_kills + ["feeder"] * options.feeder_kills
    random.shuffle(victims)
    places = sorted(random.randrange(options.alerts * 95 // 100) for _ in victims)
    done = {"daemon": 0, "feeder": 0}
    for number, (place, victim) in enumerate(zip(places, victims)):
        if time.monotonic() - started > options.time:
            break
        done[victim] += 1
        # Most kills come while alerts flow, some before that has begun again after the last kill.
        soon = random.random() < 0.3
        limit = time.monotonic() + (random.random() * 1.5 if soon else harness.PATIENCE)
        while run.count.seen < place and time.monotonic() < limit:
            run.pump(0.002)
            assert run.feeder.poll() is None, "the feeder has ended by itself"
        if number % 20 == 0:
            print(f"{number} kills, {run.count.seen} alerts reported, {run.count.doubled} twice",
                  file=sys.stderr, flush=True)
        run.pump(random.random() * 0.2)
        if victim == "daemon":
            run.kill(run.daemon)
            run.pump(random.random() * 0.05)
            run.start_daemon()
        else:
            run.kill(run.feeder)
            run.pump(random.random() * 0.05)
            run.start_feeder(*options.feed)
    run.finish(600)
    run.end()
    return run.result(daemonKills=done["daemon"], feederKills=done["feeder"],
                      seconds=round(time.monotonic() - started, 1), counters=run.counters)


def reloads(options):
    """Loads the entries anew under load; `plain` by a hangup and not by tarnctl reload."""
    plain = options.work == "hangups"
    run = Run(options.alerts, options.single)
    started = time.monotonic()
    run.start_daemon()
    run.start_feeder("--rate", str(options.rate), *options.feed)
    done = 0
    for number in range(options.reloads):
        if time.monotonic() - started > options.time:
            break
        done += 1
        place = options.alerts * (number + 1) // (options.reloads + 2)
        while run.count.seen < place:
            run.pump()
        harness.write_events({SIGNATURE: Entry(f"Soak {number}", 2, "rule", "DISPLAY:WithRaw")})
        if plain:
            run.daemon.send_signal(signal.SIGHUP)
            continue
        reload = subprocess.Popen([os.environ["TARNCTL_BINARY"], "reload", "--feeder", str(BOOKMARK),
                                   "--kept", "/cache/feed/reload"],
                                  stdout=run.errors, stderr=run.errors)
        while reload.poll() is None:
            run.pump(0.005)
        assert reload.returncode == 0, f"reload {number} ended with {reload.returncode}"
    run.finish()
    run.end()
    return run.result(reloads=done, seconds=round(time.monotonic() - started, 1),
                      counters=run.counters)


def bare_hangups(options):
    """Hangups under load with nobody between the sensor and the FIFO."""
    run = Run(options.alerts, options.single)
    started = time.monotonic()
    run.start_daemon()
    feeder = harness.Feeder()
    done = 0
    for number in range(options.alerts):
        feeder.write(build_alert(number & 0xFFFF, SIGNATURE, second=FIRST_SECOND + number))
        if number % 50 == 0:
            run.count.take()
            delay = started + number / options.rate - time.monotonic()
            time.sleep(max(0.0, delay))
        if number >= options.alerts * (done + 1) // (options.reloads + 2) and done < options.reloads:
            run.daemon.send_signal(signal.SIGHUP)
            done += 1
    run.sensor.total = 0
    deadline = time.monotonic() + 4
    while time.monotonic() < deadline:
        run.count.take()
        time.sleep(0.01)
    feeder.close()
    run.end()
    return run.result(hangups=done, seconds=round(time.monotonic() - started, 1))


def children_time():
    """Seconds of a processor that all processes have used that this one has waited for."""
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


def one_rate(work, options):
    """Reports a second of the alerts that one of the two puts in.

    The reader lets go of all reports at once and counts them by the posts of the semaphore, so that
    it costs next to nothing: what is measured is the daemon with the one that feeds it. Where
    others use the machine, the time of a processor that an alert takes says more than the rate.
    """
    run = Run(options.alerts, options.single)
    run.sensor.write_up_to(options.alerts)
    run.sensor.close()
    while run.crm.take_post():
        pass
    run.start_daemon()
    harness.Feeder().close()  # waits until the daemon reads
    with open(SPOOL / "all", "wb") as whole:
        for path in sorted(SPOOL.glob("u2.*")):
            whole.write(path.read_bytes())
    command = [os.environ["TARNCTL_BINARY"]]
    if work == "feed":
        command += ["feed", str(SPOOL / "u2"), "--bookmark", str(BOOKMARK), "--once", *options.feed]
    else:
        command += ["replay", "--rate", options.replay_rate, str(SPOOL / "all")]
    before = children_time()
    started = time.monotonic()
    process = subprocess.Popen(command, stdout=run.errors, stderr=run.errors)
    samples = [(0, started)]
    while process.poll() is None or time.monotonic() - samples[-1][1] < 2:
        run.crm.let_go()
        if (posts := run.crm.posts()) != samples[-1][0]:
            samples.append((posts, time.monotonic()))
        time.sleep(0.002)
    alone = children_time() - before
    run.end()
    # The daemon keeps the last alerts for a second, which says nothing about the rate.
    reports = samples[-1][0]
    counted, end = next(sample for sample in samples if sample[0] >= reports - 2 * PENDING)
    return {"perSecond": round(counted / (end - started)), "lost": options.alerts - reports,
            "microseconds": round(alone / options.alerts * 1e6, 2),
            "withDaemon": round((children_time() - before) / options.alerts * 1e6, 2)}


def rate(options):
    """Feed beside replay, one after the other in turns; the medians."""
    rounds = {"replay": [], "feed": []}
    for _ in range(options.rounds):
        for work, figures in rounds.items():
            figures.append(one_rate(work, options))
    medians = {work: {name: statistics.median(figure[name] for figure in figures)
                      for name in figures[0]} for work, figures in rounds.items()}
    return {"rounds": rounds, "medians": medians,
            "ratio": round(medians["feed"]["perSecond"] / medians["replay"]["perSecond"], 2)}


WORKS = {"kills": kills, "reloads": reloads, "hangups": reloads, "bare-hangups": bare_hangups,
         "rate": rate}


def parse(arguments):
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("work", choices=WORKS)
    parser.add_argument("--alerts", type=int, default=20000)
    parser.add_argument("--daemon-kills", type=int, default=5)
    parser.add_argument("--feeder-kills", type=int, default=5)
    parser.add_argument("--time", type=float, default=1e9, help="seconds after which no more is disturbed")
    parser.add_argument("--reloads", type=int, default=5)
    parser.add_argument("--rate", type=int, default=2000, help="alerts a second, under load")
    parser.add_argument("--replay-rate", default="max", help="alerts a second of the replay")
    parser.add_argument("--rounds", type=int, default=3, help="of a measurement of the rate")
    parser.add_argument("--single", action="store_true", help="the daemon has a single thread")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--feed", action="append", default=[], metavar="OPTION",
                        help="one more option of tarnctl feed")
    return parser.parse_args(arguments)


def main():
    assert "TARN_SANDBOX" in os.environ, "run this in scripts/sandbox"
    options = parse(sys.argv[1:])
    Path("/cache/qor").mkdir(parents=True, exist_ok=True)
    result = WORKS[options.work](options)
    print(json.dumps(result))
    return 1 if result.get("lost", 0) and options.work != "bare-hangups" else 0


if __name__ == "__main__":
    sys.exit(main())
