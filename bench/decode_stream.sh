#!/usr/bin/env bash
# Throughput of `quillet decode` reading TC Strings from standard input, one JSON object a line,
# on one core (core 0; a pipe's reader on core 1): the valid real strings of testdata/tc-strings.txt repeated (20,000 times by
# default, 1,060,000 lines), best of five runs into /dev/null and into a pipe.
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
for sink in /dev/null pipe; do
  if [ "$sink" = pipe ]; then
    # The reader on the other core, as a consumer of the output would be.
    ns=$(best "taskset -c 0 \"$quillet\" decode < \"$input\" | taskset -c 1 cat > /dev/null")
  else
    ns=$(best "taskset -c 0 \"$quillet\" decode < \"$input\" > /dev/null")
  fi
  awk -v n="$lines" -v ns="$ns" -v b="$bytes" -v sink="$sink" 'BEGIN {
    printf "decode to %-9s %d strings in %.0f ms: %.2f million strings/s, %.0f MB/s of JSON\n",
           sink, n, ns / 1e6, n / (ns / 1e9) / 1e6, b / (ns / 1e9) / 1e6 }'
done
