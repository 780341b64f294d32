#!/usr/bin/python3
"""Measures a running daemon end to end; bench/README.md describes the method.

  speed   records a second of the daemon in single thread mode, held against a bare loop that reads
          the same feed from the same FIFO
  memory  resident memory over many alerts

Run it with scripts/sandbox; TARN_BINARY names the daemon and TARN_END_TO_END its companion.
"""

import argparse
import json
import os
import select
import statistics
import subprocess
import sys
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
        text = Path(f"/proc/{self.process.pid}/schedstat").read_text(encoding="ascii")
        return int(text.split()[0]) / 1e9

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
            self.reports = int(self.crm.communicate()[0])

    def niceness(self):
        return os.getpriority(os.PRIO_PROCESS, self.process.pid)

    def resident(self):
        """Kilobytes of VmRSS."""
        text = Path(f"/proc/{self.process.pid}/status").read_text(encoding="ascii")
        return int(next(line for line in text.splitlines() if line.startswith("VmRSS")).split()[1])


class Sensor:
    """The sensor. It opens the FIFO as soon as there is a reader."""

    def __init__(self, warm_up, count, kind):
        harness.wait_for(harness.ALERT_FIFO.exists, "the FIFO")
        self._process = companion(
            OTHER_CPU, HIGHEST, "feed", harness.ALERT_FIFO, STREAM, warm_up, count, kind,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def line(self):
        """What it says next: "warm", and then records and seconds."""
        text = self._process.stdout.readline()
        if not text:
            raise SystemExit("the sensor failed")
        return text

    def has_ended_within(self, seconds):
        return bool(select.select([self._process.stdout], [], [], seconds)[0])

    def close(self):
        """It keeps the FIFO open until here."""
        self._process.communicate()


def run(reader, warm_up, count, feed):
    """Records a second of wall time, of the reader's processor time, and the one by the other."""
    sensor = Sensor(warm_up, count, feed)
    assert sensor.line() == "warm\n"
    before = reader.processor_seconds()
    records, seconds = map(float, sensor.line().split())
    busy = reader.processor_seconds() - before
    sensor.close()
    return {"wall": records / seconds, "processor": records / busy, "share": busy / seconds}


def prepare(level):
    """Reports for every alert and nothing else: the daemon's other peers are not there."""
    harness.write_config(level=level, debug__single=1, engine__crm=CHANNEL)
    harness.write_events({
        signature: Entry(name=f"Signature {signature}", severity=3, rule=f"{signature}: a rule",
                         user_response="DISPLAY:WithRaw")
        for signature in SIGNATURES})


def measure_speed(options):
    """The two take turns, so that whatever else the machine does falls on both."""
    runs = {"daemon": [], "bare": []}
    for _ in range(options.repetitions):
        with Daemon() as daemon:
            runs["daemon"].append(run(daemon, WARM_UP, options.records, options.feed))
            niceness = daemon.niceness()
        with Reader(companion(DAEMON_CPU, niceness, "bare", harness.ALERT_FIFO)) as bare:
            runs["bare"].append(run(bare, WARM_UP, options.records, options.feed))
        if options.verbose:
            for name, results in runs.items():
                print(name, {key: round(value, 2) for key, value in results[-1].items()},
                      file=sys.stderr)
    result = {"repetitions": options.repetitions, "records": options.records}
    for key in ("wall", "processor", "share"):
        daemon, bare = (statistics.median(run[key] for run in runs[name])
                        for name in ("daemon", "bare"))
        result[key] = {"daemon": daemon, "bare": bare, "ratio": daemon / bare}
    return result


def measure_memory(options):
    """Samples until the sensor has ended; the daemon is warm when its ring has been used up."""
    with Daemon() as daemon:
        sensor = Sensor(WARM_UP, options.alerts, "strays")
        assert sensor.line() == "warm\n"
        samples = [daemon.resident()]
        while not sensor.has_ended_within(0.5):
            samples.append(daemon.resident())
        records, seconds = map(float, sensor.line().split())
        samples.append(daemon.resident())
        sensor.close()
    return {"alerts": options.alerts, "first_kb": samples[0], "last_kb": samples[-1],
            "most_kb": max(samples), "reports": daemon.reports, "records": records,
            "seconds": seconds}


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", choices=("speed", "memory"))
    parser.add_argument("--repetitions", type=int, default=7)
    parser.add_argument("--records", type=int, default=888 * 200, help="records a repetition")
    parser.add_argument("--alerts", type=int, default=302000, help="alerts fed")
    parser.add_argument("--feed", choices=("known", "plain"), default="known",
                        help="records of the kinds that the daemon takes, or the whole stream")
    parser.add_argument("--level", type=int, default=INFO, help="tarn.log.level")
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args()
    if os.environ.get("TARN_SANDBOX") != "1":
        sys.exit("This writes below /etc and /cache: run it with scripts/sandbox.")
    prepare(options.level)
    measure = {"speed": measure_speed, "memory": measure_memory}[options.what]
    json.dump(measure(options), sys.stdout, indent=1)
    print()


if __name__ == "__main__":
    main()
