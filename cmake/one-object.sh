#!/usr/bin/env bash
# one-object.sh LD OBJCOPY AR MAP OUTPUT ARCHIVE...: links the archives into one object in which only the
# names of MAP are global, and packs it as the archive OUTPUT. Called by the build (c2ms_static).
# It dissolves the groups of inline functions: the linker could otherwise replace a group whose name has
# become local by a player's group of the same name.
set -euo pipefail
ld=$1 objcopy=$2 ar=$3 map=$4 output=$5
shift 5
object=$(dirname "$output")/c2ms.o names=$(dirname "$output")/c2ms.names
"$(dirname "$0")/api-names.sh" "$map" > "$names"
"$ld" -r --force-group-allocation --whole-archive "$@" -o "$object"
"$objcopy" --keep-global-symbols="$names" "$object"
rm -f "$output"
"$ar" qcs "$output" "$object"
rm -f "$object"
