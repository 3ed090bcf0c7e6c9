"""Judges times: from the rounds of a case to a value, its interval and a verdict.

A turn has one round of each role, one behind the other on one CPU. The value is the median over the turns of what the
rounds of one turn give together. Turns with an involuntary context switch are thrown away. A verdict needs a calm
machine: when there is doubt, the row is not judged, which is neither "holds" nor an alarm.
"""
import math
import statistics

LEAST_TURNS = 15      # clean ones, for a verdict
MOST_TAKEN = 0.05     # share of the time for which others may have had the CPU
MOST_BUSY = 0.15      # share of the whole machine that others may have used
CONFIDENCE = 0.99     # of the interval of a median

HOLDS, REACHED, FAILS, MISSING, INFORMATION = ("holds", "holds, goal reached", "DOES NOT HOLD", "NOT MEASURED",
                                               "information")
COUNTER = {"cycles": "cycle counter", "mispredicts": "counter of mispredicted branches"}


def interval(values):
    """The median's interval: the values between which the true median lies, whatever the distribution is."""
    ordered, below, rank = sorted(values), 0.0, 0
    # The number of values below the true median is binomial.
    for candidate in range(len(ordered) // 2):
        below += math.comb(len(ordered), candidate) / 2 ** len(ordered)
        if 2 * below > 1 - CONFIDENCE:
            break
        rank = candidate + 1
    rank = max(rank - 1, 0)
    return ordered[rank], ordered[len(ordered) - 1 - rank]


def within(row, value, bound):
    if row["better"] == "higher":
        return value >= bound
    if row["better"] == "equal":
        return value == bound
    return value <= bound


def combined(row, case, rounds, measure):
    """What the rounds of one turn give together. None when that is no number."""
    ours, floor = rounds[row["ours"]][measure], rounds[row["floor"]][measure]
    if row["kind"] == "more":
        return (ours - floor) / case["times"]
    if row["kind"] == "ratio":
        return ours / floor
    if row["kind"] == "speedup":
        return floor / ours
    if row["kind"] == "rate":  # million a second
        return case["times"] / ours * 1e3
    if row["kind"] == "growth":
        return ours / floor / (int(row["ours"]) / int(row["floor"]))
    if row["kind"] == "share":
        bare = rounds[row["bare"]][measure]
        return (ours - bare) / (floor - bare) if floor > bare else None
    raise ValueError(f"unknown kind {row['kind']}")


def turns_of(case):
    """The turns as dictionaries: role -> column -> number."""
    return [{role: dict(zip(case["columns"], numbers)) for role, numbers in zip(case["roles"], turn)}
            for turn in case["turns"]]


def clean(turns):
    return [turn for turn in turns if all(one["switches"] == 0 for one in turn.values())]


def values(row, case, turns, measure):
    """One value a turn. Empty when the machine does not count what is measured."""
    used = [row[role] for role in ("ours", "floor", "bare") if role in row]
    if any(turn[role][measure] is None for turn in turns for role in used):
        return []
    return [combined(row, case, turn, measure) for turn in turns]


def doubt(case, turns, usable):
    """Why the machine was not calm enough for a verdict, or None."""
    if len(usable) < LEAST_TURNS:
        return f"{len(usable)} of {len(turns)} turns without a context switch, {LEAST_TURNS} are needed"
    taken = (case["waited"] + case["stolen"]) / case["seconds"]
    if taken > MOST_TAKEN:
        return f"others had the CPU for {taken:.0%} of the time"
    busy = case["others"] / case["cpus"] / case["seconds"]
    if busy > MOST_BUSY:
        return f"others used {busy:.0%} of the machine"
    return None


def verdict(row, found):
    low, high = interval(found)
    holds = [within(row, value, row["limit"]) for value in (low, high)]
    if holds[0] != holds[1]:
        return "not judged: too noisy, the limit lies inside the interval"
    middle = len(found) // 2
    halves = [within(row, statistics.median(half), row["limit"]) for half in (found[:middle], found[middle:])]
    if halves[0] != halves[1]:
        return "not judged: it drifts, the limit holds in one half of the turns alone"
    if not holds[0]:
        return FAILS
    return REACHED if within(row, statistics.median(found), row["goal"]) else HOLDS


def judge(row, cases):
    """The row with value, low, high, turns, clean, measured_by and verdict."""
    judged = dict(row, value=None, verdict=MISSING)
    case = cases.get(row["case"])
    if case is None:
        return judged
    if "cannot" in case:
        return dict(judged, verdict=f"not judged: {case['cannot']}")
    turns = turns_of(case)
    usable = clean(turns)
    judged.update(turns=len(turns), clean=len(usable), measured_by=row["measure"])
    seen = usable or turns  # shown even without a verdict, for information
    found = values(row, case, seen, row["measure"])
    missing = not found
    if missing and row["measure"] == "cycles":
        judged["measured_by"] = "tsc"
        found = values(row, case, seen, "tsc")
    numbers = [one for one in found if one is not None]
    if numbers:
        judged["value"] = statistics.median(numbers)
        judged["low"], judged["high"] = interval(numbers)
    if "limit" not in row:
        judged["verdict"] = INFORMATION
    elif missing:
        judged["verdict"] = f"not judged: no {COUNTER[row['measure']]}"
    else:
        reason = doubt(case, turns, usable)
        if reason is None and len(numbers) < len(found):
            reason = "too noisy, the rival needs less than the bare work"
        judged["verdict"] = f"not judged: {reason}" if reason else verdict(row, found)
    return judged


def is_wrong(judged):
    """Whether the row is an error: a limit that does not hold, or a figure that was not measured at all."""
    return judged["verdict"] in (FAILS, MISSING)
