# Sourced by the scripts beside it: a media service on free loopback ports and a scratch folder, both gone
# when the script ends, however it does.
set -euo pipefail
scratch=$(mktemp -d)
server_pid=
cleanup() {
  [[ -z $server_pid ]] || { kill "$server_pid" && wait "$server_pid"; } > /dev/null 2>&1 || true
  rm -rf "$scratch"
}
trap cleanup EXIT

# needs PROGRAM...: they have been built.
needs() {
  local program
  for program in "$@"; do [[ -x $program ]] || { echo "there is no $program"; exit 1; }; done
}

# start_service PROGRAM ARGUMENT...: sets `url` to the first file's.
start_service() {
  : > "$scratch/server.out"  # there before the loop below looks
  "$@" > "$scratch/server.out" 2>&1 &
  server_pid=$!
  for ((i = 0; i < 600; ++i)); do
    url=$(head -n 1 "$scratch/server.out")
    [[ $url != kesp://*keyid=* ]] || return 0
    kill -0 "$server_pid" 2> /dev/null || break
    sleep 0.05
  done
  echo "the server did not start:"
  cat "$scratch/server.out"
  exit 1
}

failed=0
fail() {
  echo "FAILED: $1"
  sed 's/^/    /' err
  failed=1
}

# expect STATUS TEXT ARGUMENT...: runs `tool`; TEXT is an extended regular expression for the whole of a line
# on standard error, "" for none at all. Standard output is left in `out`.
expect() {
  local status=$1 text=$2 got=0
  shift 2
  timeout 60 "$tool" "$@" > out 2> err || got=$?
  [[ $got == "$status" ]] || fail "status $got instead of $status: $*"
  if [[ -z $text ]]; then
    [[ ! -s err ]] || fail "says something: $*"
  else
    grep -qxE "${tool##*/}: $text" err || fail "does not say '$text': $*"
  fi
}
