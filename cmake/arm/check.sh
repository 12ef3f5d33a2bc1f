#!/usr/bin/env bash
# check.sh BIN LIBRARY: checks a stripped library for 32-bit ARM. It must need only the C library, export only the
# player's names, have no text relocations, and play a file beyond 4 GiB under qemu-arm with the tools in BIN. Prints
# its size and what it needs. Called by ./dev arm.
source "$(dirname "$0")/../../tests/player/service.sh"
export LC_ALL=C
bin=$1 library=$2
sources=$(dirname "$0")/../..
tool=arm-linux-gnueabihf
emulator=(qemu-arm -L "/usr/$tool")

fail() {
  echo "$library: $*"
  exit 1
}

# The loader belongs to the C library and is in every process already; it finds the thread-local words.
needed=$($tool-readelf -d "$library" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' | sort | tr '\n' ' ')
[[ $needed == 'ld-linux-armhf.so.3 libc.so.6 ' || $needed == 'libc.so.6 ' ]] || fail "needs $needed"
[[ -z $($tool-readelf -d "$library" | grep TEXTREL) ]] || fail "has text relocations"
[[ -z $($tool-readelf -S "$library" | grep -E '\.(debug_info|symtab) ') ]] || fail "is not stripped"
diff <("$sources/cmake/api-names.sh" "$sources/c2ms/c2ms.map") \
  <($tool-nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort) ||
  fail "shows other names ('>') than the player's"
# Names that it does not define come from the C library, except the weak names that every object has.
strange=$($tool-nm -D --undefined-only "$library" | grep -vE '@GLIBC_|_ITM_|__gmon_start__' || true)
[[ -z $strange ]] || fail "wants" "$strange"

# Ranges across 2 GiB, across 4 GiB and beyond, of a sparse file with a text at each place.
size=5000000011
marks=(0 2147480000 2147500000 4294964000 4295000000 4999990000)
truncate -s $size "$scratch/big.mp4"
for mark in "${marks[@]}"; do
  seq -f "$mark: %.0f" 500 > "$scratch/text$mark"
  dd if="$scratch/text$mark" of="$scratch/big.mp4" bs=64K seek="$mark" oflag=seek_bytes conv=notrunc status=none
done
start_service "${emulator[@]}" "$bin/c2ms-server" --nodes 3 "$scratch/big.mp4"
ln -s "$(realpath "$library")" "$scratch/libc2ms.so.1"
for mark in "${marks[@]}"; do
  length=$(stat -c %s "$scratch/text$mark")
  "${emulator[@]}" -E LD_LIBRARY_PATH="$scratch" "$bin/c2ms-get" -o - --offset "$mark" --length "$length" "$url" > "$scratch/part" ||
    fail "does not play from $mark"
  cmp "$scratch/part" "$scratch/text$mark" || fail "plays wrong bytes from $mark"
done
echo "$library: $(stat -c %s "$library") bytes, needs $needed(glibc $($tool-readelf -V "$library" | grep -oE 'GLIBC_[0-9.]+' |
  sort -uV | tail -n 1 | sed 's/GLIBC_//') or later); plays on both sides of 2 and 4 GiB"
