#!/usr/bin/python3
"""Measures a running daemon end to end; bench/README.md describes the method.

  speed   records a second of the daemon, held against two bare loops that read the same feed from
          the same FIFO; every alert must have become a report
  memory  resident memory over many alerts
  start   the time to both FIFOs, and of a reload

Run it with scripts/sandbox; TARN_BINARY names the daemon and TARN_END_TO_END its companion.
"""

import argparse
import json
import os
import select
import signal
import statistics
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TREE / "tests" / "system"))

import harness  # noqa: E402
from peers.crm import Entry  # noqa: E402

STREAM = TREE / "samples" / "sensor-302-alerts.u2"
SIGNATURES = [*range(1000001, 1000007), *range(1000010, 1000013), 1000020, 1000021, 1000030]
CHANNEL = 2
DAEMON_CPU = 0  # where the daemon binds itself by default
OTHER_CPU = 1
HIGHEST = -20  # as the daemon: a sensor that waits for the processor would be what is measured
INFO = 3  # the default log level
WARM_UP = 20000  # records or alerts: the ring has been used up several times
QUIET = 5  # seconds, after which no report comes any more: the last alerts wait one second
MODES = {  # what tarn.conf says
    "single": {"debug__single": 1},
    "one-cpu": {"debug__single": 0, "engine__cpu": 0},
    "two-cpus": {"debug__single": 0, "engine__cpu": OTHER_CPU},
}
BARE = {"bare": "always", "bare-empty": "empty"}  # when each loop calls select


def companion(cpu, niceness, *arguments, **options):
    command = [os.environ["TARN_END_TO_END"], str(cpu), str(niceness), *map(str, arguments)]
    return subprocess.Popen(command, text=True, **options)


class Reader:
    """Whoever reads the alert FIFO, to its end."""

    def __init__(self, process):
        self.process = process

    def __enter__(self):
        return self

    def processor_seconds(self):
        """Of all threads."""
        tasks = Path(f"/proc/{self.process.pid}/task").glob("*/schedstat")
        return sum(int(task.read_text(encoding="ascii").split()[0]) for task in tasks) / 1e9

    def writes(self):
        """Calls of write and the like."""
        text = Path(f"/proc/{self.process.pid}/io").read_text(encoding="ascii")
        return int(next(line for line in text.splitlines() if line.startswith("syscw")).split()[1])

    def __exit__(self, failure, *_):
        if failure is not None:
            self.process.kill()
            self.process.wait()
            return
        status = self.process.wait(harness.PATIENCE)
        if status != 0:
            raise SystemExit(f"{self.process.args[0]} ended with {status}")


class Daemon(Reader):
    """The daemon as the sensor finds it, and the peers that take what it writes."""

    def __init__(self):
        self.crm = companion(OTHER_CPU, HIGHEST, "drain", CHANNEL, stdout=subprocess.PIPE)
        self.system_log = companion(OTHER_CPU, HIGHEST, "log", harness.DEV_LOG,
                                    stdout=subprocess.PIPE)
        for peer in (self.crm, self.system_log):
            assert peer.stdout.readline() == "ready\n"
        super().__init__(subprocess.Popen(
            [os.environ["TARN_BINARY"]], cwd="/", stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        self.reports = 0

    def __exit__(self, *details):
        self.process.terminate()
        try:
            super().__exit__(*details)
        finally:
            self.system_log.terminate()
            self.system_log.communicate()
            self.crm.terminate()
            self.reports = int(self.crm.communicate()[0].split()[-1])

    def await_reports(self, alerts):
        """Waits until the CRM has so many, or for as long as any could still come."""
        deadline = time.monotonic() + QUIET
        output, text = self.crm.stdout.fileno(), ""
        while time.monotonic() < deadline:
            if select.select([output], [], [], 0.1)[0]:
                text += os.read(output, 65536).decode()
                if int(text.split()[-1]) >= alerts:
                    return

    def niceness(self):
        return os.getpriority(os.PRIO_PROCESS, self.process.pid)

    def resident(self):
        """Kilobytes of VmRSS."""
        text = Path(f"/proc/{self.process.pid}/status").read_text(encoding="ascii")
        return int(next(line for line in text.splitlines() if line.startswith("VmRSS")).split()[1])


class Sensor:
    """The sensor. It opens the FIFO as soon as there is a reader."""

    def __init__(self, warm_up, count, kind, reader=None):
        """With a reader it fills the pipe while that one is stopped, again and again."""
        harness.wait_for(harness.ALERT_FIFO.exists, "the FIFO")
        how, whom = ("feed", []) if reader is None else ("bursts", [reader.process.pid])
        self._process = companion(
            OTHER_CPU, HIGHEST, how, harness.ALERT_FIFO, STREAM, warm_up, count, kind, *whom,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def line(self):
        """What it says next: "warm", and then records, seconds, and the alerts so far."""
        text = self._process.stdout.readline()
        if not text:
            raise SystemExit("the sensor failed")
        return text

    def has_ended_within(self, seconds):
        return bool(select.select([self._process.stdout], [], [], seconds)[0])

    def close(self):
        """It keeps the FIFO open until here."""
        self._process.communicate()


def run(reader, options):
    """Records a second of wall time, of the reader's processor time, and the one by the other; the
    alerts that the reader was given; and its processor time over its writes, which at level 5 is
    what a line of the log takes with all that is between two lines."""
    sensor = Sensor(WARM_UP, options.records, options.feed, reader if options.bursts else None)
    assert sensor.line() == "warm\n"
    before, writes_before = reader.processor_seconds(), reader.writes()
    records, seconds, alerts = map(float, sensor.line().split())
    busy, writes = reader.processor_seconds() - before, reader.writes() - writes_before
    if isinstance(reader, Daemon):
        reader.await_reports(alerts)
    sensor.close()
    return {"wall": records / seconds, "processor": records / busy, "share": busy / seconds,
            "alerts": int(alerts), "line_ns": busy * 1e9 / max(writes, 1)}


def prepare(level, mode):
    """Reports for every alert and nothing else: the daemon's other peers are not there."""
    harness.write_config(level=level, engine__crm=CHANNEL, **MODES[mode])
    harness.write_events({
        signature: Entry(name=f"Signature {signature}", severity=3, rule=f"{signature}: a rule",
                         user_response="DISPLAY:WithRaw")
        for signature in SIGNATURES})


def spread(values):
    return {"median": statistics.median(values), "least": min(values), "most": max(values)}


def measure_speed(options):
    """All take turns, so that whatever else the machine does falls on each; a ratio is of one
    turn."""
    runs = {name: [] for name in ("daemon", *BARE)}
    alerts = reports = 0
    for _ in range(options.repetitions):
        with Daemon() as daemon:
            runs["daemon"].append(run(daemon, options))
            niceness = daemon.niceness()
        alerts += runs["daemon"][-1]["alerts"]
        reports += daemon.reports
        for name, when in BARE.items():
            command = companion(DAEMON_CPU, niceness, "bare", harness.ALERT_FIFO, when)
            with Reader(command) as bare:
                runs[name].append(run(bare, options))
        if options.verbose:
            for name, results in runs.items():
                print(name, {key: round(value, 2) for key, value in results[-1].items()},
                      file=sys.stderr)
    result = {"repetitions": options.repetitions, "records": options.records, "alerts": alerts,
              "lost": alerts - reports,
              "line_ns": spread([run["line_ns"] for run in runs["daemon"]])}
    for key in ("wall", "processor", "share"):
        result[key] = {name: spread([run[key] for run in results])
                       for name, results in runs.items()}
        for name in BARE:
            result[key]["over " + name] = spread([
                mine[key] / other[key] for mine, other in zip(runs["daemon"], runs[name])])
    return result


def seconds_until(condition):
    """Looks as often as it can."""
    start = time.perf_counter()
    while not condition():
        if time.perf_counter() - start > harness.PATIENCE:
            raise SystemExit("waited too long")
    return time.perf_counter() - start


def measure_start(options):
    """Seconds from the start of the process to both FIFOs, and from a hangup to the reader loop,
    with the files as they were and with both of them changed. The log's lines need level 5."""
    times = {"start": [], "reload": [], "changed": []}
    for _ in range(options.repetitions):
        for path in (harness.ALERT_FIFO, harness.ERROR_FIFO, harness.LOG):
            path.unlink(missing_ok=True)
        with Daemon() as daemon:
            times["start"].append(seconds_until(
                lambda: harness.ALERT_FIFO.exists() and harness.ERROR_FIFO.exists()))
            for cycle, what in ((1, None), (2, "reload"), (3, "changed")):
                if what == "changed":
                    prepare(options.level, options.mode)
                if what is not None:
                    daemon.process.send_signal(signal.SIGHUP)
                taken = seconds_until(lambda: harness.log_text().count(harness.READY) == cycle)
                if what is not None:
                    times[what].append(taken)
    return {what: spread(values) for what, values in times.items()}


def measure_memory(options):
    """Samples until the sensor has ended; the daemon is warm when its ring has been used up."""
    with Daemon() as daemon:
        sensor = Sensor(WARM_UP, options.alerts, "strays")
        assert sensor.line() == "warm\n"
        samples = [daemon.resident()]
        while not sensor.has_ended_within(0.5):
            samples.append(daemon.resident())
        records, seconds, alerts = map(float, sensor.line().split())
        samples.append(daemon.resident())
        daemon.await_reports(alerts)
        sensor.close()
    return {"alerts": int(alerts), "first_kb": samples[0], "last_kb": samples[-1],
            "most_kb": max(samples), "reports": daemon.reports, "records": records,
            "seconds": seconds}


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", choices=("speed", "memory", "start"))
    parser.add_argument("--repetitions", type=int, default=7)
    parser.add_argument("--records", type=int, default=888 * 200, help="records a repetition")
    parser.add_argument("--alerts", type=int, default=302000, help="alerts fed")
    parser.add_argument("--feed", choices=("known", "packets", "plain"), default="known",
                        help="records of the kinds that the daemon takes, alerts and packets alone,"
                             " or the whole stream")
    parser.add_argument("--mode", choices=MODES, default="single",
                        help="threads of the daemon, and their processors")
    parser.add_argument("--bursts", action="store_true",
                        help="fill the pipe while the reader is stopped, and time the reader alone")
    parser.add_argument("--level", type=int, default=INFO, help="tarn.log.level")
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args()
    if os.environ.get("TARN_SANDBOX") != "1":
        sys.exit("This writes below /etc and /cache: run it with scripts/sandbox.")
    prepare(options.level, options.mode)
    measure = {"speed": measure_speed, "memory": measure_memory,
               "start": measure_start}[options.what]
    json.dump(measure(options), sys.stdout, indent=1)
    print()


if __name__ == "__main__":
    main()
