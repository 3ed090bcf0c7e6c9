"""Rows of the table of figures: how ours and the floor become one number, and whether its limit holds."""
import statistics

EXACT = ("instructions-more", "instructions", "value")  # exact counts, the same on every run


def quartiles(times):
    if len(times) < 2:
        return [times[0]] * 3
    return statistics.quantiles(times, n=4, method="inclusive")


def measure(row, times, numbers):
    """(ours, floor, result) of a row; None when a number is missing. Times are nanoseconds."""
    kind = row["kind"]
    if kind in EXACT:
        ours, floor = numbers.get(row["ours"]), numbers.get(row.get("floor"), 0.0)
        if ours is None or ("floor" in row and row["floor"] not in numbers):
            return None
        return ours, floor, ours - floor
    if kind == "growth":
        first, last = row["cases"][0], row["cases"][-1]
        if first not in times or last not in times:
            return None
        small, large = (statistics.median(times[name]) for name in (first, last))
        sizes = [int(name.rsplit("/", 1)[1]) for name in (first, last)]
        return large, small, large / small / (sizes[1] / sizes[0])
    if row["ours"] not in times or row["floor"] not in times:
        return None
    ours, floor = (statistics.median(times[row[role]]) for role in ("ours", "floor"))
    return ours, floor, ours / floor if kind == "ratio" else floor / ours


def within(row, value, bound):
    if row["better"] == "higher":
        return value >= bound
    if row["better"] == "equal":
        return value == bound
    return value <= bound


def spread(times):
    """Half the distance of the quartiles, of the median."""
    low, middle, high = quartiles(times)
    return (high - low) / 2 / middle


def judge(row, times, numbers):
    """The row with ours, floor, result, reached (goal) and holds (limit)."""
    found = measure(row, times, numbers)
    judged = dict(row, measured=found is not None, holds=False, reached=False)
    if found:
        judged["ours_value"], judged["floor_value"], judged["result"] = found
        timed = [] if row["kind"] in EXACT else [times[name] for name in (row.get("ours"), row.get("floor")) if name in times]
        if timed:
            judged["spread"] = max(spread(one) for one in timed)
        judged["holds"] = within(row, found[2], row["limit"])
        judged["reached"] = within(row, found[2], row["goal"])
    return judged


def text(row, value):
    """A measured number as the table shows it: a count, or a time with its unit."""
    if row["kind"] in EXACT:
        return f"{value:.1f}".rstrip("0").rstrip(".")
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if value >= size:
            return f"{value / size:.3g} {unit}"
    return f"{value:.3g} ns"


def print_table(judged):
    head = ("figure", "what", "ours", "floor", "result", "spread", "goal", "limit", "")
    lines = [head]
    for row in judged:
        if not row["measured"]:
            lines.append((row["figure"], row["what"], "-", "-", "-", "-", row["goal"], row["limit"], "NOT MEASURED"))
            continue
        floor = text(row, row["floor_value"]) if "floor" in row or row["kind"] == "growth" else "-"
        verdict = "DOES NOT HOLD" if not row["holds"] else "holds, goal reached" if row["reached"] else "holds"
        lines.append((row["figure"], row["what"], text(row, row["ours_value"]), floor, f"{row['result']:.4g}",
                      f"{row['spread']:.0%}" if "spread" in row else "exact", row["goal"], row["limit"], verdict))
    cells = [[str(cell) for cell in line] for line in lines]
    widths = [max(len(line[column]) for line in cells) for column in range(len(head))]
    for line in cells:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())
