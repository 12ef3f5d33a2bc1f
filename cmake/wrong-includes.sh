#!/usr/bin/env bash
# wrong-includes.sh BUILD: tries in each folder of the product an include that runs against the arrows.
# Fails if one compiles, or if an include that is allowed does not.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
readonly build=${1:?a build folder}
readonly trial=$(mktemp --suffix=.cpp)
trap 'rm -f "$trial"' EXIT

# compiles FOLDER HEADER: whether a source of that folder may include the header, by the compiler's
# command for the folder's first source.
compiles() {
  local command
  command=$(grep -m 1 -E '"command": .* -c [^ ]*/'"$1"'/[a-z_0-9]+\.cpp"' "$build/compile_commands.json" |
    sed -E 's/^ *"command": "//; s/ -o .*$//; s/\\"/"/g; s/^[^ ]*ccache //')
  [[ -n $command ]] || { echo "no source of $1 is built" && exit 1; }
  echo "#include \"$2\"" > "$trial"
  eval "$command -w -E -x c++ $trial" > /dev/null 2>&1
}

wrong=0
while read -r folder allowed forbidden; do
  compiles "$folder" "$allowed" || { echo "$folder may include $allowed, and it does not compile" && wrong=1; }
  ! compiles "$folder" "$forbidden" || { echo "$folder must not include $forbidden, and it compiles" && wrong=1; }
done << 'TABLE'
adif          adif/frame.h           eprobe/probe.h
eprobe        adif/lock.h            crypto/md5.h
crypto        crypto/md5.h           compress/lzma86.h
compress      compress/lzma86.h      crypto/des.h
c2ms/core     eprobe/probe.h         c2ms/ring/cache.h
c2ms/wire     c2ms/core/records.h    c2ms/ring/pack.h
c2ms/ring     c2ms/core/wake.h       c2ms/fetch/queue.h
c2ms/fetch    c2ms/ring/bind.h       c2ms/session/pump.h
c2ms/report   c2ms/ring/cache.h      c2ms/fetch/node.h
c2ms/session  c2ms/report/report.h   c2ms/player/reader.h
c2ms/player   c2ms/fetch/dispatch.h  c2ms/session/object.h
c2ms/film     c2ms/player/setup.h    testing/content.h
TABLE
[[ $wrong == 0 ]] && echo "a wrong include compiles in none of 12 folders"
