#!/usr/bin/env python3
"""Holds the packages' file lists against what is installed, and the units against their limits."""

import argparse
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

# The exposure in tenths that `systemd-analyze security` may find.
EXPOSURE = {"tarn.service": 15}
EXPOSURE_OF_PEERS = 20


def entries(lists):
    """Each entry of the packages' lists: the list's name and the pattern of what it takes."""
    for path in sorted(lists.glob("*.install")):
        for line in path.read_text(encoding="utf-8").splitlines():
            words = line.split()
            if words and not words[0].startswith("#"):
                yield path.name, words[0]


def check_lists(tree, installed):
    """Each installed file is in exactly one package, and each entry of a list names something."""
    files = {str(path.relative_to(installed)) for path in installed.rglob("*")
             if path.is_file() or path.is_symlink()}
    takers = {file: [] for file in files}
    faults = []
    for name, pattern in entries(tree / "packaging" / "debian"):
        if any(tree.glob(pattern)):
            continue
        found = {file for path in installed.glob(pattern) for file in files
                 if (installed / file) == path or path in (installed / file).parents}
        if not found:
            faults.append(f"{name}: {pattern} names nothing that is installed")
        for file in found:
            takers[file].append(name)
    for file, names in sorted(takers.items()):
        if len(names) != 1:
            faults.append(f"{file} is in {' and '.join(names) or 'no package'}")
    return faults


def check_restart(unit):
    """A service that starts again after a fault has a limit to it, and stops with the target."""
    text = unit.read_text(encoding="utf-8")
    for line in ("Restart=", "StartLimitIntervalSec=", "StartLimitBurst=", "PartOf=tarn.target"):
        if not re.search(rf"^{re.escape(line)}", text, re.M):
            yield f"{unit.name}: without {line}"


def check_target(units):
    """The target pulls each service in."""
    target = units / "tarn.target"
    wanted = re.findall(r"^Wants=(.*)$", target.read_text(encoding="utf-8"), re.M)
    named = set(" ".join(wanted).split())
    for unit in sorted(units.glob("*.service")):
        if unit.name not in named:
            yield f"{target.name}: does not want {unit.name}"


def check_units(units):
    """No unit may do more than it needs, and systemd understands each line."""
    faults = list(check_target(units))
    for unit in sorted(units.glob("*.service")):
        faults += check_restart(unit)
        limit = EXPOSURE.get(unit.name, EXPOSURE_OF_PEERS)
        result = subprocess.run(
            ["systemd-analyze", "security", "--offline=true", "--no-pager",
             f"--threshold={limit}", unit], capture_output=True, text=True, check=False)
        if result.returncode != 0:
            faults.append(f"{unit.name}: exposed above {limit / 10}:\n{result.stdout}{result.stderr}")
        verdict = subprocess.run(["systemd-analyze", "verify", "--man=no", unit],
                                 capture_output=True, text=True, check=False)
        for line in verdict.stderr.splitlines():
            # The programs are not installed where the tree is checked.
            if line.startswith(unit.name) and not re.search(r"Command .* is not executable", line):
                faults.append(line)
            elif re.search(rf"{re.escape(unit.name)}:\d+:", line):
                faults.append(line)
    return faults


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tree", type=Path, required=True)
    parser.add_argument("--installs", type=Path, help="a build folder whose installation is checked")
    parser.add_argument("--cmake", default="cmake")
    parser.add_argument("--units", action="store_true", help="check the units with systemd-analyze")
    options = parser.parse_args()
    faults = []
    if options.installs:
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run([options.cmake, "--install", options.installs, "--prefix", "/usr"],
                           env={**os.environ, "DESTDIR": folder}, check=True,
                           stdout=subprocess.DEVNULL)
            faults += check_lists(options.tree, Path(folder))
    if options.units:
        faults += check_units(options.tree / "packaging" / "systemd")
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
