#!/usr/bin/env python3
"""Writes the page and the charts of the comparison with other libraries from the results of Google Benchmark.

    report.py --filter               reads names of rows, one a line, and prints the filter of those with a peer
    report.py RESULTS PAGE PICTURES  reads RESULTS/*.json, writes PAGE and PICTURES/bench-*.svg

The name of a row is KEY/SIDE[/ARGUMENT][/SETTINGS]. SIDE is vesk, bare or a peer.
"""
import json
import math
import pathlib
import re
import statistics
import subprocess
import sys

PEERS = {"boost": "Boost", "poco": "POCO", "glib": "GLib", "uv": "libuv", "apr": "APR"}
SIDES = {"bare": "bare call", "vesk": "libvesk", **PEERS}
COLORS = {"vesk": "#c0392b", "boost": "#34628a", "poco": "#6b9bc3", "glib": "#5a8f4f", "uv": "#a9c46c", "apr": "#c9a227"}
TOPICS = {
    "threads": "Threads and locks",
    "events": "Events",
    "timers": "Timers",
    "files": "Files",
    "text": "Text",
    "sockets": "Sockets",
    "memory": "Memory",
    "time": "Time",
    "loop": "The loop",
}
PACKAGES = {"boost": "libboost-dev", "poco": "libpoco-dev", "glib": "libglib2.0-dev", "uv": "libuv1-dev", "apr": "libapr1-dev"}
NS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
# A peer counts as ahead if it is faster by more than this.
TIE = 0.02


def split(name):
    """Returns the key and the side of the name of a row. The key of a row with an argument ends with it."""
    match = re.search(r"/(" + "|".join(SIDES) + r")(?=/|$)", name)
    if not match:
        return name, None
    key = re.sub(r" \(at most [0-9.]+\)", "", name[: match.start()])
    key = key.replace(", twin without a lock", "")
    rest = re.sub(r"/(real_time|manual_time|[a-z_]+:[0-9.]+)", "", name[match.end():])
    return key + "".join(f": {int(x):,}" for x in rest.split("/") if x), match.group(1)


def print_filter():
    names = [line.strip() for line in sys.stdin if line.strip()]
    # Of two rows of one key and side the last one counts: it is the one of the comparison.
    rows = {split(name): name for name in names}
    compared = {key for key, side in rows if side in PEERS}
    chosen = [name for (key, side), name in rows.items() if key in compared and side]
    print("^(" + "|".join(re.sub(r"([.+*?()\[\]{}|^$])", r"\\\1", name) for name in chosen) + ")$")


class Row:
    """The measured values of one side, in nanoseconds."""

    def __init__(self):
        self.values = []
        self.measured = []

    def add(self, run):
        self.measured.append(run["iterations"] * run["real_time"] * NS[run["time_unit"]])
        if "late_p50_us" in run:
            self.values.append(run["late_p50_us"] * 1e3)
        else:
            # The name of a row says which time counts.
            waits = re.search("/(real|manual)_time(/|$)", run["run_name"])
            self.values.append(run["real_time" if waits else "cpu_time"] * NS[run["time_unit"]])

    def finish(self):
        self.median = statistics.median(self.values)
        if len(self.values) > 1:
            self.low, _, self.high = statistics.quantiles(self.values, n=4, method="inclusive")
        else:
            self.low = self.high = self.median
        return self

    def is_doubtful(self):
        """Returns whether the first estimate was disturbed, so that a repetition has too few turns."""
        return len(self.values) > 0 and min(self.measured) < 1e6

    def spread(self):
        return (self.high - self.low) / 2 / abs(self.median) if self.median else 0


def load(path):
    """Returns the context of a run, its rows as {key: {side: Row}}, and the reasons of those without a result."""
    data = json.loads(path.read_text())
    rows = {}
    skipped = {}
    # The order of registration: interleaving shuffles the runs.
    for run in sorted(data["benchmarks"], key=lambda run: (run["family_index"], run["per_family_instance_index"])):
        if run.get("run_type") != "iteration":
            continue
        key, side = split(run["run_name"])
        if side is None:
            continue
        if run.get("error_occurred"):
            skipped[key, side] = run["error_message"]
            continue
        rows.setdefault(key, {}).setdefault(side, Row()).add(run)
    return data["context"], {key: {side: row.finish() for side, row in sides.items()} for key, sides in rows.items()}, skipped


def short(ns):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if abs(ns) >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def ratio(value):
    return f"{value:.2f}" if abs(value) < 9.995 else f"{value:.0f}"


def cell(row, bare):
    if row.median < 0:
        return f"early by {short(-row.median)}"
    doubt = " ?" if row.is_doubtful() or bare.is_doubtful() else ""
    return f"{ratio(row.median / bare.median)} ±{100 * row.spread():.0f} %{doubt}"


def standing(sides):
    """Returns which side is ahead of the library, and whether the spread leaves a doubt."""
    vesk = sides["vesk"]
    peers = sorted((row.median, side) for side, row in sides.items() if side in PEERS and row.median >= 0)
    ahead = [side for median, side in peers if median < vesk.median * (1 - TIE)]
    if not ahead:
        return "–"
    text = ", ".join("**" + PEERS[side] + "**" for side in ahead)
    return text + (" (within the spread)" if sides[ahead[0]].high >= vesk.low else "")


def topic_table(rows, skipped):
    used = [side for side in PEERS if any(side in sides for sides in rows.values())]
    lines = ["| row | bare call | libvesk | " + " | ".join(PEERS[side] for side in used) + " | ahead of libvesk |",
             "|" + "---|" * (len(used) + 4)]
    for key, sides in rows.items():
        if "vesk" not in sides or "bare" not in sides:
            continue
        bare = sides["bare"]
        cells = [key, f"{short(bare.median)} ±{100 * bare.spread():.0f} %", cell(sides["vesk"], bare)]
        cells += [cell(sides[side], bare) if side in sides else "" for side in used]
        lines.append("| " + " | ".join(cells + [standing(sides)]) + " |")
    lines += [f"\n`{key}`, {SIDES[side]}: not measured, {reason}." for (key, side), reason in skipped.items()]
    return "\n".join(lines)


def new_figure(**arguments):
    import matplotlib

    matplotlib.use("svg")
    # Without these the file would differ in each run.
    matplotlib.rcParams.update({"svg.hashsalt": "vesk", "svg.fonttype": "none", "font.family": "sans-serif", "font.size": 9})
    from matplotlib import pyplot

    return pyplot.subplots(layout="constrained", **arguments)


def save(figure, path):
    figure.savefig(path, format="svg", metadata={"Date": None, "Creator": None})
    text = path.read_text()
    path.write_text("\n".join(line.rstrip() for line in text.splitlines()) + "\n")


def draw_topic(rows, title, path):
    rows = {key: sides for key, sides in rows.items() if "vesk" in sides and "bare" in sides}
    drawn = [side for side in SIDES if side != "bare" and any(side in sides for sides in rows.values())]
    count = sum(len(sides) for sides in rows.values())
    figure, axes = new_figure(figsize=(8.2, 1.2 + 0.19 * count))
    at = 0.0
    ticks = []
    least = 1.0
    most = 1.0
    for key, sides in rows.items():
        first = at
        for side in drawn:
            if side not in sides or sides[side].median < 0:
                continue
            value = max(sides[side].median / sides["bare"].median, 0.001)
            least, most = min(least, value), max(most, value)
            axes.barh(at, value - 1, left=1, height=0.9, color=COLORS[side], edgecolor="none")
            axes.annotate(f"{ratio(value)}", (value, at), (3 if value >= 1 else -3, 0), textcoords="offset points",
                          va="center", ha="left" if value >= 1 else "right", fontsize=6.5)
            at += 1
        ticks.append(((first + at - 1) / 2, key))
        at += 0.8
    axes.set_xscale("log")
    axes.set_xlim(least / 1.5, most * 1.5)
    axes.xaxis.set_major_formatter(lambda value, _: f"{value:g}")
    axes.xaxis.set_minor_formatter(lambda value, _: f"{value:g}" if most / least < 8 else "")
    axes.tick_params(axis="x", which="both", labelsize=7)
    axes.axvline(1, color="black", linewidth=0.8)
    axes.set_yticks([tick for tick, _ in ticks], [wrap(key) for _, key in ticks])
    axes.set_ylim(at - 0.3, -1)
    axes.set_xlabel("time, bare call = 1 (logarithmic; shorter than 1 is to the left)")
    axes.set_title(title)
    from matplotlib.patches import Patch

    axes.legend(handles=[Patch(color=COLORS[side], label=SIDES[side]) for side in drawn], fontsize=7,
                ncols=len(drawn), loc="upper center", bbox_to_anchor=(0.5, -0.55 / figure.get_figheight()), frameon=False)
    save(figure, path)


def wrap(text, width=30):
    lines = [""]
    for word in text.split():
        if lines[-1] and len(lines[-1]) + len(word) >= width:
            lines.append("")
        lines[-1] += (" " if lines[-1] else "") + word
    return "\n".join(lines)


def growth_of(rows):
    """Returns {title: {side: [(number, Row)]}}."""
    result = {}
    for key, sides in rows.items():
        title, _, number = key.removeprefix("Growth: ").rpartition(": ")
        for side, row in sides.items():
            result.setdefault(title, {}).setdefault(side, []).append((int(number.replace(",", "")), row))
    return {title: {side: sorted(points, key=lambda point: point[0]) for side, points in sides.items()}
            for title, sides in result.items()}


def exponent(points):
    """Returns the slope of the last decade in a log-log chart: 0 is flat, 1 is linear."""
    if len(points) < 2:
        return "–"
    (last, high) = points[-1]
    (first, low) = next(point for point in reversed(points[:-1]) if point[0] * 10 <= last * 1.1 or point is points[0])
    return f"{math.log(high.median / low.median) / math.log(last / first):.2f}"


def growth_tables(growth):
    parts = []
    for title, sides in growth.items():
        what, _, unit = title.partition(", by ")
        lines = [f"\n### {what[0].upper()}{what[1:]}\n", f"| {unit} | bare | libvesk | ratio |", "|---|---|---|---|"]
        bare = dict(sides.get("bare", []))
        for number, row in sides["vesk"]:
            twin = bare.get(number)
            lines.append(f"| {number:,} | {short(twin.median) + f' ±{100 * twin.spread():.0f} %' if twin else '–'} | "
                         f"{short(row.median)} ±{100 * row.spread():.0f} % | {ratio(row.median / twin.median) if twin else '–'} |")
        slopes = [exponent(sides.get(side, [])) for side in ("bare", "vesk")]
        lines.append(f"| exponent of the last decade | {slopes[0]} | {slopes[1]} | |")
        parts.append("\n".join(lines))
    return "\n".join(parts)


def draw_growth(growth, path):
    columns = 3
    count = math.ceil(len(growth) / columns)
    figure, grid = new_figure(figsize=(9, 2.9 * count), nrows=count, ncols=columns, squeeze=False)
    cells = [axes for line in grid for axes in line]
    for axes, (title, sides) in zip(cells, growth.items()):
        for side, style in (("bare", "--"), ("vesk", "-")):
            points = sides.get(side, [])
            axes.plot([number for number, _ in points], [row.median for _, row in points], style, marker="o", markersize=3,
                      color=COLORS["vesk"] if side == "vesk" else "black", linewidth=1.2, label=SIDES[side])
        axes.set_xscale("log")
        axes.set_yscale("log")
        axes.set_title(wrap(title.partition(", by ")[0], 36), fontsize=8)
        axes.set_xlabel(title.partition(", by ")[2], fontsize=7)
        axes.yaxis.set_major_formatter(lambda value, _: short(value))
        axes.xaxis.set_major_formatter(lambda value, _: f"{value / 1e6:g}M" if value >= 1e6 else f"{value / 1e3:g}k" if value >= 1e3 else f"{value:g}")
        axes.tick_params(labelsize=6.5)
        axes.minorticks_off()
        # At least two decades, so that a flat line looks flat.
        low, high = axes.get_ylim()
        if high / low < 100:
            middle = math.sqrt(low * high)
            axes.set_ylim(middle / 10, middle * 10)
    for axes in cells[len(growth):]:
        axes.remove()
    cells[0].legend(fontsize=7, frameon=False)
    save(figure, path)


def run(*command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


def machine(contexts):
    cpu = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    virtual = run("systemd-detect-virt", "--vm") not in ("", "none") or "hypervisor" in pathlib.Path("/proc/cpuinfo").read_text()
    kernel = re.match(r"\d+\.\d+", run("uname", "-r"))
    compiler = run("g++", "-dumpfullversion")
    versions = ", ".join(f"{name} {version}" for side, name in PEERS.items()
                         if (version := run("dpkg-query", "-W", "-f", "${Version}", PACKAGES[side]).split("-")[0].split("+")[0]))
    load = statistics.median(context["load_avg"][0] for context in contexts) if contexts else 0
    text = [f"{contexts[0]['num_cpus'] if contexts else '?'} processors ({cpu.group(1) if cpu else 'unknown'}{', virtual machine' if virtual else ''}), "
            f"{run('uname', '-m')}, Linux {kernel.group(0) if kernel else ''}, GCC {compiler}, `-O3`; {versions}."]
    # The programs themselves load one or two processors.
    if load > 2.5:
        text.append(f"\n**The machine was busy (load {load:.0f}): these figures are provisional.**")
    return "\n".join(text)


PAGE = """# Benchmarks: libvesk, the bare calls, and other libraries

Written by `scripts/bench --peers` and `scripts/bench --growth`; edit `benchmarks/peers/report.py` instead of this page.

{machine}

## How to read it

Each row does the same work through each library, in one program, in repetitions of random order. The time is that of the
processor, and the elapsed time where threads wait for each other. A cell is the median divided by that of the bare call (of
libc or the kernel, or the shortest code on top of them); smaller is better. After ± is half of the range between the quartiles,
in percent of the median. The last column names the libraries that are faster than libvesk by more than {tie} %; "within the
spread" marks them if the quartiles of the fastest overlap those of libvesk. Rows where another library is ahead stay.

- "?" marks a figure from fewer turns than it needs, because the machine was disturbed when their number was estimated.
- A library is used as its documentation recommends. A row without a figure means that it lacks the feature.
- "One CPU" means that both threads or processes of the row are bound to one processor. Where two threads run on two processors,
  the scheduler has a large part in the time and its spread.
- Boost has no files of its own: the rows show the streams of Boost.Filesystem. The buffer of POCO's file streams is 4 KiB.
- The dispatcher of libuv is its `uv_async_t` beside a queue under its mutex, which is necessary because wake-ups coalesce. For
  GLib it is `GAsyncQueue`, for POCO `NotificationQueue`.
- libvesk and the bare call end the copy of a file with `fsync`; the others do not. The files are in memory, where that costs
  little.
- In the rows of the one-shot timer libvesk, POCO and the bare call hand over between two threads; Boost, GLib and libuv run
  their loop in the calling thread. POCO and libuv count whole milliseconds and can be early.
- The loops of libuv and GLib count whole milliseconds. A timer of libuv belongs to the thread of its loop and starts from the
  time of the last round; one of libvesk may be started by any thread, and reads the exact clock.
- POCO has no row with many pending timers: `Poco::Timer` has a thread each, and `Poco::Util::Timer` keeps a canceled task.

{topics}

## Growth

How the time grows with the number of objects. The exponent is the slope of the last decade: 0 is flat, 1 is linear.

{growth}

## How to repeat

```sh
scripts/bench --peers             # installs the other libraries, builds, measures, and writes this page and its charts
scripts/bench --growth            # the same for the growth; both options may be given together
scripts/bench --peers --percent 20   # a fifth of the repetitions; 300 triples them
```

About ten minutes on a quiet machine. Nothing else should run. A peer that is not installed is left out.
"""


def write_page(results, page, pictures):
    contexts = []
    topics = []
    for topic, title in TOPICS.items():
        path = results / f"peers_{topic}.json"
        if not path.exists():
            continue
        context, rows, skipped = load(path)
        contexts.append(context)
        picture = pictures / f"bench-{topic}.svg"
        draw_topic(rows, title, picture)
        topics.append(f"## {title}\n\n![{title}]({picture.relative_to(page.parent)})\n\n{topic_table(rows, skipped)}")
    growth_text = "Not measured yet: run `scripts/bench --growth`."
    path = results / "growth.json"
    if path.exists():
        context, rows, skipped = load(path)
        contexts.append(context)
        growth = growth_of(rows)
        picture = pictures / "bench-growth.svg"
        draw_growth(growth, picture)
        growth_text = f"![Growth]({picture.relative_to(page.parent)})\n{growth_tables(growth)}"
        reasons = sorted({f"{key.removeprefix('Growth: ')}: {reason}" for (key, _), reason in skipped.items()})
        if reasons:
            growth_text += "\n\nNot measured: " + "; ".join(reasons) + "."
    page.write_text(PAGE.format(machine=machine(contexts), tie=round(100 * TIE), topics="\n\n".join(topics) or "Not measured yet.",
                                growth=growth_text))


if __name__ == "__main__":
    if sys.argv[1:] == ["--filter"]:
        print_filter()
    elif len(sys.argv) == 4:
        write_page(*map(pathlib.Path, sys.argv[1:]))
    else:
        sys.exit(__doc__)
