#!/usr/bin/env bash
# exports.sh NM SOURCES SHARED STATIC: both libraries define exactly the names that the version script makes
# global, and the player's header declares each of them. All that a compiled player depends on is as the list
# kept in the tree says.
set -euo pipefail
export LC_ALL=C
nm=$1 sources=$2 shared=$3 static=$4
api=$("$sources/cmake/api-names.sh" "$sources/c2ms/c2ms.map")
[[ $(wc -l <<< "$api") -ge 30 ]] || { echo "the version script was not understood"; exit 1; }

# Names of defined symbols; the version node itself (type A) and the archive's member lines are none.
names() { sed 's/@.*//' | awk 'NF == 3 && $2 != "A" { print $3 }' | sort; }

failed=0
compare() {
  diff <(echo "$api") <(echo "$2") > /dev/null && return
  echo "$1 ('<': missing, '>': too much):"
  diff <(echo "$api") <(echo "$2") | grep '^[<>]' || true
  failed=1
}
compare "$shared" "$("$nm" -D --defined-only "$shared" | names)"
compare "$static" "$("$nm" -g --defined-only "$static" | names)"
declared=$(grep -oE '^(extern )?C2MS_API [^;(]*[(;]' "$sources/include/c2ms.h" | grep -oE '[a-z_0-9]+[(;]$' | tr -d '(;' | sort)
compare include/c2ms.h "$declared"

kept=cmake/abi/libc2ms.so.1.txt
if ! diff "$sources/$kept" <("$sources/cmake/abi/list.sh" "$nm" "$shared" "$sources/include/c2ms.h"); then
  echo "The binary interface is not what $kept says ('<': kept, '>': built). What was added may be added to"
  echo "the list; a name or declaration that is gone or different breaks players that are out there:"
  echo "    cmake/abi/list.sh $nm $shared include/c2ms.h > $kept"
  failed=1
fi

# A host that calls dlclose while a session runs must not take the code from under our threads.
readelf -d "$shared" | grep -q NODELETE || { echo "$shared may be unloaded"; failed=1; }
exit $failed
