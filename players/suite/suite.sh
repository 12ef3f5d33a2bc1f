#!/usr/bin/env bash
# suite.sh BUILD: the same films through each host that was built in BUILD, beside the local files. Films are
# made by ffmpeg and served by c2ms-server from four nodes. Hosts whose program is missing are left out, and
# said so. Ends with "N passed, N failed".
set -uo pipefail
build=$(realpath "$1")
scratch=$(mktemp -d)
servers=()
trap 'kill "${servers[@]}" 2> /dev/null; wait 2> /dev/null; rm -rf "$scratch"' EXIT
cd "$scratch"
passed=0 failed=0

# check NAME COMMAND...: counts, and shows what a failing command printed.
check() {
  local name=$1
  shift
  if "$@" > said 2>&1; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "failed: $name"
    tail -n 5 said
  fi
}
now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { print b - a }'; }
less() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(a < b) }'; }

# start LOG PROGRAM...: in the background; waits for its first line.
start() {
  local log=$1
  shift
  "$@" > "$log" 2>&1 &
  servers+=($!)
  for _ in {1..100}; do [[ -s $log ]] && return; sleep 0.05; done
  echo "$1 does not start" && cat "$log" && exit 1
}

make_films() {
  ffmpeg -v error -y -f lavfi -i testsrc2=size=640x360:rate=25:duration="$1" \
    -f lavfi -i sine=frequency=440:duration="$1" -c:v libx264 -preset veryfast -b:v 3M -minrate 3M -maxrate 3M \
    -bufsize 1M -pix_fmt yuv420p -c:a aac -b:a 96k behind.mp4
  ffmpeg -v error -y -i behind.mp4 -c copy -movflags faststart before.mp4
  ffmpeg -v error -y -i behind.mp4 -c copy film.mkv
  ffmpeg -v error -y -i behind.mp4 -c copy film.ts
}
films=(behind.mp4 before.mp4 film.mkv film.ts)
url_of() { grep -o "kesp://[^ ]*/$1?[^ ]*" "${2:-server.log}" | head -n 1; }

same_output() { diff -q <("$@") expected > /dev/null; }

ffmpeg_host() {
  local probe=$build/bin/c2ms-avio-probe film
  [[ -x $probe ]] || { echo "without FFmpeg"; return; }
  for film in "${films[@]}"; do
    "$probe" "$film" > expected
    check "FFmpeg: packets of $film" same_output "$probe" "$(url_of "$film")"
    "$probe" --seeks "$film" > expected
    check "FFmpeg: 40 seeks in $film" same_output "$probe" --seeks "$(url_of "$film")"
  done
}

status_is() { [[ $(curl -s -o body -w '%{http_code}' "${@:2}") == "$1" ]]; }
range_is() {  # FILE FIRST COUNT FIELD
  curl -s -r "$4" "http://127.0.0.1:$port/$1" -o part && cmp <(tail -c +$(($2 + 1)) "$1" | head -c "$3") part
}

http_host() {
  local bridge=$build/bin/c2ms-http film at
  [[ -x $bridge ]] || { echo "without HTTP"; return; }
  local words=()
  for film in "${films[@]}"; do words+=("$film=$(url_of "$film")"); done
  words+=("missing=$(url_of film.ts | sed -E 's/fid=.{32}/fid=00112233445566778899aabbccddeeff/')")
  words+=("refused=$(url_of film.ts | sed -E 's/auth=.{8}/auth=00000000/')" "nobody=kesp://127.0.0.1:1/x?fid=$(printf %032d 1)")
  start http.log "$bridge" --port 0 "${words[@]}"
  port=$(grep -oE '[0-9]+/$' http.log | tr -d /)
  local base=http://127.0.0.1:$port size
  for film in "${films[@]}"; do
    check "HTTP: $film" bash -c "curl -s $base/$film | cmp - $film"
    ffmpeg -v error -i "$film" -c copy -f framecrc - > expected
    check "HTTP: packets of $film" same_output ffmpeg -v error -i "$base/$film" -c copy -f framecrc -
  done
  film=film.ts size=$(stat -c %s film.ts)
  check "HTTP: first bytes" range_is $film 0 100 0-99
  check "HTTP: from the middle" range_is $film 1000000 50001 1000000-1050000
  check "HTTP: last bytes" range_is $film $((size - 500)) 500 -500
  check "HTTP: beyond the end is cut" range_is $film $((size - 10)) 10 $((size - 10))-99999999999999999999
  check "HTTP: more than the film" range_is $film 0 "$size" -99999999999999999999
  check "HTTP: nothing from the end" status_is 416 -H 'Range: bytes=-0' $base/$film
  check "HTTP: behind the end" status_is 416 -r "$size-" $base/$film
  check "HTTP: reversed counts for nothing" status_is 200 -I -H 'Range: bytes=9-3' $base/$film
  check "HTTP: many count for nothing" status_is 200 -I -H 'Range: bytes=0-1,5-6' $base/$film
  check "HTTP: another tag is the whole" status_is 200 -I -H 'If-Range: "x"' -r 0-9 $base/$film
  check "HTTP: a missing film" status_is 404 $base/missing
  check "HTTP: an unknown name" status_is 404 $base/else
  check "HTTP: a refused play" status_is 403 $base/refused
  check "HTTP: no server" status_is 502 --max-time 25 $base/nobody
  check "HTTP: another method" status_is 405 -X POST -d x $base/$film
  check "HTTP: another host's page" status_is 421 -H 'Host: evil.example' $base/
  check "HTTP: the page" bash -c "curl -s $base/ | grep -q '<button type=\"button\" aria-pressed=\"false\">film.ts'"
  check "HTTP: figures while it plays" bash -c "curl -s --limit-rate 500k -o /dev/null $base/$film & sleep 0.5;
    curl -s --max-time 2 $base/events | grep -q '\"film\":\"$film\".*\"servers\":\\[{\"address\"'; result=\$?; kill %1; exit \$result"
  check "HTTP: a client that leaves gives its session back" bash -c "curl -s --limit-rate 100k --max-time 1 -o /dev/null $base/$film; sleep 1.5;
    [[ \$(curl -s --max-time 1 $base/events | head -n 1) == 'data: []' ]]"
  check "HTTP: 300 slow clients hold nobody up" bash -c "for i in {1..300}; do curl -s --limit-rate 1 -o /dev/null $base/before.mp4 & done; sleep 2;
    timeout 20 curl -s $base/ > /dev/null; result=\$?; kill \$(jobs -p); exit \$result"
  at=$(now)
  kill "${servers[-1]}" && wait "${servers[-1]}" 2> /dev/null
  check "HTTP: ends within 1 s ($(since "$at"))" less "$(since "$at")" 1
}

mpv_frames() { mpv --no-config --no-terminal --scripts="$build/mpv/c2ms.so" --vo=null --ao=null --of=framemd5 --ovc=rawvideo --no-audio --o="$2" "$1"; }
mpv_same() { mpv_frames "$1" theirs.md5 && mpv_frames "$2" ours.md5 && [[ -s theirs.md5 ]] && cmp theirs.md5 ours.md5; }

mpv_host() {
  command -v mpv > /dev/null && [[ -e $build/mpv/c2ms.so ]] || { echo "without mpv"; return; }
  local film
  for film in "${films[@]}"; do check "mpv: pictures of $film" mpv_same "$film" "$(url_of "$film")"; done
  check "mpv: a missing film fails" bash -c "! timeout 20 mpv --no-config --no-terminal --scripts=$build/mpv/c2ms.so --vo=null --ao=null \
    '$(url_of film.ts | sed -E 's/fid=.{32}/fid=00112233445566778899aabbccddeeff/')'"
}

make_films "${C2MS_FILM_SECONDS:-30}"
start server.log "$build/bin/c2ms-server" --nodes 4 --index "${films[@]}"
sleep 0.5
ffmpeg_host
http_host
mpv_host
echo "$passed passed, $failed failed"
[[ $failed == 0 ]]
