#!/usr/bin/env python3
"""Checks every include of the tree against the arrows of docs/layers.txt, and draws them.

    scripts/layers.py check [ROOT]   one line for each include that is wrong; exit status 1 if there is any
    scripts/layers.py draw  [ROOT]   writes docs/figures/layers.svg

"check" also fails when the picture is not the one that "draw" would write.
"""
import os
import re
import sys

TABLE = "docs/layers.txt"
PICTURE = "docs/figures/layers.svg"
SOURCE = re.compile(r"\.(h|hpp|c|cc|cpp|ipp|inc|def)(\.in)?$")
INCLUDE = re.compile(r"^\s*#\s*include\s*([<\"])([^>\"]+)[>\"]")
# Headers that are installed or copied are included as an application includes them: by their path below one of these.
INSTALLED = ("include", "interface", "sim/include", "examples")


class Table:
    def __init__(self, root):
        self.rooms, self.exceptions = {}, set()
        with open(os.path.join(root, TABLE), encoding="utf-8") as lines:
            for number, line in enumerate(lines, 1):
                line = line.split("#")[0].strip()
                if not line:
                    continue
                room, colon, rest = line.partition(":")
                if not colon:
                    raise SystemExit(f"{TABLE}:{number}: no colon")
                if room == "except":
                    source, _, header = rest.partition("->")
                    self.exceptions.add((source.strip(), header.strip()))
                else:
                    self.rooms[room] = rest.split()
        for room, names in self.rooms.items():
            self.rooms[room] = [one for name in names for one in self._expand(room, name)]

    def _expand(self, room, name):
        found = [r for r in self.rooms if r == name or (name.endswith("/*") and r.startswith(name[:-1]))]
        if not found:
            raise SystemExit(f"{TABLE}: {room}: there is no room {name}")
        return found

    def room_of(self, path):
        """The room with the longest name that the path lies in; None outside of all."""
        inside = [room for room in self.rooms if path.startswith(room + "/")]
        return max(inside, key=len, default=None)


def sources(root):
    for folder, folders, files in os.walk(root):
        # Hidden folders and build folders hold no source of ours.
        folders[:] = sorted(f for f in folders if not f.startswith(".")
                            and not (folder == root and re.match(r"build|run$", f))
                            and not os.path.exists(os.path.join(folder, f, "CMakeCache.txt")))
        for name in sorted(files):
            if SOURCE.search(name):
                yield os.path.relpath(os.path.join(folder, name), root)


def find_header(files, mark, name):
    """(path from the root, None), (None, what is wrong), or (None, None) for a header of somebody else."""
    def exists(path):
        return path in files or path + ".in" in files  # the build makes a header of a .in

    for folder in INSTALLED:
        if exists(f"{folder}/{name}"):
            return f"{folder}/{name}", None
    if exists(name):
        public = next((f for f in INSTALLED if name.startswith(f + "/")), None)
        if public and public != "interface":
            return None, f"write it as it is installed: {name[len(public) + 1:]}"
        return name, None if mark == '"' else "a header of this tree stands between quotes"
    if mark == '"':
        return None, "not written from the root of the tree"
    return None, None


def check(root):
    table, files, wrong = Table(root), set(sources(root)), []
    unused = set(table.exceptions)
    for source in sorted(files):
        room = table.room_of(source)
        if room is None:
            wrong.append(f"{source}: lies in no room of {TABLE}")
            continue
        with open(os.path.join(root, source), encoding="utf-8") as lines:
            for number, line in enumerate(lines, 1):
                match = INCLUDE.match(line)
                if not match:
                    continue
                header, trouble = find_header(files, *match.groups())
                if trouble:
                    wrong.append(f'{source}:{number}: "{match.group(2)}": {trouble}')
                if header is None or (source, header) in table.exceptions:
                    unused.discard((source, header))
                    continue
                other = table.room_of(header)
                if other != room and other not in table.rooms[room]:
                    wrong.append(f"{source}:{number}: {room} may not include from {other}: {header}")
    wrong += [f"{TABLE}: no longer needed: except: {source} -> {header}" for source, header in sorted(unused)]
    try:
        with open(os.path.join(root, PICTURE), encoding="utf-8") as file:
            drawn = file.read()
    except FileNotFoundError:
        drawn = ""
    if drawn != picture(table):
        wrong.append(f"{PICTURE}: does not show {TABLE}; run scripts/layers.py draw")
    return wrong


# The picture. Tests and benchmarks stay out: they may use everything.
HIDDEN = ("tests", "bench")
BOX_WIDTH, BOX_HEIGHT, ROW = 122, 30, 62
# The middle of each column. A room without one of its own stands in the column of its part of the tree.
COLUMNS = {"include": 90, "interface": 330, "sim/include": 610, "capture": 390, "tools": 400, "examples": 740, "packaging": 860,
           "src": 210, "src/card": 290, "src/driver": 290, "src/dayfile": 120,
           "sim": 580, "sim/replay": 430, "sim/scenario": 530, "sim/shm": 680}


def reduced(rooms):
    """The arrows that no chain of other arrows already says."""
    def reaches(start, goal):
        return any(step == goal or reaches(step, goal) for step in rooms[start])

    return {room: [to for to in targets if not any(reaches(other, to) for other in targets if other != to)]
            for room, targets in rooms.items()}


def places(rooms):
    """The middle of each room's box: the height says how many rooms lie below, the column whose part it is."""
    ranks = {}

    def rank(room):
        if room not in ranks:
            ranks[room] = 1 + max((rank(to) for to in rooms[room]), default=-1)
        return ranks[room]

    rows = {}
    for room in rooms:
        column = COLUMNS.get(room) or COLUMNS[room.split("/")[0]]
        rows.setdefault((rank(room), column), []).append(room)
    top = max(ranks.values())
    middle = {}
    for (row, column), there in rows.items():
        for place, room in enumerate(sorted(there)):
            x = column + (2 * place - len(there) + 1) * (BOX_WIDTH + 18) // 2
            middle[room] = (x, 30 + (top - row) * ROW)
    return middle


def picture(table):
    rooms = {room: [to for to in targets if to not in HIDDEN]
             for room, targets in table.rooms.items() if room not in HIDDEN}
    middle = places(rooms)
    width = max(x for x, _ in middle.values()) + BOX_WIDTH // 2 + 12
    height = max(y for _, y in middle.values()) + BOX_HEIGHT // 2 + 12
    colours = {"src": "#dbe9f6", "sim": "#e4f1de", "tools": "#f3e6f5", "examples": "#f3e6f5"}
    svg = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" height="{height}"',
           '     font-family="sans-serif" font-size="13">',
           f"  <!-- Drawn by scripts/layers.py from {TABLE}: do not edit. -->",
           "  <title>Which room includes from which</title>",
           '  <defs><marker id="tip" viewBox="0 0 10 10" refX="9" refY="5" markerWidth="7" markerHeight="7" orient="auto">'
           '<path d="M0 0L10 5L0 10z" fill="#555"/></marker></defs>',
           f'  <rect width="{width}" height="{height}" fill="#fff"/>']
    for room, targets in reduced(rooms).items():
        x, y = middle[room]
        for to in targets:
            tx, ty = middle[to]
            start, end = y + BOX_HEIGHT // 2, ty - BOX_HEIGHT // 2
            bend = min(60, (end - start) // 2)
            svg.append(f'  <path d="M{x} {start}C{x} {start + bend} {tx} {end - bend} {tx} {end}" fill="none"'
                       ' stroke="#555" marker-end="url(#tip)"/>')
    for room, (x, y) in middle.items():
        colour = colours.get(room.split("/")[0], "#f6ecd2") if room != "sim/include" else "#f6ecd2"
        svg.append(f'  <rect x="{x - BOX_WIDTH // 2}" y="{y - BOX_HEIGHT // 2}" width="{BOX_WIDTH}"'
                   f' height="{BOX_HEIGHT}" rx="5" fill="{colour}" stroke="#555"/>')
        svg.append(f'  <text x="{x}" y="{y + 5}" text-anchor="middle">{room}</text>')
    return "\n".join(svg + ["</svg>", ""])


def main(arguments):
    if not arguments or arguments[0] not in ("check", "draw") or len(arguments) > 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    root = arguments[1] if len(arguments) > 1 else os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    if arguments[0] == "draw":
        os.makedirs(os.path.dirname(os.path.join(root, PICTURE)), exist_ok=True)
        with open(os.path.join(root, PICTURE), "w", encoding="utf-8") as file:
            file.write(picture(Table(root)))
        return 0
    wrong = check(root)
    print("\n".join(wrong) if wrong else f"Every include follows the arrows of {TABLE}.")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
