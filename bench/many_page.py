"""The tables of what relay, server and remote cards carry, and how they get into their page."""
import textwrap

import page

BEGIN = "<!-- measured: written by scripts/bench.sh --many --write-page -->"
END = "<!-- end of what was measured -->"
PARTS = (("polls", "relay: polls"), ("sends", "relay: sends"), ("server", "server"),
         ("takes", "remote card: takes"), ("reads", "program: polls"))


def table(head, rows):
    return "\n".join(["| " + " | ".join(head) + " |", "|" + "---|" * len(head)] +
                     ["| " + " | ".join(row) + " |" for row in rows])


def time(us):
    return f"{us:,.0f} us" if us < 10_000 else f"{us / 1000:,.0f} ms"


def lost(run):
    """Of the reader that lost most."""
    return f"{max(run['lost']):,}"


def keeps_up(run):
    """Nothing is lost, and nothing piles up on the way."""
    return sum(run["lost"]) == 0 and run["arrived_per_second"] > 0.97 * run["rate"]


def cpu(run):
    return [f"{run['cpu_per_million'][part]:.2f}" for part, _ in PARTS]


def together(run):
    """CPU seconds a million packets, all readers included."""
    used = run["cpu_per_million"]
    return used["polls"] + used["sends"] + used["server"] + run["readers"] * (used["takes"] + used["reads"])


def rates(runs):
    head = ("packets a second", "arrive a second", "lost", "wait for the relay's poll at most",
            *(name for _, name in PARTS), "together")
    return table(head, [(f"{run['rate']:,}", f"{run['arrived_per_second']:,.0f}", lost(run),
                         f"{run['most_waiting']:,}", *cpu(run), f"{together(run):.2f}") for run in runs])


def latencies(runs):
    head = ("polling threads", "packets a second", "`--batch-time`", "median", "99.9th percentile", "longest", "lost")
    return table(head, [("poll without a pause" if run["rest_us"] == 0 else f"rest {run['rest_us']} us",
                         f"{run['rate']:,}", str(run["batch_time_us"]), time(run["median_us"]), time(run["p999_us"]),
                         time(run["longest_us"]), lost(run)) for run in runs])


def subscribers(runs):
    head = ("receivers", "`--batch-time`", "relay: sends", "server", "each receiver", "together", "median",
            "99.9th percentile", "lost")
    return table(head, [(str(run["readers"]), str(run["batch_time_us"]), cpu(run)[1], cpu(run)[2],
                         f"{run['cpu_per_million']['takes'] + run['cpu_per_million']['reads']:.2f}",
                         f"{together(run):.2f}", time(run["median_us"]), time(run["p999_us"]), lost(run))
                        for run in runs])


def carried(runs):
    """The highest rate at which nothing was lost and nothing piled up."""
    fine = [run["rate"] for run in runs if keeps_up(run)]
    return (f"At {max(fine):,} packets a second nothing is lost and nothing piles up." if fine
            else "Packets pile up at every rate that was tried.")


def block(found):
    described, rest = found["machine"], found["rates"][0]["rest_us"]
    measured = (f"Measured on {described['date'][:10]}: {described['cpu']}, {described['kernel']}; load "
                f"{described['load']}. Packets of 140 bytes, everything on one machine, over the loopback.")
    costs = (f"CPU seconds for a million packets. The polling threads rest {rest} us when there is no packet: one that "
             "never rests uses up its CPU. A card's ring has to hold the packets that wait for the relay's poll. "
             + carried(found["rates"]))
    times = ("Time from the relay's poll to the poll on the remote card, of the same packet: what the network adds to a "
             "program beside the card.")
    several = (f"More receivers, at {found['subscribers'][0]['rate']:,} packets a second: CPU seconds for a million "
               "packets, and the times of the slowest receiver.")
    return "\n\n".join([wrapped(measured), wrapped(costs), rates(found["rates"]), wrapped(times),
                        latencies(found["latencies"]), wrapped(several), subscribers(found["subscribers"])])


def wrapped(text):
    return textwrap.fill(text, page.WIDTH, break_on_hyphens=False)


def write(path, found):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    with open(path, "w", encoding="utf-8") as file:
        file.write(page.replaced(text, block(found), BEGIN, END))
