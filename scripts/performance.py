#!/usr/bin/env python3
"""The figures of docs/performance.md from what `make bench-cache` has measured: a table of goals, and two plots.

usage: performance.py RESULTS [BEFORE]     folders with cache-N.json, one for each number of ports
The plots go into docs/; the table is printed.
"""
import json
import re
import sys
from pathlib import Path

DOCS = Path(__file__).resolve().parent.parent / "docs"


def load(folder):
    """{ports: {name: {figure: value}}}: medians, times in nanoseconds."""
    sizes = {}
    for file in Path(folder).glob("cache-*.json"):
        figures = sizes.setdefault(int(re.search(r"\d+", file.stem)[0]), {})
        for entry in json.loads(file.read_text())["benchmarks"]:
            if entry.get("aggregate_name", "median") != "median" or entry.get("error_occurred"):
                continue
            name = re.sub(r"/(iterations:\d+|manual_time|real_time|process_time)", "", entry["run_name"])
            scale = {"ns": 1, "us": 1e3, "ms": 1e6}[entry["time_unit"]]
            figures[name] = dict(entry, time=entry["real_time"] * scale, cpu=entry["cpu_time"] * scale)
    return sizes


# What is compared, how, with what bound. `a / b` of two figures at 10,000 ports unless a size stands behind @.
GOALS = [
    ("copy and release of a port / packed", "copy/port", "copy/port/rival", "<=", 0.2),
    ("copy and release of a static port / packed", "copy/static", "copy/static/rival", "<=", 0.3),
    ("look-up by key, 10,000 / 10", "look-up/key", "look-up/key@10", "<=", 1.5),
    ("look-up by key, ns", "look-up/key", None, "<=", 30),
    ("full walk / look-up by key", "look-up/key/walk", "look-up/key", ">=", 500),
    ("look-up by interface with copy / packed copy alone", "look-up/ifx", "copy/port/rival", "<=", 0.25),
    ("HGET with unpack / look-up by interface", "look-up/ifx/server", "look-up/ifx", ">=", 40),
] + [(f"{query}, 10,000 / 10", f"query/{query}", f"query/{query}@10", "<=", 1.5)
     for query in ("interface index", "port type", "chips of this card", "device name", "card is online",
                   "static port of an interface", "port of a place")] + [
    ("first synchronisation / two packed copies", "synchronisation:first, ms", "synchronisation:rival, ms", "<=", 0.5),
    ("synchronisation again / first", "synchronisation:again, ms", "synchronisation:first, ms", "<=", 0.7),
    ("resident memory after it / before",
     "synchronisation:resident MB after it", "synchronisation:resident MB before a resynchronisation", "<=", 1.15),
    ("set of an equal port / packed copy", "change/equal port", "change/equal port/rival", "<=", 0.5),
    ("set of an equal port, 10,000 / 10", "change/equal port", "change/equal port@10", "<=", 1.5),
    ("set of an equal static port / packed copy", "change/equal static port", "change/equal static port/rival", "<=", 0.5),
    ("changed port, other keys / packed copy", "change/port, other keys", "change/port, other keys/rival", "<=", 1.0),
    ("changed static port / packed copy", "change/static port", "change/static port/rival", "<=", 2.0),
    ("delete / packed copy", "change/delete", "copy/port/rival", "<=", 0.7),
    ("stream of sets / three packed copies each, time", "change/stream", "change/stream/rival", "<=", 1.5),
    ("the same, processor time of both threads", "change/stream:cpu", "change/stream/rival:cpu", "<=", 1.5),
    ("two readers / one", "readers/threads:2:items_per_second", "readers/threads:1:items_per_second", ">=", 1.4),
    ("two readers beside a writer / without", "readers beside a writer/threads:2:items_per_second",
     "readers/threads:2:items_per_second", ">=", 0.9),
    ("push while eight walk under the lock, us (99 of 100)",
     "push/eight walk under the lock:us, 99 of 100 within", None, "<=", 5000),
    ("push while eight look up, us (99 of 100)", "push/eight look up:us, 99 of 100 within", None, "<=", 5000),
    ("push / three hand-overs", "push/alone:us, median", "push/rival, three hand-overs:us, median", "<=", 1.0),
]


def value(sizes, what):
    """A figure `name[:counter][@ports]`; None when it was not measured."""
    name, _, ports = what.partition("@")
    figures = sizes.get(int(ports or 10000), {})
    if name in figures:
        return figures[name]["time"]
    name, _, counter = name.rpartition(":")
    return figures.get(name, {}).get(counter)


def ratio(sizes, over, under):
    a, b = value(sizes, over), value(sizes, under) if under else 1
    return a / b if a is not None and b else None


def shown(number):
    if number is None:
        return ""
    return f"{number:,.0f}" if number >= 100 else f"{number:.3g}"


def table(now, before):
    print("| figure | goal | before | now | |\n|---|---|---|---|---|")
    for text, over, under, sign, bound in GOALS:
        got = ratio(now, over, under)
        if got is None:
            continue
        met = got <= bound if sign == "<=" else got >= bound
        goal = f"at {'most' if sign == '<=' else 'least'} {bound:,}"
        print(f"| {text} | {goal} | {shown(ratio(before, over, under))} | {shown(got)} | {'met' if met else '**missed**'} |")


def plot(file, title, x_label, y_label, lines, log_x):
    """A small line chart, y logarithmic when x is."""
    import math
    width, height, left, bottom, top, right = 640, 360, 70, 50, 40, 190
    points = [p for _, line in lines for p in line]
    if not points:
        return
    fx = math.log10 if log_x else float
    fy = math.log10 if log_x else float
    xs, ys = [fx(p[0]) for p in points], [fy(p[1]) for p in points]
    x0, x1, y0, y1 = min(xs), max(xs), (min(ys) if log_x else 0), max(ys)
    x = lambda v: left + (fx(v) - x0) / ((x1 - x0) or 1) * (width - left - right)
    y = lambda v: height - bottom - (fy(v) - y0) / ((y1 - y0) or 1) * (height - bottom - top)
    colours = ["#1b6ca8", "#c0392b", "#27ae60", "#8e44ad", "#d68910", "#566573"]
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" font-family="sans-serif" '
           f'font-size="12"><rect width="100%" height="100%" fill="white"/>'
           f'<text x="{left}" y="20" font-size="14">{title}</text>'
           f'<text x="{left}" y="{height - 12}">{x_label}</text><text x="8" y="{top - 6}">{y_label}</text>']
    ticks = [10 ** e for e in range(math.floor(y0), math.ceil(y1) + 1)] if log_x else [y1 * i / 4 for i in range(5)]
    for tick in ticks:
        if not log_x or y0 <= math.log10(tick) <= y1:
            out.append(f'<line x1="{left}" x2="{width - right}" y1="{y(tick):.1f}" y2="{y(tick):.1f}" stroke="#ddd"/>'
                       f'<text x="{left - 6}" y="{y(tick) + 4:.1f}" text-anchor="end">{shown(tick)}</text>')
    for tick in sorted({p[0] for p in points}):
        out.append(f'<text x="{x(tick):.1f}" y="{height - bottom + 18}" text-anchor="middle">{tick:,}</text>')
    for i, (name, line) in enumerate(lines):
        colour = colours[i % len(colours)]
        path = " ".join(f"{x(a):.1f},{y(b):.1f}" for a, b in sorted(line))
        out.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        out.append(f'<text x="{width - right + 10}" y="{top + 18 * i + 10}" fill="{colour}">{name}</text>')
    (DOCS / file).write_text("\n".join(out + ["</svg>\n"]))


def line(sizes, what):
    return [(n, v) for n in sorted(sizes) if (v := value(sizes, f"{what}@{n}")) is not None]


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    now, before = load(sys.argv[1]), load(sys.argv[2]) if len(sys.argv) == 3 else {}
    if not now:
        sys.exit(f"{sys.argv[1]}: no cache-N.json")
    table(now, before)
    lines = []
    for name, what in (("by key", "look-up/key"), ("by interface, copied", "look-up/ifx"),
                       ("set, equal port", "change/equal port"), ("set, static port", "change/static port")):
        lines.append((name, line(now, what)))
        if what in ("look-up/key", "change/static port") and before:
            lines.append((name + ", before", line(before, what)))
    plot("performance-objects.svg", "Time of one operation", "ports of a kind in the cache", "ns", lines, log_x=True)
    at = now.get(10000, {})
    threads = [(name, [(n, at[f"{key}/threads:{n}"]["items_per_second"] / 1e6)
                       for n in (1, 2, 4) if f"{key}/threads:{n}" in at])
               for name, key in (("look-ups", "readers"), ("beside a writer", "readers beside a writer"),
                                 ("copies, no lock", "readers/rival"))]
    plot("performance-threads.svg", "Look-ups with copy, all threads together", "threads (two processors)",
         "million a second", threads, log_x=False)


main()
