#!/usr/bin/env bash
# Throughput of `quillet decode` reading TC Strings from standard input, one JSON object a line,
# on one core (core 0; a pipe's reader on core 1), then with --threads on every core: the valid
# real strings of testdata/tc-strings.txt repeated (20,000 times by default, 1,060,000 lines),
# best of five runs into /dev/null and into a pipe.
# usage: bench/decode_stream.sh [path/to/quillet] [repeats]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
quillet=${1:-build/release/cli/quillet}
repeats=${2:-20000}
input=$(mktemp)
trap 'rm -f "$input"' EXIT
awk -F'\t' '$2 ~ /^valid/ {print $1}' testdata/tc-strings.txt > "$input.one"
for ((i = 0; i < repeats; ++i)); do cat "$input.one"; done > "$input"
rm -f "$input.one"
lines=$(wc -l < "$input")
bytes=$(taskset -c 0 "$quillet" decode < "$input" | wc -c)
best() {
  local fastest=
  for _ in 1 2 3 4 5; do
    local start end
    start=$(date +%s%N)
    eval "$1"
    end=$(date +%s%N)
    ((fastest == 0 || end - start < fastest)) && fastest=$((end - start))
  done
  echo "$fastest"
}
report() {
  awk -v n="$lines" -v ns="$2" -v b="$bytes" -v what="$1" 'BEGIN {
    printf "%-32s %d strings in %.0f ms: %.2f million strings/s, %.0f MB/s of JSON\n",
           what, n, ns / 1e6, n / (ns / 1e9) / 1e6, b / (ns / 1e9) / 1e6 }'
}
report "decode to /dev/null" "$(best "taskset -c 0 \"$quillet\" decode < \"$input\" > /dev/null")"
# The reader on the other core, as a consumer of the output would be.
report "decode to pipe" \
  "$(best "taskset -c 0 \"$quillet\" decode < \"$input\" | taskset -c 1 cat > /dev/null")"
# Every core, with --threads: one worker a core.
cores=$(nproc)
report "decode --threads $cores to /dev/null" \
  "$(best "\"$quillet\" decode --threads $cores < \"$input\" > /dev/null")"
report "decode --threads $cores to pipe" \
  "$(best "\"$quillet\" decode --threads $cores < \"$input\" | cat > /dev/null")"
