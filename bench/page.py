"""Writes the table of figures into a page, between two comments of the page."""
import textwrap

import rows

WIDTH = 120  # of a page's lines
BEGIN = "<!-- figures: written by scripts/bench.sh --write-page -->"
END = "<!-- end of figures -->"


def table(judged):
    lines = ["| " + " | ".join(rows.HEAD) + " |", "|" + "---|" * len(rows.HEAD)]
    lines += ["| " + " | ".join(rows.cells(row)) + " |" for row in judged]
    return "\n".join(lines)


def polls(numbers, cases):
    """Percentiles of single polls, a line for each reader; and why a busy machine makes them longer."""
    lines = ["| one poll, ticks of the time-stamp counter | median | 99.9th percentile | longest |",
             "|---|---|---|---|"]
    for case, caches in (("each", "warm caches"), ("cold", "cold caches")):
        for reader, name in (("ours", "`VexoRecv`"), ("hand", "hand-written handler"), ("empty", "bare poll")):
            found = [numbers.get(f"packet/{case}/{reader}/{percentile}") for percentile in ("median", "p99.9", "max")]
            if None not in found:
                lines.append(f"| {name}, {caches} | " + " | ".join(f"{value:,.0f}" for value in found) + " |")
    reasons = {cases[name]["doubt"] for name in ("packet/each", "packet/cold") if name in cases} - {None}
    busy = f"\n\nThese polls are those of a busy machine: {'; '.join(sorted(reasons))}." if reasons else ""
    return "\n".join(lines) + busy


def block(machine, judged, numbers, cases):
    """@p cases are the summaries of run.py"""
    limited = [row for row in judged if "limit" in row]
    others = [row for row in judged if "limit" not in row]
    measured = (f"Measured on {machine['date'][:10]}: {machine['cpu']}, {machine['kernel']}, {machine['compiler']}, "
                f"{machine['flags']}; load {machine['load']}.")
    parts = [textwrap.fill(measured, WIDTH, break_on_hyphens=False), table(limited), "For information:", table(others),
             polls(numbers, cases)]
    return "\n\n".join(parts)


def replaced(page, text, first=BEGIN, last=END):
    """The page with the text between its two comments."""
    begin, end = page.index(first) + len(first), page.index(last)
    return page[:begin] + "\n\n" + text + "\n\n" + page[end:]


def write(path, machine, judged, numbers, cases):
    with open(path, encoding="utf-8") as file:
        page = file.read()
    with open(path, "w", encoding="utf-8") as file:
        file.write(replaced(page, block(machine, judged, numbers, cases)))
