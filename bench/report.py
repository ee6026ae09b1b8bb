"""Tables, figures and pictures of a run."""

import platform
import re
import shutil
import subprocess
from datetime import date
from pathlib import Path

from catalogue import KESTRUN, LOCK_UNITS, OTHERS, PEER_TITLES, PEERS


def describe_run(programs, directory):
    """What was measured and on what, as lines of Markdown."""
    cpu = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text(encoding="utf-8"))
    cores = len(re.findall(r"^processor", Path("/proc/cpuinfo").read_text(encoding="utf-8"), re.M))
    disk = subprocess.run(["stat", "-f", "-c", "%T", directory], check=True, stdout=subprocess.PIPE, text=True).stdout
    lines = [
        f"{date.today().isoformat()}, {cores} processors ({cpu.group(1) if cpu else platform.machine()}), "
        f"Linux {platform.release()}, file system {disk.strip()}.",
        "",
        "| store | settings |",
        "|---|---|",
    ]
    for program in programs.values():
        version, settings = subprocess.run(
            [program, "--settings"], check=True, stdout=subprocess.PIPE, text=True
        ).stdout.strip().split("\t")
        lines.append(f"| {version} | {settings} |")
    return "\n".join(lines) + "\n"


def number(value):
    if value is None:
        return ""
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def table(head, lines):
    if not lines:
        return ""
    text = ["| " + " | ".join(head) + " |", "|---" * len(head) + "|"]
    return "\n".join(text + ["| " + " | ".join(line) + " |" for line in lines]) + "\n"


def shown_peers(medians):
    return [peer for peer in PEERS if any(peer in peers for peers in medians.values())]


def figure_of(medians, row, peer, name="figure"):
    figures = medians.get(row, {}).get(peer)
    return figures.get(name) if figures else None


def best_other(row, medians):
    figures = [figure_of(medians, row.name, peer) for peer in OTHERS]
    figures = [figure for figure in figures if figure is not None]
    return (max if row.more_is_better else min)(figures) if figures else None


def figures_table(rows, medians):
    peers = shown_peers(medians)
    lines = []
    for row in rows:
        cells = [f"`{row.name}`", f"{row.title}{'' if row.unit == LOCK_UNITS else ', ' + row.unit}"]
        for peer in peers:
            figures = medians[row.name].get(peer)
            failed = figures.get("failed_calls", 0) if figures else 0
            text = "not possible" if peer in medians[row.name] and figures is None else number(
                figure_of(medians, row.name, peer))
            cells.append(text + (f", {failed:.0f} calls failed" if failed else ""))
        lines.append(cells + [number(row.goal)])
    return table(["row", f"mean time in {LOCK_UNITS}, or as said"] + [PEER_TITLES[peer] for peer in peers] + ["goal"],
                 lines)


def times_table(rows, medians):
    lines = []
    for row in rows:
        for peer in shown_peers(medians):
            if figure_of(medians, row.name, peer, "p50_ns") is None:
                continue
            micros = [number(figure_of(medians, row.name, peer, f"{name}_ns") / 1e3)
                      for name in ("mean", "p50", "p99", "p999", "max")]
            lines.append([f"`{row.name}`", PEER_TITLES[peer], *micros])
    return table(["row", "store", "mean µs", "p50", "p99", "p99.9", "longest"], lines)


def space_table(rows, medians):
    lines = []
    for row in rows:
        for peer in shown_peers(medians):
            figures = medians[row.name].get(peer)
            if not figures or row.work not in ("put-random-flush", "growth", "get-block"):
                continue
            live = figures["live_bytes"]
            lines.append([f"`{row.name}`", PEER_TITLES[peer], number(figures["total_written_bytes"] / live),
                          number(figures["disk_bytes"] / live), number(figures["peak_memory_bytes"] / 2**20)])
    return table(["row", "store", "written / live bytes", "disk / live bytes", "peak memory, MiB"], lines)


def growth_table(medians):
    ratios = [
        ("put, 1M / 100k entries", ("growth@1M", "mean_ns"), ("growth", "mean_ns"), 1.5),
        ("get, 1M / 100k entries", ("growth@1M", "get_ns"), ("growth", "get_ns"), 1.5),
        ("get from one block, 1M / 100k entries", ("get-block@1M", "mean_ns"), ("get-block", "mean_ns"), 1.5),
        ("put, 10M / 100k entries", ("growth@10M", "mean_ns"), ("growth", "mean_ns"), 2),
        ("get, 10M / 100k entries", ("growth@10M", "get_ns"), ("growth", "get_ns"), 2),
        ("get, 40 blocks / one block", ("get-40-blocks", "mean_ns"), ("get-block", "mean_ns"), 3),
        ("get, 40 blocks / one block, 1M entries", ("get-40-blocks@1M", "mean_ns"), ("get-block@1M", "mean_ns"), 3),
        ("open, 1M / 100k entries", ("open-empty-log@1M", "open_ns"), ("open-empty-log", "open_ns"), None),
        ("open and first get, 1M / 100k entries", ("open-empty-log@1M", "figure"), ("open-empty-log", "figure"), None),
        ("open, 10M / 100k entries", ("open-empty-log@10M", "open_ns"), ("open-empty-log", "open_ns"), None),
        ("longest put / a bare flush", ("longest-pause", "times_bare"), None, 1.3),
        ("bytes written / bytes put, 1M", ("growth@1M", "written_per_byte"), None, None),
        ("bytes written / bytes put, 10M", ("growth@10M", "written_per_byte"), None, None),
        ("peak memory at 1M, MiB", ("growth@1M", "peak_memory_bytes"), None, 110),
        ("peak memory at 10M, MiB", ("growth@10M", "peak_memory_bytes"), None, None),
    ]
    peers = shown_peers(medians)
    lines = []
    for title, above, below, limit in ratios:
        cells = []
        for peer in peers:
            value = figure_of(medians, above[0], peer, above[1])
            if value is not None and above[1].endswith("_bytes"):
                value /= 2**20
            if below is not None:
                base = figure_of(medians, below[0], peer, below[1])
                value = value / base if value is not None and base else None
            cells.append(number(value))
        if any(cells):
            lines.append([title, *cells, number(limit)])
    return table(["growth"] + [PEER_TITLES[peer] for peer in peers] + ["at most"], lines)


def tables(rows, medians):
    parts = [figures_table(rows, medians), growth_table(medians), times_table(rows, medians),
             space_table(rows, medians)]
    return "\n".join(part for part in parts if part)


def write_tsv(path, rows, medians, rounds):
    with open(path, "w", encoding="utf-8") as file:
        file.write("row\tstore\tentries\tvalue_bytes\tlog_bytes\trounds\tunit\tgoal\tmeasure\tmedian\n")
        for row in rows:
            for peer, figures in medians[row.name].items():
                for name, value in (figures or {}).items():
                    goal = row.goal if name == "figure" and row.goal is not None and peer == "kestrun" else ""
                    unit = row.unit if name == "figure" else ""
                    file.write(f"{row.name}\t{peer}\t{row.entries}\t{row.value_bytes}\t{row.log_bytes}\t"
                               f"{rounds[row.name]}\t{unit}\t{goal}\t{name}\t{value:.9g}\n")


def draw(picture, rows, medians):
    """One line for each row that is told in lock units, one mark for each store."""
    import matplotlib

    matplotlib.use("Agg")
    matplotlib.rcParams["svg.hashsalt"] = "kestrun"  # the same picture for the same numbers
    import matplotlib.pyplot as plt
    from matplotlib.ticker import FuncFormatter

    shown = [row for row in rows if row.unit == LOCK_UNITS and any(medians[row.name].values())]
    marks = dict(zip(PEERS, ["o", "o", "s", "^", "D", "v"]))
    colours = dict(zip(PEERS, ["#c4472d", "#eab8ac", "#1f6f8b", "#5a9367", "#7b5ea7", "#9aa5b1"]))
    figure, axes = plt.subplots(figsize=(9, 1.5 + 0.3 * len(shown)), layout="constrained")
    for peer in reversed(shown_peers(medians)):
        points = [(figure_of(medians, row.name, peer), place) for place, row in enumerate(shown)]
        points = [point for point in points if point[0] is not None]
        if points:
            axes.scatter(*zip(*points), marker=marks[peer], color=colours[peer], s=42 if peer in KESTRUN else 28,
                         label=PEER_TITLES[peer].replace("`", ""))
    for place, row in enumerate(shown):
        if row.goal is not None:
            axes.plot([row.goal] * 2, [place - 0.35, place + 0.35], color="#c4472d", linewidth=1,
                      label="goal" if place == 0 else None)
    axes.set_xscale("log")
    axes.xaxis.set_major_formatter(FuncFormatter(lambda value, _: f"{value:g}"))
    axes.set_yticks(range(len(shown)), [row.title for row in shown])
    axes.invert_yaxis()
    axes.grid(axis="y", color="#e8ecef")
    axes.set_axisbelow(True)
    axes.set_xlabel(f"mean time in {LOCK_UNITS}; further left is quicker")
    axes.spines[["top", "right"]].set_visible(False)
    axes.legend(frameon=False, loc="upper center", bbox_to_anchor=(0.3, 1.0 + 0.9 / (1 + 0.3 * len(shown))), ncols=4)
    figure.savefig(picture, metadata={"Date": None})
    plt.close(figure)


def publish(page, text, out):
    """Replaces what stands between the marks in `page`, and the files beside it."""
    begin, end = "<!-- results -->\n", "<!-- end of results -->"
    before, _, rest = page.read_text(encoding="utf-8").partition(begin)
    _, found, after = rest.partition(end)
    if not found:
        raise SystemExit(f"{page} has no place for results")
    page.write_text(f"{before}{begin}{text}{end}{after}", encoding="utf-8")
    for name in ("benchmarks.tsv", "benchmarks.svg"):
        shutil.copyfile(out / name, page.parent / name)
