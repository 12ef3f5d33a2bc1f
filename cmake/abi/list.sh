#!/usr/bin/env bash
# list.sh NM SHARED HEADER: prints what a program compiled against the library depends on, one per line: the
# exported names with their version, then the header's declarations without comments. Called by
# tests/player/exports.sh, which compares the output with the list beside this script.
set -euo pipefail
nm=$1 shared=$2 header=$3
"$nm" -D --defined-only --with-symbol-versions "$shared" |
  awk '$2 != "A" { print $2 == "T" ? "function" : "object", $3 }' | LC_ALL=C sort
grep -oE "^#define C2MS_[A-Z_]+ +-?[0-9]+" "$header" || true
# The declarations keep the header's order, because structures and enumerations depend on it.
perl -0777 -pe 's{/\*.*?\*/}{}gs; s/^\s*#.*\n//gm; s/extern "C" \{(.*)\}/$1/s; s/\s+/ /g; s/ ?([;,]) /$1 /g; s/; */;\n/g; s/^ +//gm' "$header"
