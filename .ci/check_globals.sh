#!/usr/bin/env bash
# No mutable global state in the library: support/, formats/ and translate/
# declare no extern variables, and their object files hold no writable data
# (.data, .bss and their thread-local kinds: mutable globals, statics of
# any scope, function-local statics with their guards). Constant tables
# (const/constexpr, also .data.rel.ro) are fine.
#   .ci/check_globals.sh [build directory, default build]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
dirs=(support formats translate)
status=0

# extern declarations that are not functions or linkage blocks.
if grep -rnE '^\s*extern\s' "${dirs[@]}" --include='*.h' --include='*.cpp' |
  grep -vE 'extern\s+"C"|\(' ; then
  echo "check_globals: extern variable declarations (above)" >&2
  status=1
fi

# Writable data in the objects (left out: the section symbols themselves,
# the iostream initializer object and the exception-handling references the
# compiler adds).
# (Objects left in the build directory by deleted sources are skipped.)
objdir=$build/CMakeFiles/laytran_lib.dir
objects=$(for d in "${dirs[@]}"; do
  find "$objdir/$d" -name '*.o' 2>/dev/null
done | while read -r o; do
  source=${o#"$objdir/"}
  if [ -e "${source%.o}" ]; then echo "$o"; fi
done)
if [ -z "$objects" ]; then
  echo "check_globals: no objects under $build (build first)" >&2
  exit 1
fi
found=$(for o in $objects; do
  objdump -t "$o" | awk -v obj="$o" '
    $0 ~ /\t/ {
      split($0, parts, "\t"); split(parts[1], head, " "); section = head[length(head)]
      name = parts[2]; sub(/^[0-9a-f]+ +/, "", name)
      if (section ~ /^\.(data|bss|tdata|tbss)(\.|$)/ && section !~ /^\.data\.rel\.ro/ &&
          name != section && name !~ /__ioinit$/ && name !~ /DW\.ref\./)
        print obj ": " section " " name
    }'
done)
if [ -n "$found" ]; then
  echo "$found" | c++filt >&2
  echo "check_globals: mutable data in the library (above)" >&2
  status=1
fi
exit $status
