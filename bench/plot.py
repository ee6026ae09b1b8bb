"""Draws the medians of a run of kestrun_bench: plot.py RESULTS.json PICTURE.svg"""

import json
import sys

import matplotlib

matplotlib.use("Agg")
matplotlib.rcParams["svg.hashsalt"] = "kestrun"  # the same picture for the same numbers
import matplotlib.pyplot as plt  # noqa: E402

OPERATIONS = [
    ("Insert, 100 bytes", "InsertIntoLog/10000", ["WriterLockCalls"]),
    ("Get from the log", "GetFromLog/10000", ["ReaderLockCalls"]),
    ("Get from a block", "GetFromBlock/10000", ["ReaderLockCalls", "ReaderLockCalls"]),
]
LISTINGS = [(4000, "ListHundredKeys/1000"), (40000, "ListHundredKeys/10000"), (400000, "ListHundredKeys/100000")]


def main(results, picture):
    with open(results, encoding="utf-8") as file:
        runs = json.load(file)["benchmarks"]
    median = {run["run_name"]: run["real_time"] / 1000 for run in runs if run.get("aggregate_name") == "median"}
    wanted = {name for _, name, locks in OPERATIONS for name in [name, *locks]} | {name for _, name in LISTINGS}
    if not wanted <= median.keys():
        print("no picture: it takes a run of all benchmarks")
        return

    figure, (costs, listing) = plt.subplots(1, 2, figsize=(9, 3.2), width_ratios=[3, 2], layout="constrained")
    for row, (text, name, locks) in enumerate(OPERATIONS):
        locking = sum(median[lock] for lock in locks)
        costs.barh(row, locking, color="#9aa5b1", label="lock calls of the system" if row == 0 else None)
        own = median[name] - locking
        costs.barh(row, own, left=locking, color="#1f6f8b", label="the rest" if row == 0 else None)
        costs.text(median[name], row, f" {median[name]:.2f}", va="center")
    costs.set_yticks(range(len(OPERATIONS)), [text for text, _, _ in OPERATIONS])
    costs.invert_yaxis()
    costs.set_xlim(0, 1.15 * max(median[name] for _, name, _ in OPERATIONS))
    costs.set_xlabel("microseconds")
    costs.legend(frameon=False, loc="upper right")
    costs.set_title("What one operation costs")

    listing.plot([size for size, _ in LISTINGS], [median[name] for _, name in LISTINGS], "o-", color="#1f6f8b")
    listing.set_xscale("log")
    listing.set_ylim(0, 1.5 * max(median[name] for _, name in LISTINGS))
    listing.set_xlabel("keys in the store, four blocks")
    listing.set_ylabel("microseconds")
    listing.set_title("Listing a range of 100 keys")

    for axes in (costs, listing):
        axes.spines[["top", "right"]].set_visible(False)
    figure.savefig(picture, metadata={"Date": None})


if __name__ == "__main__":
    main(*sys.argv[1:])
