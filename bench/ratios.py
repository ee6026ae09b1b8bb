"""Prints the ratios that matter from a run of kestrun_bench, medians over medians."""

import json
import sys


def main(path):
    with open(path, encoding="utf-8") as file:
        runs = json.load(file)["benchmarks"]
    median = {run["run_name"].split("/iterations")[0]: run for run in runs if run.get("aggregate_name") == "median"}

    def time(name):
        return median[name]["real_time"]

    rows = [
        ("insert of 100 bytes / its four lock calls", "InsertIntoLog/10000", "WriterLockCalls", 1.6),
        ("get of 100 bytes from the log / its four lock calls", "GetFromLog/10000", "ReaderLockCalls", 1.4),
        ("100 keys out of 400000 / out of 4000", "ListHundredKeys/100000", "ListHundredKeys/1000", None),
    ]
    for text, above, below, limit in rows:
        if above in median and below in median:
            bound = f" (at most {limit})" if limit else ""
            print(f"{time(above) / time(below):6.2f}  {text}{bound}")
    if "Compact/26000" in median and "WriteAndSync/41943040" in median:
        compact, disk = median["Compact/26000"], median["WriteAndSync/41943040"]
        rate = compact["bytes_per_second"] / 1e6
        seconds = compact["real_time"] / 1e3
        beside = rate * seconds / (seconds - disk["real_time"] / 1e3) if seconds > disk["real_time"] / 1e3 else float("inf")
        print(f"{rate:6.0f}  MB/s of input compacted, fsync included; {beside:.0f} MB/s beside writing and forcing the bytes (at least 150)")


if __name__ == "__main__":
    main(sys.argv[1])
