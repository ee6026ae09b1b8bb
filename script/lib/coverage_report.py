"""Prints the coverage of the library, file by file, and each branch that no test takes with the reason for it.

    coverage_report.py COVERAGE.json REASONS.txt

COVERAGE.json is what llvm-cov exports. REASONS.txt explains branches: a line "FILE: CONDITION", CONDITION as it
stands in the source with each run of blanks as one, and below it the reason, indented. It stands for every such
condition of the file. Fails when too little is covered.
"""

import json
import os
import sys

LEAST_LINES = 97.0
LEAST_BRANCHES = 90.0


def read_reasons(path):
    reasons = {}
    place = None
    with open(path, encoding="utf-8") as file:
        for line in file:
            if not line.strip() or line.startswith("#"):
                continue
            if line[0].isspace():
                reasons[place] = f"{reasons[place]} {line.strip()}".strip()
            else:
                name, _, condition = line.rstrip("\n").partition(": ")
                place = (name, condition)
                reasons[place] = ""
    return reasons


def merged_branches(branches):
    """Condition's place -> how often it was true and false, all instances of a template together."""
    counts = {}
    for branch in branches:
        true, false = counts.get(tuple(branch[:4]), (0, 0))
        counts[tuple(branch[:4])] = (true + branch[4], false + branch[5])
    return counts


def text_at(source, place):
    first, begin, last, end = place
    lines = source[first - 1 : last]
    lines[-1] = lines[-1][: end - 1]
    lines[0] = lines[0][begin - 1 :]
    return " ".join(" ".join(lines).split())


def percent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def main(coverage_path, reasons_path):
    with open(coverage_path, encoding="utf-8") as file:
        files = json.load(file)["data"][0]["files"]
    reasons = read_reasons(reasons_path)
    total = [0, 0, 0, 0]
    gaps = []
    unexplained = 0
    print(f"{'file':<32} {'lines':>16} {'branches':>17}")
    for entry in sorted(files, key=lambda entry: entry["filename"]):
        name = os.path.relpath(entry["filename"])
        with open(name, encoding="utf-8") as file:
            source = file.read().split("\n")
        branches = merged_branches(entry["branches"])
        lines = entry["summary"]["lines"]
        taken = sum((true > 0) + (false > 0) for true, false in branches.values())
        counts = [lines["covered"], lines["count"], taken, 2 * len(branches)]
        total = [a + b for a, b in zip(total, counts)]
        print(
            f"{name:<32} {counts[0]:>5} of {counts[1]:<4}{percent(*counts[:2]):4.0f} %"
            f" {counts[2]:>5} of {counts[3]:<4}{percent(*counts[2:]):4.0f} %"
        )
        for place, (true, false) in sorted(branches.items()):
            if true > 0 and false > 0:
                continue
            condition = text_at(source, place)
            reason = reasons.get((name, condition))
            unexplained += not reason
            never = "never reached" if true + false == 0 else "never true" if true == 0 else "never false"
            gaps.append(f"{name}:{place[0]}: {never}: {condition}\n    {reason or 'NOT EXPLAINED'}")
    print("\nBranches that no test takes\n")
    print("\n".join(gaps))
    print(
        f"\nlines: {total[0]} of {total[1]}, {percent(*total[:2]):.1f} % (at least {LEAST_LINES:.0f} %)\n"
        f"branches: {total[2]} of {total[3]}, {percent(*total[2:]):.1f} % (at least {LEAST_BRANCHES:.0f} %)\n"
        f"conditions with a branch never taken: {len(gaps)}, not explained: {unexplained}"
    )
    enough = percent(*total[:2]) >= LEAST_LINES and percent(*total[2:]) >= LEAST_BRANCHES
    return 0 if enough else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
