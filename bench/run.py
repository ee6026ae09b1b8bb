"""Measures the rows of the catalogue, store after store and round after round, and reports the medians.

Every measurement is a process of its own on an empty directory. The stores take turns, so that what disturbs the
machine disturbs all of them.
"""

import argparse
import fnmatch
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import report
from catalogue import PEERS, ROWS


def parse_arguments():
    parser = argparse.ArgumentParser(prog="script/bench", description=__doc__)
    parser.add_argument("rows", nargs="*", help="names or patterns of rows; all of the default run otherwise")
    parser.add_argument("--full", action="store_true", help="also the rows of 10M entries and other long ones")
    parser.add_argument("--peers", default=",".join(PEERS), help="stores, with commas between them")
    parser.add_argument("--rounds", type=int, help="exactly so many rounds of every row")
    parser.add_argument("--minutes", type=float, default=13, help="begin no further round after this time")
    parser.add_argument("--directory", help="where the stores are made, on the disk that is to be measured")
    parser.add_argument("--list", action="store_true", help="print the rows and end")
    parser.add_argument("--publish", help="put tables and pictures into this page, and the figures beside it")
    parser.add_argument("--programs", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--out", required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def choose_rows(arguments):
    if not arguments.rows:
        return [row for row in ROWS if arguments.full or not row.full]
    chosen = [row for row in ROWS if any(fnmatch.fnmatch(row.name, pattern) for pattern in arguments.rows)]
    for pattern in arguments.rows:
        if not any(fnmatch.fnmatch(row.name, pattern) for row in ROWS):
            sys.exit(f"there is no row {pattern}; --list prints them")
    return chosen


def measure(program, row, base):
    """Runs one measurement. Returns its figures, or None where the store can't do the work."""
    directory = tempfile.mkdtemp(prefix="store-", dir=base)
    try:
        command = [program, row.work, directory, str(row.entries), str(row.value_bytes), str(row.log_bytes)]
        output = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout
    finally:
        shutil.rmtree(directory, ignore_errors=True)
    lines = [line.split("\t") for line in output.splitlines()]
    if ["impossible"] in lines:
        return None
    return {name: float(number) for name, number in lines}


def measure_rounds(arguments, rows, programs, samples, base):
    """Fills `samples`, round after round, until all rounds are done or the time is used up."""
    start = time.monotonic()
    spent = 0.0
    for round_number in range(arguments.rounds or max(row.rounds for row in rows)):
        left = 60 * arguments.minutes - (time.monotonic() - start)
        if round_number > 0 and not arguments.rounds and not arguments.full and left < spent:
            return
        round_start = time.monotonic()
        for row in rows:
            if round_number >= (arguments.rounds or row.rounds):
                continue
            for peer, results in samples[row.name].items():
                begun = time.monotonic()
                figures = measure(programs[peer], row, base)
                if figures is not None:
                    results.append(figures)
                print(f"round {round_number + 1}  {row.name:24}{peer:14}{time.monotonic() - begun:6.1f} s  "
                      f"{report.number(figures.get('figure')) if figures else 'not possible'} {row.unit}",
                      file=sys.stderr, flush=True)
        spent = time.monotonic() - round_start


def main():
    arguments = parse_arguments()
    rows = choose_rows(arguments)
    if arguments.list:
        for row in ROWS:
            print(f"{row.name:24}{row.title} ({row.unit}){', with --full' if row.full else ''}")
        return
    out = Path(arguments.out)
    base = arguments.directory or str(out)
    programs = {peer: Path(arguments.programs) / f"kestrun_bench_{peer}" for peer in arguments.peers.split(",")}
    programs = {peer: program for peer, program in programs.items() if program.exists()}
    settings = report.describe_run(programs, base)
    print(settings, flush=True)

    samples = {row.name: {peer: [] for peer in programs if peer in row.peers} for row in rows}
    start = time.monotonic()
    try:
        measure_rounds(arguments, rows, programs, samples, base)
    except KeyboardInterrupt:
        print("interrupted; what was measured until then:", file=sys.stderr)

    medians = {
        row: {
            peer: {name: statistics.median(run[name] for run in runs) for name in runs[0]} if runs else None
            for peer, runs in peers.items()
        }
        for row, peers in samples.items()
    }
    rounds = {row: max((len(runs) for runs in peers.values()), default=0) for row, peers in samples.items()}
    tables = report.tables(rows, medians)
    print(f"\n{tables}\nmeasured in {(time.monotonic() - start) / 60:.1f} minutes")
    report.write_tsv(out / "benchmarks.tsv", rows, medians, rounds)
    report.draw(out / "benchmarks.svg", rows, medians)
    if arguments.publish:
        report.publish(Path(arguments.publish), f"{settings}\n{tables}", out)


if __name__ == "__main__":
    main()
