#!/usr/bin/env bash
# play.sh SERVER FILE PLAYER: the example player delivers the file's bytes, from a service of three nodes.
# Its standard output is the film's alone, a file that no server has ends it with the library's text.
. "$(dirname "$0")/service.sh"
server=$1 file=$2 player=$3
needs "$server" "$player"
start_service "$server" --nodes 3 "$file"

timeout 100 "$player" "$url" > "$scratch/film" || { echo "the player failed ($?)"; exit 1; }
cmp "$file" "$scratch/film"

stranger=$(sed -E 's/fid=[0-9a-f]{32}/fid=00112233445566778899aabbccddeeff/' <<< "$url")
status=0
timeout 100 "$player" "$stranger" > "$scratch/none" 2> "$scratch/err" || status=$?
[[ $status == 1 && ! -s $scratch/none ]] || { echo "a media that does not exist: status $status"; exit 1; }
grep -qx 'player: Media not exist' "$scratch/err" || { cat "$scratch/err"; exit 1; }
