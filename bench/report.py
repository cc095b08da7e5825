#!/usr/bin/python3
"""Turns the results of scripts/bench into a table (Markdown and JSON) and plots.

    bench/report.py FOLDER [--publish]

Reads what the benchmarks left in FOLDER and writes report.md, report.json and *.svg beside it. With
--publish the summary also replaces the one in docs/performance.md, all the tables become
docs/performance-table.md, and the plots go to docs/plots/.

A ratio is the speed of the player as a share of its floor's: 1.00 is as fast as the floor. Every
figure is the median of all repetitions of one run; the spread is the distance between the quartiles
as a share of the median.
"""

import datetime
import json
import os
import pathlib
import platform
import re
import shutil
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs/performance.md"
TABLE = ROOT / "docs/performance-table.md"
PLOTS = ROOT / "docs/plots"
BEGIN = "<!-- scripts/bench --publish writes from here -->"
END = "<!-- to here -->"

# A line of the summary each: what it is called, the benchmarks that belong to it, and the share of
# the floor's speed that is good enough. Reassembly with other frames pending has a line of its own.
FIGURES = [
    ("decode", r"decode/.*", 0.97),
    ("reassembly, no other frame pending", r"reassembly/.*/0_pending", 0.90),
    ("audio at full volume", r"audio/gain_1", 0.97),
    ("audio at half volume", r"audio/gain_0.5", 0.95),
    ("present", r"present/.*", None),
    ("loop", r"loop/.*", 0.97),
]

# What each frame that is pending besides may add to the cost of a datagram.
PENDING_GOAL_NS = 1.0


def output_of(*command):
    try:
        result = subprocess.run(command, capture_output=True, text=True, cwd=ROOT, check=True)
    except (OSError, subprocess.CalledProcessError):
        return "unknown"
    return result.stdout.strip()


def first_line_of(*command):
    return output_of(*command).split("\n")[0]


def processor():
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.machine()


def graphics_device():
    """What the player finds; the virtual display draws in software either way."""
    devices = pathlib.Path("/dev")
    if any(devices.glob("dri/renderD*")) or any(devices.glob("nvidia*")):
        return "a graphics device, not used (virtual display): the player leaves the renderer to SDL"
    return "no graphics device (virtual display): the player draws with SDL's software renderer"


def conditions(folder):
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    load = [folder.joinpath(name).read_text().split()[0] for name in ("load-before", "load-after")]
    libraries = ["sdl2", "libavcodec", "libswscale", "opus", "benchmark"]
    versions = [f"{name} {first_line_of('pkg-config', '--modversion', name)}" for name in libraries]
    return {
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "commit": first_line_of("git", "describe", "--always", "--dirty"),
        "machine": f"{processor()}, {os.cpu_count()} cores, {memory:.0f} GiB, "
        f"{graphics_device()}",
        "system": f"Linux {platform.release()}, {first_line_of('g++', '--version')}",
        "libraries": ", ".join(versions),
        "load": f"{load[0]} before, {load[1]} after (mean number of busy processes in a minute)",
    }


def quartiles(values):
    if len(values) < 2:
        return values[0], values[0], values[0]
    return statistics.quantiles(values, n=4, method="inclusive")


def summary(values):
    low, median, high = quartiles(values)
    return {"median": median, "spread": (high - low) / median if median else 0}


def timings(folder):
    """Benchmark name -> times of all repetitions in ns, processor time where there is one, and the
    datagrams of an iteration.

    Reassembly is one thread that never waits: processor time, which a busy machine distorts less.
    """
    units = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    found = {}
    for file in sorted(folder.glob("*.json")):
        if file.name.startswith(("screen-", "report")):
            continue
        for entry in json.loads(file.read_text())["benchmarks"]:
            if entry["run_type"] != "iteration" or entry.get("error_occurred"):
                continue
            name = re.sub(r"/(iterations:\d+|manual_time|real_time)", "", entry["name"])
            times = found.setdefault(name, {"times": [], "processor": []})
            clock = "cpu_time" if name.startswith("reassembly/") else "real_time"
            times["times"].append(entry[clock] * units[entry["time_unit"]])
            if "items_per_second" in entry:
                seconds = entry["cpu_time"] * units[entry["time_unit"]] / 1e9
                times["datagrams"] = round(entry["items_per_second"] * seconds)
            if "processor_us" in entry:
                times["processor"].append(entry["processor_us"])
    return found


def floor_name(name):
    """decode/720p/player -> decode/720p/floor; reassembly's floor is the same however many wait."""
    return re.sub(r"(/\d+_pending)?/player$", "/floor", name)


def goal_of(name):
    return next((goal for _, names, goal in FIGURES if re.fullmatch(names, name)), None)


def natural(name):
    """The key by which 10_fragments follows 3_fragments."""
    return [int(part) if part.isdigit() else part for part in re.split(r"(\d+)", name)]


def compare(found):
    rows = []
    for name, times in found.items():
        floor = found.get(floor_name(name))
        if not name.endswith("/player") or not floor:
            continue
        mine, least = summary(times["times"]), summary(floor["times"])
        row = {
            "name": name.removesuffix("/player"),
            "player_ns": mine["median"],
            "player_spread": mine["spread"],
            "floor_ns": least["median"],
            "floor_spread": least["spread"],
            "ratio": least["median"] / mine["median"],
            "goal": goal_of(name.removesuffix("/player")),
        }
        if times["processor"]:
            row["player_processor_us"] = statistics.median(times["processor"])
            row["floor_processor_us"] = statistics.median(floor["processor"])
        rows.append(row)
    return sorted(rows, key=lambda row: natural(row["name"]))


def pending_costs(found):
    """What the first frame that is pending besides adds to the cost of a datagram, and each further
    one, in ns."""
    by_frame = {}
    for name, times in found.items():
        match = re.fullmatch(r"(reassembly/.*)/(\d+)_pending/player", name)
        if match:
            cost = statistics.median(times["times"]) / times["datagrams"]
            by_frame.setdefault(match.group(1), {})[int(match.group(2))] = cost
    rows = []
    for name, costs in by_frame.items():
        if {0, 1} < costs.keys():
            most = max(costs)
            rows.append({
                "name": name,
                "none_ns": costs[0],
                "first_ns": costs[1] - costs[0],
                "most": most,
                "each_further_ns": (costs[most] - costs[1]) / (most - 1),
            })
    return sorted(rows, key=lambda row: natural(row["name"]))


def at_the_screen(folder):
    """Program, number of players, frame rate, bit rate and pace -> figures over all rounds."""
    runs = {}
    for file in sorted(folder.glob("screen-*.json")):
        run = json.loads(file.read_text())
        kind = ("subject", "players", "fps", "kilobits", "paced")
        runs.setdefault(tuple(run[key] for key in kind), []).append(run)
    rows = []
    for (subject, players, fps, kilobits, paced), group in runs.items():
        delays = sorted(delay for run in group for delay in run["delays_ms"])
        row = {"subject": subject, "players": players, "fps": fps, "kilobits": kilobits,
               "paced": paced, "rounds": len(group), "delays_ms": delays}
        row["missed"] = sum(run["missed"] for run in group)
        for key in ("first_picture_ms", "processor_s_per_min", "peak_memory_mib", "sampling_ms",
                    "repeated"):
            row[key] = statistics.median(run[key] for run in group)
        if delays:
            row["median_ms"] = statistics.median(delays)
            row["p95_ms"] = delays[int(0.95 * (len(delays) - 1))]
            row["max_ms"] = delays[-1]
            row["whole_median_ms"] = statistics.median(
                delay for run in group for delay in run["whole_delays_ms"])
        rows.append(row)
    return sorted(rows, key=lambda row: (row["players"], row["fps"], row["kilobits"],
                                         row["paced"], row["subject"]))


def duration(ns):
    for size, unit in ((1e6, "ms"), (1e3, "µs")):
        if ns >= size:
            return f"{ns / size:.2f} {unit}"
    return f"{ns:.0f} ns"


def verdict(goal, met, insignificant=False):
    return f"{goal} {'met' if met else 'missed, within the spread' if insignificant else 'missed'}"


def summary_table(rows, pending):
    """One line a figure, with its worst case."""
    lines = ["| figure | cases | worst case | there | goal |", "|---|---|---|---|---|"]
    for label, names, goal in FIGURES:
        cases = [row for row in rows if re.fullmatch(names, row["name"])]
        if cases:
            worst = min(cases, key=lambda row: row["ratio"])
            ratio = round(worst["ratio"], 2)
            spread = max(worst["player_spread"], worst["floor_spread"])
            met = verdict(f"{goal:.2f}", ratio >= goal, goal - ratio < spread) if goal else ""
            lines.append(f"| {label} | {len(cases)} | {worst['name']} | {ratio:.2f} | {met} |")
    for key, label in (("first_ns", "the first pending frame"),
                       ("each_further_ns", "each further pending frame")):
        if pending:
            worst = max(pending, key=lambda row: row[key])
            cost = round(worst[key], 2)
            lines.append(
                f"| reassembly, {label} | {len(pending)} | {worst['name']} | {cost:.2f} ns a datagram "
                f"| {verdict(f'{PENDING_GOAL_NS:.0f} ns', cost <= PENDING_GOAL_NS)} |")
    return lines


def ratio_table(rows):
    lines = ["| figure | player | floor | ratio | goal | spread of player, floor |",
             "|---|---|---|---|---|---|"]
    for row in rows:
        goal = f"{row['goal']:.2f}" if row["goal"] else ""
        lines.append(
            f"| {row['name']} | {duration(row['player_ns'])} | {duration(row['floor_ns'])} "
            f"| {row['ratio']:.2f} | {goal} "
            f"| {row['player_spread']:.0%}, {row['floor_spread']:.0%} |")
    return lines


def pending_table(rows):
    lines = ["| frames | a datagram, none pending | the first adds | each further one, up to |",
             "|---|---|---|---|"]
    for row in rows:
        lines.append(f"| {row['name']} | {row['none_ns']:.0f} ns | {row['first_ns']:.1f} ns "
                     f"| {row['each_further_ns']:.2f} ns, {row['most']} |")
    return lines


def processor_table(rows):
    lines = ["| figure | processor time, player | floor | ratio |", "|---|---|---|---|"]
    for row in rows:
        if "player_processor_us" in row:
            mine, least = row["player_processor_us"], row["floor_processor_us"]
            lines.append(f"| {row['name']} | {mine:.0f} µs | {least:.0f} µs | {least / mine:.2f} |")
    return lines


def screen_table(rows):
    lines = ["| program | players | frames/s | Mbit/s | delay, median | p95 | max "
             "| median from the first datagram | flips seen, missed | sent twice "
             "| first picture | processor s/min | peak memory |",
             "|---|---|---|---|---|---|---|---|---|---|---|---|---|"]
    for row in rows:
        delay = " | ".join(f"{row[key]:.1f} ms" if key in row else "none seen"
                           for key in ("median_ms", "p95_ms", "max_ms", "whole_median_ms"))
        lines.append(
            f"| {row['subject']} | {row['players']} | {row['fps']} "
            f"| {row['kilobits'] / 1000:.1f}{', spread' if row['paced'] else ''} | {delay} "
            f"| {len(row['delays_ms'])}, {row['missed']} | {row['repeated']:.0%} "
            f"| {row['first_picture_ms']:.0f} ms "
            f"| {row['processor_s_per_min']:.1f} | {row['peak_memory_mib']:.0f} MiB |")
    return lines


def plot(folder, name, title, x_label, y_label, series, log_x=False, key="left top"):
    """series: label -> list of (x, y)."""
    series = {label: points for label, points in series.items() if points}
    if not series:
        return
    commands = [
        "set terminal svg size 720,420 background rgb 'white'",
        f"set output '{folder / name}.svg'",
        f"set title '{title}'", f"set xlabel '{x_label}'", f"set ylabel '{y_label}'",
        f"set key {key}", "set grid", "set yrange [0:*]",
    ]
    if log_x:
        commands.append("set logscale x")
    many = max(len(points) for points in series.values()) > 50
    style = "lines" if many else "linespoints"
    plots = [f"'-' using 1:2 with {style} linewidth 2 title '{label.replace('_', ' ')}'"
             for label in series]
    commands.append("plot " + ", ".join(plots))
    for points in series.values():
        commands += [f"{x} {y}" for x, y in points] + ["e"]
    subprocess.run(["gnuplot"], input="\n".join(commands), text=True, check=True)


def by_number(found, pattern, scale):
    """Points (number in the name, median time x scale(number)) of the names that match."""
    points = []
    for name, times in found.items():
        match = re.fullmatch(pattern, name)
        if match:
            x = int(match.group(1))
            points.append((x, statistics.median(times["times"]) * scale(x)))
    return sorted(points)


def plot_all(folder, found, screen):
    def each_fragment(count):
        return 1 / count

    plot(folder, "fragments", "Cost of a fragment, in order, nothing else pending",
         "fragments per frame", "ns per fragment", {
             "player": by_number(found, r"reassembly/(\d+)_fragments/in_order/0_pending/player",
                                 each_fragment),
             "floor": by_number(found, r"reassembly/(\d+)_fragments/in_order/floor",
                                each_fragment),
             "only the two copies": by_number(found, r"reassembly/(\d+)_fragments/in_order/copies",
                                              each_fragment),
             "only one copy": by_number(found, r"reassembly/(\d+)_fragments/in_order/one_copy",
                                        each_fragment),
         }, log_x=True)
    plot(folder, "pending", "Cost of a fragment while other frames are pending",
         "other partial frames pending", "ns per fragment", {
             f"{count} fragments a frame": by_number(
                 found, rf"reassembly/{count}_fragments/in_order/(\d+)_pending/player",
                 lambda _, count=count: 1 / count) for count in (1, 10, 107, 1000)
         }, key="right bottom")

    frames = 60
    sizes = {320: 180, 640: 360, 960: 540, 1280: 720, 1920: 1080}

    def by_size(pattern, scale):
        return [(width * sizes[width] / 1e6, ms)
                for width, ms in by_number(found, pattern, lambda _: scale)]

    plot(folder, "picture_size", "One picture", "million pixels", "ms", {
        "decoded and converted, player": by_size(r"decode/(\d+)x\d+/same_size/player",
                                                 1e-6 / frames),
        "decoded and converted, floor": by_size(r"decode/(\d+)x\d+/same_size/floor", 1e-6 / frames),
        "presented, player": by_size(r"present/(\d+)x\d+/new_picture/player", 1e-6),
        "presented, floor": by_size(r"present/(\d+)x\d+/new_picture/floor", 1e-6),
    })

    at_30 = [row for row in screen if row["fps"] == 30 and not row["paced"]]
    ours = [row for row in at_30 if row["subject"] == "player" and "median_ms" in row]
    plot(folder, "players", "Players at once, 720p30 each", "players", "ms; processor s per minute", {
        "delay, median (ms)": [(row["players"], row["median_ms"]) for row in ours],
        "delay, p95 (ms)": [(row["players"], row["p95_ms"]) for row in ours],
        "processor s per minute, all": [(row["players"], row["processor_s_per_min"])
                                        for row in ours],
    })
    plot(folder, "delays", "From the last datagram to the pixels in the window",
         "delay in ms", "share of the flips", {
             row["subject"]: [(delay, (i + 1) / len(row["delays_ms"]))
                              for i, delay in enumerate(row["delays_ms"])]
             for row in at_30 if row["players"] == 1
         }, key="right bottom")


def publish(folder, page, tables):
    PLOTS.mkdir(exist_ok=True)
    for file in folder.glob("*.svg"):
        shutil.copy(file, PLOTS)
    before, rest = PAGE.read_text().split(BEGIN)
    after = rest.split(END)[1]
    PAGE.write_text(f"{before}{BEGIN}\n\n{page}\n{END}{after}")
    TABLE.write_text(
        "# Performance, every figure\n\n"
        "`scripts/bench --publish` writes this page. What the figures mean, and why they are what\n"
        "they are: [performance.md](performance.md).\n\n"
        "Read the ratio of the first table first: 1.00 is as fast as the floor, and a figure with a\n"
        f"goal meets it if its ratio is no smaller.\n\n{tables}")


def text(*parts):
    return "\n\n".join("\n".join(lines) for lines in parts) + "\n"


def main():
    folder = pathlib.Path(sys.argv[1]).resolve()
    facts = conditions(folder)
    found = timings(folder)
    rows = compare(found)
    pending = pending_costs(found)
    screen = at_the_screen(folder)
    facts_list = [f"- {key}: {value}" for key, value in facts.items()]
    page = text(facts_list,
                ["### Beside their floors"], summary_table(rows, pending),
                ["Every case: [performance-table.md](performance-table.md)."],
                ["### At the screen"], screen_table(screen),
                [f"Runs of each row: {max((row['rounds'] for row in screen), default=0)}. "
                 "A change that was missed counts in no percentile."])
    tables = text(facts_list,
                  ["## Beside their floors"], ratio_table(rows),
                  ["## Processor time of all threads"], processor_table(rows),
                  ["## Reassembly while other frames are pending"], pending_table(pending))
    (folder / "report.md").write_text(f"{page}\n{tables}")
    (folder / "report.json").write_text(
        json.dumps({"conditions": facts, "ratios": rows, "pending": pending, "screen": screen},
                   indent=1) + "\n")
    plot_all(folder, found, screen)
    if "--publish" in sys.argv[2:]:
        publish(folder, page, tables)


if __name__ == "__main__":
    main()
