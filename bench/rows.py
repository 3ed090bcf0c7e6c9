"""Rows of the table of figures: exact counts, and what the table shows of counts and times."""
import judging

EXACT = ("instructions-more", "instructions", "value")  # exact counts, the same on every run
HEAD = ("figure", "floor or rival", "measured", "goal", "limit", "verdict")


def judge_count(row, numbers):
    judged = dict(row, value=None, verdict=judging.MISSING)
    if row["ours"] not in numbers or ("floor" in row and row["floor"] not in numbers):
        return judged
    judged["value"] = numbers[row["ours"]] - (numbers[row["floor"]] if "floor" in row else 0)
    holds = judging.within(row, judged["value"], row["limit"])
    reached = judging.within(row, judged["value"], row["goal"])
    judged["verdict"] = judging.FAILS if not holds else judging.REACHED if reached else judging.HOLDS
    return judged


def judge(row, cases, numbers):
    return judge_count(row, numbers) if row["kind"] in EXACT else judging.judge(row, cases)


def number(value):
    """Three digits that count, and no more than two behind the point."""
    places = max(0, 2 if abs(value) < 10 else 1 if abs(value) < 100 else 0)
    shown = f"{value:.{places}f}"
    return shown.rstrip("0").rstrip(".") if "." in shown else shown


def measured(row):
    """The value and its interval. Ticks of the time-stamp counter are named: they are no cycles."""
    if row["value"] is None:
        return "-"
    shown = number(row["value"])
    if "low" in row:
        shown += f" ({number(row['low'])} to {number(row['high'])})"
    return f"TSC {shown}" if row.get("measured_by") == "tsc" else shown


def cells(row):
    return (row["what"], row["rival"] or "-", measured(row), str(row.get("goal", "-")), str(row.get("limit", "-")),
            row["verdict"])


def print_table(judged):
    lines = [HEAD] + [cells(row) for row in judged]
    widths = [max(len(line[column]) for line in lines) for column in range(len(HEAD))]
    for line in lines:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())
