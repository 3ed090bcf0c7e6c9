#!/usr/bin/env python3
"""Draws the pictures of docs/architecture.md: the walks from the page itself, the owners from owners.txt.

    draw.py write [ROOT]   writes docs/figures/walk-*.svg and owners.svg
    draw.py check [ROOT]   fails when one of them is not what "write" would write
"""
import os
import re
import sys
from xml.sax.saxutils import escape

HERE = os.path.dirname(os.path.abspath(__file__))
TREE = os.path.dirname(os.path.dirname(os.path.dirname(HERE)))
sys.path.insert(0, os.path.join(TREE, "tests", "docs"))
sys.dont_write_bytecode = True
from pages import read, walks  # noqa: E402

INK, LINE, BOX, DOT = "#222222", "#b8c4cc", "#eef3f6", "#2a6f97"
CHARACTER = 7.2  # width of one, at size 12
LANE, LABEL = 64, 30


def text(x, y, content, anchor="start", size=12, weight="normal"):
    return (f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" font-size="{size}" font-weight="{weight}" '
            f'fill="{INK}">{escape(content)}</text>')


def line(x1, y1, x2, y2, colour=LINE, arrow=False):
    return (f'<line x1="{x1:.0f}" y1="{y1:.0f}" x2="{x2:.0f}" y2="{y2:.0f}" stroke="{colour}" stroke-width="1.5"'
            + (' marker-end="url(#arrow)"' if arrow else "") + "/>")


def box(x, y, width, height):
    return f'<rect x="{x:.0f}" y="{y:.0f}" width="{width:.0f}" height="{height:.0f}" rx="4" fill="{BOX}" stroke="{LINE}"/>'


def document(width, height, parts):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height:.0f}" width="{width:.0f}" '
            f'height="{height:.0f}" font-family="sans-serif"><defs><marker id="arrow" viewBox="0 0 8 8" refX="7" refY="4" '
            f'markerWidth="7" markerHeight="7" orient="auto"><path d="M0 0 8 4 0 8z" fill="{DOT}"/></marker></defs>'
            f'<rect width="{width:.0f}" height="{height:.0f}" fill="white"/>\n' + "\n".join(parts) + "\n</svg>\n")


def walk(steps):
    """One lane a file, one row a step: the steps go down, and to the lane of their file."""
    files = list(dict.fromkeys(file for file, _ in steps))
    names = max(len(file) for file in files) * CHARACTER
    left, top = 24, 24
    rows = top + len(files) * LABEL
    parts = []
    for n, file in enumerate(files):  # each name above the others' lanes, so that none is cut
        x = left + n * LANE
        parts += [line(x, top + n * LABEL, x, rows + len(steps) * LABEL),
                  box(x - 10, top + n * LABEL - 16, len(file) * CHARACTER + 16, 22), text(x - 2, top + n * LABEL, file)]
    before, arrows = None, []
    for n, (file, function) in enumerate(steps):
        x, y = left + files.index(file) * LANE, rows + n * LABEL + 12
        if before:
            arrows.append(line(*before, x, y - 6, DOT, arrow=True))
        parts += [f'<circle cx="{x}" cy="{y}" r="5" fill="{DOT}"/>',
                  f'<rect x="{x + 8}" y="{y - 10}" width="{(len(function) + 4) * CHARACTER:.0f}" height="20" fill="white"/>',
                  text(x + 10, y + 4, f"{n + 1}  {function}")]
        before = (x, y + 6)
    parts += arrows
    widest = max(left + files.index(file) * LANE + (len(function) + 6) * CHARACTER for file, function in steps)
    return document(max(widest, left + (len(files) - 1) * LANE + names + 30), rows + len(steps) * LABEL + 10, parts)


def owners(table):
    """A tree: each thing below its owner."""
    parts, open_at, y, widest = [], {}, 20, 0
    for entry in table.splitlines():
        if not entry.strip() or entry.startswith("#"):
            continue
        depth = (len(entry) - len(entry.lstrip())) // 4
        name, _, rest = entry.strip().partition(": ")
        x = 20 + depth * 34
        if depth:
            parent = 20 + (depth - 1) * 34 + 14
            parts += [line(parent, open_at[depth - 1], parent, y + 11), line(parent, y + 11, x, y + 11)]
        width = len(name) * CHARACTER + 16
        parts += [box(x, y, width, 22), text(x + 8, y + 15, name, weight="normal" if depth else "bold"),
                  text(x + width + 10, y + 15, rest)]
        widest = max(widest, x + width + 10 + len(rest) * CHARACTER)
        open_at[depth] = y + 22
        y += 32
    return document(widest, y + 6, parts)


def pictures(root):
    for name, (_, steps) in walks(read(root, "docs/architecture.md")).items():
        yield f"docs/figures/walk-{re.sub(' ', '-', name)}.svg", walk(steps)
    yield "docs/figures/owners.svg", owners(read(root, "docs/figures/src/owners.txt"))


def main():
    if len(sys.argv) not in (2, 3) or sys.argv[1] not in ("write", "check"):
        sys.exit(__doc__)
    root = sys.argv[2] if len(sys.argv) == 3 else TREE
    stale = []
    for path, picture in pictures(root):
        at = os.path.join(root, path)
        if sys.argv[1] == "write":
            with open(at, "w", encoding="utf-8") as file:
                file.write(picture)
        elif not os.path.exists(at) or read(root, path) != picture:
            stale.append(path)
    for path in stale:
        print(f"{path} is not what its source says: run docs/figures/src/draw.py write")
    sys.exit(1 if stale else 0)


if __name__ == "__main__":
    main()
