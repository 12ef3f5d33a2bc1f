#!/usr/bin/env bash
# coverage.sh BUILD [found]: replays every fuzz target's corpus (with "found" also what ./dev fuzz has found) in a
# build that counts, and tells for each parser of foreign bytes which part of its lines and branches ran. Fails when
# all of them together have less than 95 % of their branches. Called by ./dev coverage.
set -euo pipefail
build=$1 found=${2:-}
readonly least=95
readonly parsers=(
  adif/{base64,byteiter,kmp,strutil,timetext}.cpp         # string codecs
  adif/{frame,framecodec,framesearch,frametext,framext}.cpp
  adif/{confile,profile}.cpp
  c2ms/{wire/pdu,wire/pdu_frame,fetch/unit_recv,session/url}.cpp
  c2ms/report/reply.cpp
  c2ms/wire/{boxes,unpack}.cpp
  compress/{buffer_7z,lzma86,x86_filter}.cpp
)
profiles=() objects=()
for program in "$build"/bin/fuzz_*; do
  name=${program##*/fuzz_}
  inputs=("fuzz/corpus/$name")
  [[ $found != found || ! -d build/fuzz/fuzz-found/fuzz_$name ]] || inputs+=("build/fuzz/fuzz-found/fuzz_$name")
  LLVM_PROFILE_FILE=$build/$name.profraw "$program" "${inputs[@]}" > /dev/null
  profiles+=("$build/$name.profraw")
  objects+=(-object "$program")
done
llvm-profdata merge -sparse "${profiles[@]}" -o "$build/fuzz.profdata"
llvm-cov report "${objects[@]:1}" -instr-profile="$build/fuzz.profdata" -show-branch-summary |
  awk -v root="${PWD#/}/" -v parsers=" ${parsers[*]} " -v least=$least '
    { sub(root, "", $1) }
    index(parsers, " " $1 " ") {
      branches += $(NF - 2)
      missed += $(NF - 1)
      printf "%-30s lines %7s  branches %7s of %4d\n", $1, $10, $NF, $(NF - 2)
    }
    END {
      reached = 100 * (1 - missed / branches)
      printf "%-30s %32.2f%% of %4d\n", "all", reached, branches
      exit reached < least
    }'
