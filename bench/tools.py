#!/usr/bin/env python3
"""The command-line program beside sqlite3 on the same file, in one run.

  tools.py --kestrun PROGRAM --out DIRECTORY [--rows N] [--rounds N] [--large]

Times are medians of rounds in turn, memory is the largest resident set. --large adds a file of 10 million rows.
"""

import argparse
import os
import pathlib
import random
import shutil
import statistics
import subprocess
import sys
import time

TYPE = "Weather date:%s,precipitation:%d,temp_max:%d,temp_min:%d,wind:%d,weather:%s"
TABLE = (
    "CREATE TABLE weather(id TEXT PRIMARY KEY, date TEXT, precipitation REAL, temp_max REAL, temp_min REAL,"
    " wind REAL, weather TEXT)"
)


def write_rows(path, rows):
    draw = random.Random(2012)
    with open(path, "w", encoding="ascii") as out:
        out.write("id,date,precipitation,temp_max,temp_min,wind,weather\n")
        for i in range(rows):
            out.write(
                f"seattle-{i:08d},2012-{i % 12 + 1:02d}-{i % 28 + 1:02d},{draw.random() * 50:.1f},{draw.random() * 30:.1f},"
                f"{draw.random() * 10:.1f},{draw.random() * 9:.1f},{draw.choice(['rain', 'sun', 'drizzle', 'fog'])}\n"
            )


def run(command, output=None):
    """Seconds and KiB of one run; stops where it fails."""
    with open(output or os.devnull, "wb") as out:
        start = time.monotonic()
        child = subprocess.Popen(command, stdout=out, stderr=subprocess.DEVNULL)
        _, status, usage = os.wait4(child.pid, 0)
        seconds = time.monotonic() - start
    if status != 0:
        sys.exit(f"{' '.join(command)}: exit status {os.waitstatus_to_exitcode(status)}")
    return seconds, usage.ru_maxrss


class Bench:
    def __init__(self, kestrun, work):
        self.kestrun = kestrun
        self.store = work / "store"
        self.database = work / "weather.db"
        self.rows = work / "weather.csv"
        self.copy = work / "copy.csv"

    def import_rows(self):
        shutil.rmtree(self.store, ignore_errors=True)
        return run([self.kestrun, "import", str(self.store), str(self.rows), "--type", TYPE, "--key", "{id}"])

    def sqlite_import(self):
        self.database.unlink(missing_ok=True)
        return run(["sqlite3", str(self.database), TABLE, ".mode csv", f".import --skip 1 {self.rows} weather"])

    def scan(self):
        return run(["sh", "-c", '"$0" scan "$1" | wc -l', self.kestrun, str(self.store)])

    def export(self):
        return run([self.kestrun, "export", str(self.store), str(self.copy)])

    def sqlite_export(self):
        return run(["sqlite3", "-csv", "-header", str(self.database), "SELECT * FROM weather ORDER BY id"], self.copy)


def measure(bench, rows, rounds):
    steps = [
        ("import CSV, typed", bench.import_rows),
        ("sqlite3 .import, with a key", bench.sqlite_import),
        ("scan | wc -l", bench.scan),
        ("export to CSV", bench.export),
        ("sqlite3 -csv, in order", bench.sqlite_export),
    ]
    results = {name: [] for name, _ in steps}
    for _ in range(rounds):
        for name, step in steps:
            results[name].append(step())
    print(f"{rows:,} rows, {rounds} rounds")
    print(f"{'':30}{'seconds':>9}{'rows/s':>12}{'MiB':>7}")
    for name, _ in steps:
        seconds = statistics.median(time for time, _ in results[name])
        memory = max(memory for _, memory in results[name])
        print(f"{name:30}{seconds:9.2f}{rows / seconds:12,.0f}{memory / 1024:7.1f}")
    print()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestrun", required=True)
    parser.add_argument("--out", required=True, type=pathlib.Path)
    parser.add_argument("--rows", type=int, default=300000)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--large", action="store_true", help="10 million rows, too, once")
    options = parser.parse_args()
    work = options.out / "tools"
    work.mkdir(parents=True, exist_ok=True)
    try:
        for rows, rounds in [(options.rows, options.rounds)] + ([(10000000, 1)] if options.large else []):
            bench = Bench(options.kestrun, work)
            write_rows(bench.rows, rows)
            measure(bench, rows, rounds)
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
