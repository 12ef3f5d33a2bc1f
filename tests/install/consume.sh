#!/usr/bin/env bash
# consume.sh BUILD SOURCES CC CXX: installs BUILD into a scratch folder that is then moved, builds a program of
# each kind against it, and plays a film with each player. The programs in C are those of the pages. The tools'
# man pages tell of the options that the tools have.
. "$(dirname "$0")/../player/service.sh"
build=$1 sources=$2 cc=$3 cxx=$4
film=$sources/examples/media/demo.mp4
here=$sources/tests/install

cmake --install "$build" --prefix "$scratch/first" > "$scratch/install.log" || { cat "$scratch/install.log"; exit 1; }
prefix=$scratch/moved
mv "$scratch/first" "$prefix"
libdir=$(dirname "$(find "$prefix" -name libc2ms.so)")
export PKG_CONFIG_PATH=$libdir/pkgconfig
cd "$scratch"

# page PATH N: the N-th block of C in a page.
page() { awk -v n="$2" '/^```c$/ { inside = ++count == n; next } /^```$/ { inside = 0 } inside' "$sources/$1"; }

# In strict C99, as a player that is linked in each way that pkg-config knows.
page docs/integrating.md 1 > page.c
page README.md 1 > readme.c
strict=(-std=c99 -pedantic -Wall -Wextra -Werror)
"$cc" "${strict[@]}" page.c $(pkg-config --cflags --libs c2ms) -Wl,-rpath,"$libdir" -o page-shared
"$cc" "${strict[@]}" -static page.c $(pkg-config --static --cflags --libs c2ms) -o page-static 2> static.log || { cat static.log; exit 1; }
"$cc" -std=c99 readme.c $(pkg-config --cflags --libs c2ms) -Wl,-rpath,"$libdir" -o readme
"$cxx" -std=c++20 -Wall -Wextra -Werror "$here/consumer/engine.cpp" $(pkg-config --cflags --libs c2ms-eprobe) -o engine

cmake -G Ninja -S "$here/consumer" -B project -DCMAKE_PREFIX_PATH="$prefix" -DPLAYER="$scratch/page.c" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" > project.log && cmake --build project >> project.log ||
  { cat project.log; exit 1; }

./engine && project/engine || { echo "the engine's program failed"; exit 1; }
start_service "$prefix/bin/c2ms-server" --nodes 3 "$film"
for player in ./page-shared ./page-static ./readme project/player-c2ms project/player-static; do
  timeout 60 "$player" "$url" > film 2> said || { echo "$player failed ($?)"; cat said; exit 1; }
  cmp "$film" film || { echo "$player"; exit 1; }
done
"$prefix/bin/c2ms-get" -o got "$url"
cmp "$film" got

# The page's player shows its viewer a sentence for what the service refuses.
status=0
./page-shared "${url/auth=????????/auth=00000000}" > film 2> said || status=$?
[[ $status == 1 && ! -s film ]] && grep -q 'sign in' said || { echo "refused: status $status, $(cat said)"; exit 1; }

options() { grep -oE -- '(^|[^[:alnum:]-])--?[a-z][a-z-]*' | grep -oE -- '-.*' | sort -u; }
for tool in c2ms-get c2ms-server; do
  man=$prefix/share/man/man1/$tool.1
  diff <("$prefix/bin/$tool" --help | options) <(sed -n '/^.SH OPTIONS/,/^.SH EXIT/p' "$man" | sed 's/\\-/-/g; s/\\f.//g' | options) ||
    { echo "$tool: '<' its help tells of, '>' its man page (docs/man)"; exit 1; }
  groff -man -ww -z "$man" 2> groff.log && [[ ! -s groff.log ]] || { cat groff.log; exit 1; }
done
