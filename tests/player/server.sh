#!/usr/bin/env bash
# server.sh SERVER: c2ms-server refuses wrong options, and serves until it is told to stop.
. "$(dirname "$0")/service.sh"
tool=$1
needs "$tool"
cd "$scratch"

# In one line that leads to the help.
refuse() { expect 2 "$1.* \(--help tells more\)" "${@:2}"; }
refuse 'no file to serve'
refuse 'unknown option --bogus' --generated a:1 --bogus
refuse 'unknown option -x' -x film.mp4
refuse 'unknown option --agent=1' film.mp4 --nodes=2 --agent=1
refuse '--port wants a value' --port
refuse "--generated: 'a' is not NAME:SIZE" --generated a
refuse "--generated: ':5' is not NAME:SIZE" --generated :5
refuse "--generated: cannot take '99999999999G'" --generated a:99999999999G
refuse "--nodes: cannot take '101'" --generated a:1 --nodes 101
refuse "--nodes: cannot take '-1'" --generated a:1 --nodes -1
refuse "--port: cannot take '65536'" --generated a:1 --port 65536
refuse '--port: no room' --generated a:1 --port 65535
refuse "--rate: cannot take ''" --generated a:1 --rate 1,,2
refuse '--fault: ' --generated a:1 --fault zap
refuse '--fault: no node 4' --generated a:1 --fault mute,node=4
refuse '--report: ' --report 10.0.0.1
expect 1 '.*' /nowhere/film.mp4
expect 0 '' --help
grep -q '^usage:' out || fail 'no help'

id=$(printf 'a?b.mp4' | md5sum | cut -d' ' -f1)
for signal in INT TERM; do
  start_service "$tool" --nodes 2 --encipher --rate 10M,0 --generated 'a?b.mp4:6G' --generated c.ts:1k
  [[ $url == "kesp://127.0.0.1:"*"/a_b.mp4?fid=$id;auth="* ]] || fail "the first URL is $url"
  grep -q '/c\.ts?fid=' server.out || fail 'no second URL'
  kill -s "$signal" "$server_pid"
  wait "$server_pid" || fail "SIG$signal ends it with status $?"
  grep -q 'media bytes' server.out || fail "SIG$signal: no totals"
done
exit $failed
