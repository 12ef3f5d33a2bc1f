#!/usr/bin/env bash
# get.sh SERVER FILE C2MS-GET: exit status, message and bytes of c2ms-get for right and wrong calls.
. "$(dirname "$0")/service.sh"
server=$1 file=$2 tool=$3
needs "$server" "$tool"
start_service "$server" --nodes 3 "$file"
size=$(stat -c %s "$file")
hash=$(sha256sum < "$file" | cut -d' ' -f1)
wrong_hash=$(printf '0%.0s' {1..64})
host=${url#kesp://} host=${host%%/*}
cd "$scratch"

# holds NAME OFFSET LENGTH: the file NAME is that part of the media.
holds() {
  cmp -s "$1" <(tail -c +$(($2 + 1)) "$file" | head -c "$3") || fail "$1 is not the media from $2, $3 bytes"
}

# Wrong calls end with 2 and say what is wrong, and nothing is fetched.
expect 2 'no URL given .*'
expect 2 'unknown option --frob .*' --frob "$url"
expect 2 'unknown option -x .*' "$url" -x
expect 2 'unknown option --json=1 .*' "$url" --json=1
expect 2 '--offset wants a count of bytes .*' --offset 1X "$url"
expect 2 '--offset wants a count of bytes .*' --offset 99999999T "$url"
expect 2 '--pack-size wants 4K to 64M .*' --pack-size 4095 "$url"
expect 2 '--verify wants 64 hexadecimal digits .*' --verify "${hash:1}" "$url"
expect 2 '-o wants a value .*' "$url" -o
expect 2 'cannot read nowhere.conf .*' --conf nowhere.conf "$url"
expect 2 'the URL names no file: give -o FILE .*' "kesp://$host/?fid=00"
expect 2 'one URL only, .*' "$url" "$url"
[[ ! -e demo.mp4 ]] || fail "a wrong call has made a file"

# What the library refuses ends with 1 and its text.
expect 1 'Unsupported URL Scheme \(-1002\)' -o x "http://$host/f"
expect 1 'Entry Server unavailable \(-1004\)' -o x "kesp://127.0.0.1:1/f?fid=00112233445566778899aabbccddeeff"
expect 1 'Entry Server unavailable \(-1004\)' -o x --entry 127.0.0.1:1 "$url"
expect 1 'Media not exist \(-1007\)' -o x "${url/fid=????????/fid=00000000}"
expect 1 'Authenticate failed \(-1009\)' -o x "${url/auth=????????/auth=00000000}"
expect 1 "the media has only $size bytes" -o x --offset 1 --length "$size" "$url"
[[ ! -e x ]] || fail "a refused call has made a file"
expect 1 'cannot create no/folder/x: .*' -o no/folder/x "$url"
expect 1 "SHA-256 is $hash" -o x --verify "$wrong_hash" "$url"

# Right calls are silent, and the bytes are the media's.
expect 0 '' --verify "${hash^^}" "$url"
holds "$(basename "$file")" 0 "$size"
expect 1 'cannot create .*: File exists' "$url"
expect 0 '' --entry "$host" -o - "kesp://127.0.0.1:1/${url#*://*/}"
holds out 0 "$size"
for part in "0 1" "1 4096" "65535 65537" "$((size - 1)) 1" "262144 524288" "$size 0" "7 0"; do
  read -r offset length <<< "$part"
  expect 0 '' -o part --pack-size 64K --offset "$offset" --length "$length" "$url"
  holds part "$offset" "$length"
done
expect 0 '' -o rest --offset 900K "$url"
holds rest 921600 $((size - 921600))

expect 0 '' --json -o part --offset 5 --length 6 "$url"
grep -q '"received": 6, .*"code": 0, "error": null, "status": 0}$' out || fail "the JSON object is: $(cat out)"
python3 - out << 'PYTHON' || fail "the figures are: $(cat out)"
import json, sys
stats = json.load(open(sys.argv[1]))["stats"]
assert stats["bytes_received"] == stats["bytes_kept"] + stats["bytes_discarded"] >= 6
for member in "requests", "bytes_received":
    assert stats[member] == sum(node[member] for node in stats["nodes"] + [stats["gone"]]) > 0
PYTHON

# A trace with the members that its format requires, of every request and pack; a picture that is XML.
expect 0 '' --trace trace.json --timeline play.svg -o traced --pack-size 64K "$url"
python3 - trace.json "$size" << 'PYTHON' || fail "the trace is not what it should be"
import json, sys
events = json.load(open(sys.argv[1]))["traceEvents"]
for event in events:
    assert {"name", "ph", "pid", "tid"} <= event.keys(), event
    assert event["ph"] == "M" or event["ts"] >= 0, event
    assert event["ph"] != "X" or event["dur"] >= 0, event
lanes = {event["tid"] for event in events if event["ph"] == "M"}
assert {event["tid"] for event in events} <= lanes
packs = {event["args"]["pos"]: event["args"]["bytes"] for event in events if event["name"] == "pack"}
assert sum(packs.values()) == int(sys.argv[2]), packs
filled = [event for event in events if event["name"] == "filled its pack"]
assert sum(event["args"]["bytes"] for event in filled) == int(sys.argv[2])
PYTHON
python3 -c 'import sys, xml.dom.minidom as x; assert x.parse(sys.argv[1]).getElementsByTagName("rect")' play.svg ||
  fail "the picture is not XML"
exit $failed
