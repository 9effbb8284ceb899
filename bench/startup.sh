#!/usr/bin/env bash
# Start-up of the codec commands against a C++ program that only prints a line, and against
# /bin/true (the cost of starting any process here): mean wall and CPU time of 200 runs each, with
# the shared libraries each program loads.
# usage: bench/startup.sh [path/to/quillet]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
quillet=${1:-build/release/cli/quillet}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf '#include <iostream>\nint main() { std::cout << "hello\\n"; }\n' > "$work/hello.cpp"
c++ -O2 "$work/hello.cpp" -o "$work/hello"
echo '{"purposeConsents": [1, 2], "vendorConsents": [8], "gvlVendorIds": [8]}' > "$work/encode.json"
string=COtybn4PA_zT4KjACBENAPCIAEBAAECAAIAAAAAAAAAA
measure() {
  local name=$1
  shift
  local start end cpu0 cpu1
  # Elapsed and CPU time of the children of this shell.
  read -r _ _ cpu0 _ < <(cat /proc/$$/stat | cut -d' ' -f14-17 | awk '{print $1, $2, $3 + $4, 0}')
  start=$(date +%s%N)
  for _ in $(seq 1 200); do "$@" > /dev/null; done
  end=$(date +%s%N)
  read -r _ _ cpu1 _ < <(cat /proc/$$/stat | cut -d' ' -f14-17 | awk '{print $1, $2, $3 + $4, 0}')
  awk -v n="$name" -v ns=$((end - start)) -v t=$((cpu1 - cpu0)) -v hz="$(getconf CLK_TCK)" \
    'BEGIN { printf "%-22s %6.2f ms wall, %6.2f ms CPU a run\n", n, ns / 200 / 1e6, t / hz / 200 * 1e3 }'
}
measure "/bin/true" /bin/true
measure "C++ hello" "$work/hello"
measure "quillet decode X" "$quillet" decode "$string"
measure "quillet encode" "$quillet" encode --input "$work/encode.json"
echo "libraries loaded: quillet $(ldd "$quillet" | wc -l), C++ hello $(ldd "$work/hello" | wc -l)"
ldd "$quillet" | grep -E 'curl|sqlite|icu' || echo "quillet loads none of libcurl, SQLite, ICU"
