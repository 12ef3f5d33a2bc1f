#!/usr/bin/env bash
# sysroot.sh FOLDER PACKAGE...: unpacks Debian's armhf packages into FOLDER, unless the same list is there already.
# apt runs with its own configuration, state and cache in FOLDER.apt, so that this machine does not get a second
# architecture. Called by ./dev arm.
set -euo pipefail
mkdir -p "$1"
sysroot=$(realpath "$1") apt=$(realpath "$1").apt
shift
[[ $(cat "$sysroot/packages" 2> /dev/null) != "$*" ]] || exit 0

rm -rf "$apt" "$sysroot"
mkdir -p "$apt"/{lists,archives}/partial "$sysroot"
: > "$apt/status"
# The packages come from where this machine takes its own.
apt-get indextargets --format '$(ORIGIN) deb [arch=armhf] $(REPO_URI) $(RELEASE) main' \
  'Created-By: Packages' 'Component: main' | sed -n 's/^Debian //p' | sort -u > "$apt/sources.list"
[[ -s $apt/sources.list ]] || { echo "apt knows no source of Debian packages: apt-get update first"; exit 1; }
cat > "$apt/apt.conf" << CONF
APT::Architecture "armhf";
#clear APT::Architectures;
APT::Architectures { "armhf"; };
APT::Sandbox::User "";
Acquire::Languages "none";
Dir::State "$apt";
Dir::State::status "$apt/status";
Dir::Cache "$apt";
Dir::Etc::sourcelist "$apt/sources.list";
Dir::Etc::sourceparts "$apt/none";
CONF
export APT_CONFIG=$apt/apt.conf
apt-get -q update || echo "not every source answers: the others have to do"
(cd "$apt" && apt-get -q download "$@")
for deb in "$apt"/*.deb; do dpkg-deb -x "$deb" "$sysroot"; done
rm -rf "$apt"
echo "$*" > "$sysroot/packages"
