#!/usr/bin/env python3
"""What a build installs, and what the Debian packages take, are the same files.

    contents.py SOURCES BUILD LIBRARY_DIRECTORY

Installs the build into a folder, as Debian would have it, and compares it with packaging/debian/*.install and
not-installed. Compares the symbols file with the baseline of the interface too.
"""

import fnmatch
import pathlib
import re
import subprocess
import sys
import tempfile

sources, build = map(pathlib.Path, sys.argv[1:3])
library_directory = sys.argv[3]
debian = sources / "packaging/debian"
problems = []


def installed(prefix):
    subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
    for path in prefix.rglob("*"):
        if path.is_dir() and not path.is_symlink():
            continue
        name = str(path.relative_to(prefix))
        # Debian's folder of libraries is the machine's. Units are the same on every machine.
        if not name.startswith("lib/systemd/"):
            name = re.sub(rf"^{re.escape(library_directory)}/(x86_64-linux-gnu/)?", "lib/x86_64-linux-gnu/", name)
        yield "usr/" + name


def patterns(name):
    """What to take. The folder to put it into may follow."""
    return [line.split()[0] for line in (debian / name).read_text().splitlines() if line.strip()]


def matches(file, pattern):
    return fnmatch.fnmatchcase(file, pattern) or fnmatch.fnmatchcase(file, pattern + "/*")


with tempfile.TemporaryDirectory() as work:
    files = sorted(installed(pathlib.Path(work) / "usr"))
owners = {file: set() for file in files}
packages = sorted(path.name for path in debian.glob("*.install"))
for package in [*packages, "not-installed"]:
    for pattern in patterns(package):
        taken = [file for file in files if matches(file, pattern)]
        for file in taken:
            owners[file].add(package)
        if not taken:
            problems.append(f"{package}: nothing is installed as {pattern}")
for file, owner in owners.items():
    if len(owner) != 1:
        problems.append(f"{file}: in {' and in '.join(sorted(owner)) or 'no package; add it to a file of ' + str(debian)}")
if len(files) < 20 or len(packages) < 4:
    problems.append(f"only {len(files)} files and {len(packages)} packages were found")

symbols = (debian / "libvexo-zce-md1.symbols").read_text()
named = len(re.findall(r"@VEXO_ZCE_MD_1\"? ", symbols)) - 1  # the version itself is one, too
baseline = (sources / "packaging/abi/libvexo_zce_md.so.1.abi").read_text()
exported = len(re.findall(r"<elf-symbol ", baseline))
if named != exported:
    problems.append(f"libvexo-zce-md1.symbols has {named} symbols, the baseline of the interface {exported}")

print("\n".join(problems), end="\n" if problems else "")
sys.exit(1 if problems else 0)
