#!/usr/bin/env bash
# lint.sh BUILD: what must hold for every source file of the tree, told one line per breach. BUILD is a folder
# that CMake has configured for clang. Called by ./dev lint. Exceptions stand below, each with its reason.
set -euo pipefail
build=$1
jobs=${JOBS:-2}
failed=0

readonly max_file_lines=600
readonly max_function_lines=60
readonly max_test_lines=80  # a test tells a story, or holds a table

# FILE: RULE
readonly -A allowed=(
  [adif/tsock.cpp:unbounded]="strcpy of a path whose length has just been compared with the field's"
  [eprobe/rac_select.cpp:select]="the one loop that selects; it refuses descriptors of 1024 and above"
  [fuzz/frame.cpp:function-length]="one switch with a case per operation of the frame"
  [include/c2ms.h:file-length]="the one header of a player; most of it is its manual"
  [tests/install/consumer/engine.cpp:no-target]="built against the installed tree by tests/install/consume.sh"
  [tests/install/consumer/player.cpp:no-target]="the same"
  [tools/c2ms-server.cpp:function-length]="one switch with a case per option"
)

mapfile -t sources < <(git ls-files '*.cpp' '*.c')
mapfile -t headers < <(git ls-files '*.h')
mapfile -t library < <(git ls-files {adif,eprobe,crypto,compress,c2ms}/'*.cpp' {adif,eprobe,crypto,compress,c2ms}/'*.h')
mapfile -t shipped < <(git ls-files {adif,eprobe,crypto,compress,c2ms,tools,testing,examples}/'*.[ch]' {adif,eprobe,crypto,compress,c2ms,tools,testing,examples}/'*.cpp')
mapfile -t tests < <(git ls-files tests/'*.cpp' tests/'*.h')

breach() {  # RULE, FILE:LINE, what
  [[ -z ${allowed[${2%%:*}:$1]:-} ]] || return 0
  echo "$2: $3"
  failed=1
}

# ban RULE REASON PATTERN FILE...: no line of code may match; what stands behind // is no code.
ban() {
  local rule=$1 reason=$2 pattern=$3 place text
  shift 3
  while IFS=: read -r file line text; do
    [[ $(sed 's,//.*,,' <<< "$text") =~ $pattern ]] || continue
    place=$file:$line
    breach "$rule" "$place" "$reason"
  done < <(grep -HnE "$pattern" "$@" < /dev/null | grep -vE '^[^:]*:[0-9]*: *(//|\*|/\*)' || true)
}

bans() {
  local all=("${sources[@]}" "${headers[@]}")
  ban unbounded "writes without a bound" '(^|[^a-z_])(strcpy|strcat|sprintf|vsprintf|gets|alloca)\(' "${shipped[@]}"
  ban select "select outside the engine" '(^|[^a-z_.>])select\(' "${all[@]}"
  ban sort "std::sort leaves its range when a caller's comparison contradicts itself" 'std::sort\(' "${library[@]}"
  ban timed-mutex "sanitizers do not see timed locks: use adif::Gate" 'timed_mutex' "${all[@]}"
  ban iostream "streams make the library big" '#include <(iostream|fstream|sstream|iomanip)>' "${library[@]}"
  ban namespace-std "names the whole of std" 'using namespace std *;' "${all[@]}"
  ban goto "goto" '(^|[^a-z_"])goto [a-z_]+;' "${all[@]}"
  ban disabled "a test that does not run" 'DISABLED_|GTEST_SKIP' "${tests[@]}"
}

# Functions at the left margin, from the line with the name to the closing brace. Tests have their own limit.
sizes() {
  local count place what
  for file in "${sources[@]}" "${headers[@]}"; do
    count=$(wc -l < "$file")
    [[ $count -lt $max_file_lines ]] || breach file-length "$file" "$count lines, $max_file_lines are too many"
  done
  while read -r place what; do
    breach function-length "$place" "$what"
  done < <(awk -v most=$max_function_lines -v most_test=$max_test_lines '
    FNR == 1 { start = 0 }
    /^[A-Za-z_\[].*[({,]$/ && !start && !/= \{$/ && !/^(namespace|struct|class|enum|union|extern|using)/ {
      start = FNR; test = /^TEST/; inside = 0
    }
    start && !inside && /;$/ { start = 0 }  # a declaration, or a macro with a list
    start && /\{$/ { inside = 1 }
    /^}/ && start {
      if (FNR - start + 1 > (test ? most_test : most))
        print FILENAME ":" start " a function of " FNR - start + 1 " lines"
      start = 0
    }' "${sources[@]}")
}

# A line per compiled file: its name, a tab, its compile command. (CMake writes one property a line.)
commands() {
  sed -nE -e 's/^ *"command": "(.*)",?$/\1/p' -e 's/^ *"file": "(.*)",?$/FILE \1/p' "$build/compile_commands.json" |
    sed 's/\\"/"/g; s/\\\\/\\/g' | awk '/^FILE / { print substr($0, 6) "\t" command; next } { command = $0 }'
}

compile() {
  local root=$PWD list
  list=$(commands)
  for file in "${sources[@]}"; do
    [[ $file != players/* ]] || continue  # built by ./dev players alone, where their packages are
    grep -qF "$root/$file"$'\t' <<< "$list" || breach no-target "$file" "belongs to no target"
  done
  # Every file of ours through clang's front end: warnings, thread-safety analysis, no code.
  local todo
  todo=$(grep "^$root/" <<< "$list" | cut -f 2 | sed 's/ -o [^ ]*//; s/ -c / -ferror-limit=3 -fsyntax-only /')
  # Every header alone, with the flags of a source beside it (c2ms.h: of the example player, in C, too).
  for header in "${headers[@]}"; do
    local folder=${header%/*} beside flags
    [[ $folder != players/* ]] || continue
    [[ $folder != include ]] || folder=c2ms/player
    [[ $folder != tests ]] || folder=tests/adif
    beside=$(grep -m 1 "^$root/$folder/[^/]*\.cpp"$'\t' <<< "$list" | cut -f 2) || {
      breach no-target "$header" "no compiled source beside it"
      continue
    }
    flags=$(sed 's/ -o .*/ -ferror-limit=3/' <<< "$beside")
    todo+=$'\n'"echo '#include \"$header\"' | $flags -I$root -I$root/include -fsyntax-only -x c++ -"
  done
  (cd "$build" && tr '\n' '\0' <<< "$todo" | xargs -0 -P "$jobs" -I{} bash -c '{}') || failed=1
}

format() {
  clang-format --dry-run -Werror "${sources[@]}" "${headers[@]}" 2>&1 | grep -oE '^[^:]+:[0-9]+' |
    awk -F: '!seen[$1]++ { print $1 ":" $2 ": not formatted (./dev format)" }' | grep . && failed=1 || true
}

# What the formatter leaves of a table that it has folded: a line of one or two words between a long one and
# another, or the end of a comment alone below its only line. Three spaces in a row keep a line from it (.clang-format).
folded() {
  local place
  while read -r place; do
    breach folded "$place" "a comment that was folded: set it anew"
  done < <(awk '
    FNR == 1 { long = 0; few = opener = "" }
    few != "" && /^ *\/\/+ *[^ ]/ { print few }
    opener && /^ *\*\/$/ { print FILENAME ":" FNR }
    { few = ""; opener = /^ *\/\*[^*]/ && !/\*\// }
    /^ *\/\/+ / {
      text = $0
      sub(/^ *\/\/+ +/, "", text)
      row = /\/\/.*   / || /clang-format o/
      if (long && !row && split(text, words, " ") <= 2 && text !~ /[.:;)]$/) few = FILENAME ":" FNR
    }
    { long = /^ *\/\// && !/\/\/.*   / && length($0) >= 85 }' "${sources[@]}" "${headers[@]}")
}

for step in bans sizes folded format compile; do $step; done
[[ $failed == 0 ]] && echo "lint: ${#sources[@]} sources and ${#headers[@]} headers are clean"
exit $failed
