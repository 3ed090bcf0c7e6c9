#!/usr/bin/env python3
"""Shows tshark captures that were made up, and looks for Lua errors of the dissector.

    dissector_fuzz.py [--packets N | --seconds N] [--batch N] [--seed N] [--work DIR] SCRIPT.lua

Each batch is one capture: packets and register accesses with changed bytes, lengths and ends. A batch with a finding
stays in DIR. The last line is "packets: N", the number of packets that tshark showed.
"""
import argparse
import os
import random
import struct
import subprocess
import sys
import tempfile
import time

STREAM, REGISTERS = 147, 148  # link types
ODD = [0, 1, 2, 4, 5, 8, 9, 12, 15, 31, 32, 63, 64, 127, 128, 255, 256, 0x7FFF, 0x8000, 0xFFFF, 0x7FFFFFFF, 0x80000000,
       0xFFFFFFFF]


def block(kind, body):
    body += b"\0" * (-len(body) % 4)
    length = struct.pack("<I", len(body) + 12)
    return struct.pack("<I", kind) + length + body + length


def interface(link):
    return block(1, struct.pack("<HHI", link, 0, 0))


def packet_block(number, data):
    return block(6, struct.pack("<IIIII", number, 0, 0, len(data), len(data)) + data)


def contract_map(rng):
    area = b""
    for n in range(rng.randrange(8)):
        name = bytes(rng.choice(b"SRCFAPMA-/0123456789\0\xff\n") for _ in range(rng.choice([0, 1, 5, 10, 31, 32, 63, 64, 90])))
        header = 9 if n == 0 else 5
        area += struct.pack(">H", header + len(name)) + (b"\0\0\0\x07" if n == 0 else b"")
        area += struct.pack(">BH", rng.randrange(3), rng.randrange(65536)) + name
    return struct.pack("<III", 2, 14 + len(area), 1) + struct.pack(">H", len(area)) + area


def quote(rng):
    kind = rng.randrange(16, 22)
    level = 5 if kind in (18, 20) else 1
    size = 12 + (224 if level == 5 else 128)
    data = bytearray(rng.randbytes(size))
    struct.pack_into("<III", data, 0, kind, size, 1)
    data[12 + 42] = 1 if kind >= 19 else 0
    data[12 + 43] = level
    return bytes(data)


def access(rng):
    address = rng.choice([0x40, 0x44, 0x400, 0x44000, 0x44008, 0x48000, 0x8028]) if rng.random() < 0.7 else rng.getrandbits(64)
    value = rng.choice(ODD) if rng.random() < 0.5 else rng.getrandbits(64)
    return struct.pack("<4sHBBIBBHQQiiQ", b"VXRA", 1, rng.choice([0, 1, 2, 2, 3, 255]), rng.choice([0, 4, 255]),
                       rng.choice([474, 0xFFFFFFFF]), 0, 32, 0, address, value, rng.choice([0, -1]), rng.choice([0, 5]),
                       rng.getrandbits(64))


def spoiled(rng, data):
    data = bytearray(data)
    for _ in range(rng.choice([0, 0, 1, 1, 2, 5])):
        if not data:
            break
        at = rng.randrange(min(len(data), 64)) if rng.random() < 0.7 else rng.randrange(len(data))
        width = rng.choice([1, 2, 4])
        new = struct.pack(rng.choice("<>") + "I", rng.choice(ODD))
        data[at:at + width] = new[:width] if rng.random() < 0.5 else new[-width:]
    if rng.random() < 0.3:
        data = data[:rng.randrange(len(data) + 1)]
    if rng.random() < 0.05:
        data += rng.randbytes(rng.randrange(300))
    return bytes(data)


def write_batch(rng, path, size):
    with open(path, "wb") as out:
        out.write(block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1)))
        out.write(interface(STREAM) + interface(REGISTERS))
        for _ in range(size):
            which = rng.randrange(8)
            if which == 0:
                number, data = rng.randrange(2), rng.randbytes(rng.randrange(80))
            elif which < 4:
                number, data = 0, contract_map(rng)
            elif which < 6:
                number, data = 0, quote(rng)
            else:
                number, data = 1, access(rng)
            out.write(packet_block(number, spoiled(rng, data)))


def show(path, script, size):
    """The number of packets shown, and what is wrong; nothing when all is well."""
    command = ["tshark", "-n", "-X", "lua_script:" + script, "-r", path, "-V"]
    errors = tempfile.TemporaryFile()
    shown, wrong = 0, []
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=errors) as tshark:
        for line in tshark.stdout:
            shown += line.startswith(b"Frame ")
            if b"Lua Error" in line or b"Dissector bug" in line:
                wrong.append(line.decode(errors="replace").strip())
    errors.seek(0)
    for line in errors.read().decode(errors="replace").splitlines():
        if line and not line.startswith("Running as user"):
            wrong.append(line)
    if tshark.returncode != 0:
        wrong.append("tshark ended with %d" % tshark.returncode)
    if shown != size:
        wrong.append("%d of %d packets were shown" % (shown, size))
    return shown, wrong


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--packets", type=int, default=1000000)
    parser.add_argument("--batch", type=int, default=20000, help="packets of one capture")
    parser.add_argument("--seconds", type=int, default=0, help="ends after so long instead")
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--work", default=".")
    parser.add_argument("script")
    options = parser.parse_args()
    os.makedirs(options.work, exist_ok=True)
    path = os.path.join(options.work, "batch-%d.pcapng" % options.seed)
    print("seed: %d" % options.seed)
    rng = random.Random(options.seed)
    end = time.monotonic() + options.seconds
    total = 0
    while time.monotonic() < end if options.seconds > 0 else total < options.packets:
        write_batch(rng, path, options.batch)
        shown, wrong = show(path, options.script, options.batch)
        total += shown
        if wrong:
            print("\n".join(wrong[:20]))
            print("the capture is " + path)
            print("packets: %d" % total)
            return 1
    os.remove(path)
    print("packets: %d" % total)
    return 0


sys.exit(main())
