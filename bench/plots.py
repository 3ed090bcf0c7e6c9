#!/usr/bin/env python3
"""Draws figures as SVG from the numbers that run.py wrote.

    plots.py RESULTS.json DIRECTORY

A figure that was not measured is left as it is. Times are those of the turns without a context switch, if there are
any.
"""
import json
import os
import sys
from xml.sax.saxutils import escape

WIDTH, BAR, GAP, LEFT, RIGHT = 720, 26, 14, 250, 90
OURS, FLOOR, INK, GRID = "#2a6f97", "#b8c4cc", "#222222", "#dddddd"
SERIES = ("#2a6f97", "#c2571a", "#4c8c2b", "#7a4fa3", "#a33b4f", "#5b6770")


def text(x, y, content, anchor="start", size=13, weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" font-weight="{weight}" '
            f'fill="{INK}">{escape(content)}</text>')


def document(height, parts):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" height="{height}" '
            f'font-family="sans-serif"><rect width="{WIDTH}" height="{height}" fill="white"/>\n' + "\n".join(parts)
            + "\n</svg>\n")


def duration(ns):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def bars(title, entries, shown):
    """Horizontal bars; entries are (label, value, low, high, colour), low and high drawn as a whisker when given."""
    top = max(high or value for _, value, _, high, _ in entries)
    scale = (WIDTH - LEFT - RIGHT) / top
    parts = [text(20, 28, title, size=16, weight="bold")]
    y = 48
    for label, value, low, high, colour in entries:
        middle = y + BAR / 2
        parts.append(text(LEFT - 10, middle + 5, label, "end"))
        parts.append(f'<rect x="{LEFT}" y="{y}" width="{value * scale:.1f}" height="{BAR}" fill="{colour}"/>')
        if high:
            parts.append(f'<line x1="{LEFT + low * scale:.1f}" x2="{LEFT + high * scale:.1f}" y1="{middle}" '
                         f'y2="{middle}" stroke="{INK}" stroke-width="2"/>')
        parts.append(text(LEFT + (high or value) * scale + 8, middle + 5, shown(value)))
        y += BAR + GAP
    return document(y + 10, parts)


def busy(results, *cases):
    """What a title says of times that were measured while others were busy."""
    return " - BUSY MACHINE" if any(results["cases"][case]["doubt"] for case in cases) else ""


def timed(results, case, role, label, colour):
    measured = results["cases"][case]
    low, middle, high = (one / measured["times"] for one in measured["quartiles"][role])
    return label, middle, low, high, colour


def packet(results):
    counts = results["numbers"]
    entries = [(label, counts[name], None, None, colour)
               for name, label, colour in (("packet/ours", "packet, VexoRecv", OURS),
                                           ("packet/floor", "packet, bare poll", FLOOR),
                                           ("idle/ours", "idle, VexoRecv", OURS),
                                           ("idle/floor", "idle, bare poll", FLOOR))]
    return bars("Instructions of one poll, the simulated card's own included", entries, lambda value: f"{value:.0f}")


def packet_types(results):
    entries = []
    for case, types in (("constant", "one type"), ("alternating", "two types in turn"), ("rotating", "four in turn"),
                        ("random", "random types")):
        entries += [timed(results, f"packet/{case}", "ours", f"{types}, VexoRecv", OURS),
                    timed(results, f"packet/{case}", "hand", f"{types}, hand-written", FLOOR)]
    return bars("One packet of 64 bytes (median, quartiles)" + busy(results, "packet/alternating"), entries, duration)


def log_line(results):
    entries = [timed(results, "log-line", "ours", "elog_output", OURS),
               timed(results, "log-line", "spdlog", "spdlog", FLOOR),
               timed(results, "log-line", "writes", "the two writes alone", FLOOR)]
    title = "One INFO line to standard output and file (median, quartiles)" + busy(results, "log-line")
    return bars(title, entries, duration)


def filter_pass(results):
    entries = [timed(results, f"filter/{ids}", role, f"{label}, {int(ids):,} ids", colour)
               for ids in ("10", "1000")
               for role, label, colour in (("ours", "ours", OURS), ("hash-sets", "hash sets", FLOOR))]
    title = "16,384 ids filtered for 16 channels (median, quartiles)" + busy(results, "filter/1000")
    return bars(title, entries, duration)


def contract_map(results):
    entries = [timed(results, "contract-map", "ours", "ours", OURS),
               timed(results, "contract-map", "bare", "bare calls and lines", FLOOR)]
    title = "Contract map of 2,048 new instruments (median, quartiles)" + busy(results, "contract-map")
    return bars(title, entries, duration)


def growth_series(results):
    """axis -> [(size, ns), ...]"""
    return {name[len("growth/"):]: sorted((int(size), times[1]) for size, times in case["quartiles"].items())
            for name, case in sorted(results["cases"].items()) if name.startswith("growth/")}


def growth(results):
    """Time against size, both of the smallest size; the dashed diagonal is linear growth."""
    series = growth_series(results)
    if not series:
        raise KeyError("growth")
    left, bottom, side = 70, 470, 400
    title = "Growth: time against size, both relative to the smallest"
    parts = [text(20, 28, title + busy(results, *(f"growth/{axis}" for axis in series)), size=16, weight="bold")]
    top = max(max(x / points[0][0] for x, _ in points) for points in series.values())
    top = max(top, max(max(y / points[0][1] for _, y in points) for points in series.values()))
    at = lambda x, y: (left + (x - 1) / (top - 1) * side, bottom - (y - 1) / (top - 1) * side)
    parts.append(f'<path d="M{left},{bottom - side} V{bottom} H{left + side}" fill="none" stroke="{INK}"/>')
    (x0, y0), (x1, y1) = at(1, 1), at(top, top)
    parts.append(f'<line x1="{x0}" y1="{y0}" x2="{x1}" y2="{y1}" stroke="{GRID}" stroke-width="2" '
                 f'stroke-dasharray="6 4"/>')
    for number, (axis, points) in enumerate(series.items()):
        colour = SERIES[number % len(SERIES)]
        places = [at(x / points[0][0], y / points[0][1]) for x, y in points]
        parts.append(f'<polyline points="{" ".join(f"{x:.1f},{y:.1f}" for x, y in places)}" fill="none" '
                     f'stroke="{colour}" stroke-width="2.5"/>')
        parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="4" fill="{colour}"/>' for x, y in places]
        parts.append(f'<rect x="490" y="{60 + 24 * number}" width="14" height="14" fill="{colour}"/>')
        parts.append(text(512, 72 + 24 * number, axis))
    parts.append(text(left + side, bottom + 22, f"{top:.1f} times the size", "end"))
    parts.append(text(left, bottom + 22, "1", "middle"))
    parts.append(text(left - 8, bottom - side + 5, f"{top:.1f}", "end"))
    return document(510, parts)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    with open(sys.argv[1]) as numbers:
        results = json.load(numbers)
    os.makedirs(sys.argv[2], exist_ok=True)
    for draw in (packet, packet_types, log_line, filter_pass, contract_map, growth):
        path = os.path.join(sys.argv[2], f"{draw.__name__.replace('_', '-')}.svg")
        try:
            drawing = draw(results)
        except KeyError as missing:
            print(f"{path}: not measured ({missing})")
            continue
        with open(path, "w") as out:
            out.write(drawing)
        print(f"drew {path}")


if __name__ == "__main__":
    main()
