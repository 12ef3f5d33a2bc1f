#!/usr/bin/env bash
# rooms.sh BUILD: prints what runs against the arrows between the rooms of c2ms/, and the circles of
# files inside a room, and fails if there is any. It reads the includes of the sources and, for calls,
# the symbols of the objects in the build folder.
#
#   film -> player, session -> report, fetch -> ring, wire -> core
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
readonly build=${1:?a build folder}

# Rooms that each room may use, besides itself.
allowed() {
  case $1 in
    core) ;;
    wire | ring) echo core ;;
    fetch) echo ring wire core ;;
    report) echo ring wire core ;;
    session | player) echo report fetch ring wire core ;;
    film) echo session player report fetch ring wire core ;;
  esac
}

# "from to" for each include and each call of one room's file to another's: room/file room/file.
includes() {
  grep -HoE '#include "c2ms/[a-z]+/[a-z_]+' c2ms/*/*.cpp c2ms/*/*.h |
    sed -E 's,^c2ms/([a-z]+/[a-z_]+)\.(cpp|h):#include "c2ms/,\1 ,'
}

calls() {
  local rooms=()
  for room in core wire ring fetch report session player film; do
    rooms+=("$build"/c2ms/CMakeFiles/c2ms_$room.dir/$room/*.o)
  done
  nm -A "${rooms[@]}" | sed -E 's,^[^:]*\.dir/([a-z]+/[a-z_]+)\.cpp\.o:[0-9a-f]* *,\1 ,' | awk '
    $2 ~ /^[TDBR]$/ { home[$3] = $1 }
    $2 == "U" { used[++n] = $3 " " $1 }
    END {
      for (i = 1; i <= n; ++i) {
        split(used[i], pair, " ")
        if (pair[1] in home && home[pair[1]] != pair[2]) print pair[2], home[pair[1]]
      }
    }'
}

readonly pairs=$(mktemp)
trap 'rm -f "$pairs"' EXIT
{ includes | sed 's/^/include /' && calls | sed 's/^/call /'; } | sort -u > "$pairs"

wrong=0
while read -r kind from to; do
  [[ ${from%/*} == "${to%/*}" ]] && continue
  [[ " $(allowed "${from%/*}") " == *" ${to%/*} "* ]] && continue
  echo "$kind against the arrows: $from -> $to"
  wrong=$((wrong + 1))
done < "$pairs"

# What is left when files that use no other file of their room are taken away again and again.
circles=$(awk '
  { split($2, a, "/"); split($3, b, "/"); if (a[1] == b[1] && $2 != $3) edge[$2 " " $3] = 1 }
  END {
    do {
      gone = 0
      split("", out)
      for (e in edge) { split(e, p, " "); out[p[1]] = 1 }
      for (e in edge) { split(e, p, " "); if (!(p[2] in out)) { delete edge[e]; gone = 1 } }
    } while (gone)
    do {
      gone = 0
      split("", into)
      for (e in edge) { split(e, p, " "); into[p[2]] = 1 }
      for (e in edge) { split(e, p, " "); if (!(p[1] in into)) { delete edge[e]; gone = 1 } }
    } while (gone)
    for (e in edge) print "part of a circle: " e
  }' "$pairs" | sort)
[[ -z $circles ]] || { echo "$circles" && wrong=$((wrong + 1)); }
echo "$(grep -c '^include' "$pairs") include pairs, $(grep -c '^call' "$pairs") call pairs; against the arrows or in circles: $wrong"
[[ $wrong == 0 ]]
