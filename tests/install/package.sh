#!/usr/bin/env bash
# package.sh DEB: the package installs into a system of its own, works there and leaves nothing behind when it
# is removed. Needs no root: the system is a scratch folder. Called by ./dev package.
. "$(dirname "$0")/../player/service.sh"
deb=$(realpath "$1")
film=$(dirname "$0")/../../examples/media/demo.mp4
system=$scratch/system
mkdir -p "$system/var/lib/dpkg/"{info,updates,triggers} "$system/etc"
: > "$system/var/lib/dpkg/status"

# The package's scripts renew the linker's cache, of this machine if they could.
mkdir "$scratch/bin"
printf '#!/bin/sh\necho renewed >> "%s/ldconfig"\n' "$scratch" > "$scratch/bin/ldconfig"
chmod +x "$scratch/bin/ldconfig"
export PATH=$scratch/bin:$PATH:/usr/sbin:/sbin

# Nothing else is installed there, so what the package depends on is overlooked here and shown below.
in_system() {
  dpkg --root="$system" --log=/dev/null --force-not-root --force-depends --force-script-chrootless "$@" \
    > "$scratch/dpkg.log" 2>&1 || { cat "$scratch/dpkg.log"; exit 1; }
}
inventory() { (cd "$system" && find . -path ./var/lib/dpkg -prune -o -print | sort); }

depends=$(dpkg-deb -f "$deb" Depends)
[[ $depends == *libc6* && $depends == *libgcrypt20* ]] || { echo "depends on: $depends"; exit 1; }
before=$(inventory)
in_system -i "$deb"
for file in include/c2ms.h include/c2ms/eprobe/probe.h share/man/man1/c2ms-get.1; do
  [[ -s $system/usr/$file ]] || { echo "no $file"; exit 1; }
done
library=$(find "$system/usr/lib" -name 'libc2ms.so.?')
[[ -n $library ]] || { echo "no libc2ms.so"; exit 1; }
export LD_LIBRARY_PATH=${library%/*}
flags=$(PKG_CONFIG_PATH=${library%/*}/pkgconfig pkg-config --cflags --libs c2ms | xargs)
[[ $flags == -lc2ms ]] || { echo "pkg-config names folders that every compiler knows: $flags"; exit 1; }
start_service "$system/usr/bin/c2ms-server" --nodes 2 "$film"
"$system/usr/bin/c2ms-get" -o "$scratch/got" "$url"
cmp "$film" "$scratch/got"
in_system --purge c2ms
[[ $(wc -l < "$scratch/ldconfig") == 2 ]] || { echo "the linker's cache is not renewed"; exit 1; }
diff <(echo "$before") <(inventory) || { echo "the package leaves files behind"; exit 1; }
printf '%s: %s bytes, depends on %s\n' "$deb" "$(stat -c %s "$deb")" "$depends"
