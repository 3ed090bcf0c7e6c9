#!/usr/bin/env bash
# interface.sh SOURCES     the public headers give their HTML pages without a warning, and a gap in them is a warning
set -euo pipefail
sources=$1
command -v doxygen >/dev/null || { echo "skipped: doxygen is not installed (Debian: apt-get install doxygen)" && exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$sources/include" "$work"
cd "$work"

pages() { { cat "$sources/docs/Doxyfile" && echo "OUTPUT_DIRECTORY = pages"; } | doxygen - >output.log 2>&1; }
pages || { cat output.log; exit 1; }
# What was shown is the interface, and not an empty page.
for name in VexoRecvStart OnUpSubsResult20 CheckBeforeRun; do
    grep -rq --include='*.html' "$name" pages || { echo "the pages do not have $name"; exit 1; }
done

sed -i 's|^VEXO_ZCE_API unsigned long get_time();|&\nVEXO_ZCE_API int undocumented(int number);|' include/VexoZceUtil.h
if pages; then echo "a function without a comment gave no warning"; exit 1; fi
grep -q undocumented output.log || { cat output.log; exit 1; }
