#!/usr/bin/env bash
# demo.sh BIN FILE: serves FILE from four media nodes of different speed, fetches it through the library and
# compares. Called by ./dev demo. The nodes are so slow that a fetch takes about four seconds; with a big file it takes
# longer, at 2 MB/s or more. The server ends with this script.
set -euo pipefail
bin=$1 file=$2
scratch=$(mktemp -d)
server= reports=
cleanup() {
  local child
  for child in $server $reports; do { kill "$child" && wait "$child"; } > /dev/null 2>&1 || true; done
  rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

size=$(stat -L -c %s "$file")
share=$((size / 4 / 14 + 1000))  # bytes per second of one part in fourteen
[[ $share -ge 150000 || $size -lt 8400000 ]] || share=150000
rates=$((share * 2)),$((share * 3)),$((share * 4)),$((share * 5))

echo "Serving $file ($size bytes) from four nodes at $rates bytes per second"
: > "$scratch/urls"
"$bin/c2ms-server" --nodes 4 --rate "$rates" "$file" > "$scratch/urls" &
server=$!
until url=$(head -n 1 "$scratch/urls") && [[ $url == *keyid=* ]]; do
  kill -0 "$server"  # ends the script when the server has ended
  sleep 0.05
done
# Agent and report server have a fixed port. Where it is taken, the demo runs without them.
"$bin/c2ms-server" --agent --report 127.0.0.1 > "$scratch/reports" &
reports=$!
echo "Fetching $url"
hash=$(sha256sum < "$file" | cut -d' ' -f1)
picture=$bin/demo.svg trace=$bin/demo-trace.json
"$bin/c2ms-get" --stats --dump --trace "$trace" --timeline "$picture" \
  --verify "$hash" -o "$scratch/fetched" "$url"
cmp "$file" "$scratch/fetched"
kill "$server"
wait "$server" || true
server=
echo "What the server saw:"
tail -n +2 "$scratch/urls"
echo "What the player reported to its agent and to the report server:"
cat "$scratch/reports"
echo "A picture of the play: $picture; as a trace for chrome://tracing or Perfetto: $trace"
echo "SHA-256 $hash: the bytes that arrived are those that were served"
