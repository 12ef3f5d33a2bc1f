#!/usr/bin/env bash
# quiet.sh SERVER FILE C2MS-GET: whatever the library has to say, standard output carries the film alone.
. "$(dirname "$0")/service.sh"
server=$1 file=$2 tool=$3
needs "$server" "$tool"
start_service "$server" --nodes 2 "$file"
cd "$scratch"
printf 'Entry Server = x\nno entry\n' > bad.conf

expect 0 '' --conf bad.conf -o - "$url"
cmp -s out "$file" || fail "$(stat -c %s out) bytes reach descriptor 1 instead of $(stat -c %s "$file")"
status=0
timeout 60 "$tool" --verbose --conf bad.conf -o - "$url" > out 2> err || status=$?
[[ $status == 0 ]] && cmp -s out "$file" || fail "the lines that were asked for are in the film"
[[ $(grep -c '^profile bad.conf format not support$' err) == 1 ]] || fail "the bad file is not told once"

# Starts that fail: a line that says why, an exit status of the program's own, nothing on descriptor 1.
refused() {
  local text=$1 status=0
  shift
  "$@" "$tool" --verbose -o - "$url" > out 2> err || status=$?
  [[ $status == 1 && ! -s out ]] || fail "$text: status $status, $(stat -c %s out) bytes on descriptor 1"
  grep -q "^c2ms_mgmt_init: .*$text" err || fail "does not say: $text"
}
few() { (ulimit -n 12 && exec timeout 60 "$@"); }
refused descriptors few
refused 'libgcrypt is too old, or refuses DES or MD5' env LIBGCRYPT_FORCE_FIPS_MODE=1 timeout 60
exit $failed
