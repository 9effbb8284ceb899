#!/usr/bin/env bash
# One start-up to the banner, counted in instructions under callgrind, step by step: with the
# vendor list read from the store (`:0`) and with it already in memory (`:1`). Instruction counts
# do not move with how busy the machine is, so two builds compare on any day; timings are the
# start-up benchmark's. With more than one core, a start from the store reads the stored list on a
# thread of its own while its configuration downloads; that read is counted as a step of its own.
# Needs valgrind (Debian package "valgrind").
# usage: bench/startup_profile.sh [path/to/facade_bench]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
bench=${1:-build/release/bench/facade_bench}
command -v valgrind > /dev/null || { echo "startup_profile: needs valgrind" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Inclusive instructions of each step; the first match of its pattern in the profile. Only the
# top-level steps are counted, so that the benchmark's own set-up (which fills the cache in memory
# for `:1`) is left out.
steps=(
  "initialize on the host's thread|quillet::QuilletCMP::initialize\("
  "from the configuration's arrival on, HTTP thread|QLTAPIServer::\(anonymous namespace\)::downloadConfig\("
  "  reading the stored vendor list's start document (own thread)|quillet::ConsentStorage::\(anonymous namespace\)::readStartGVL\("
  "  applying configuration and vendor list|quillet::QuilletCMP::applyFetchedConfig\("
  "    vendor ids (the models follow the banner)|quillet::VendorModels::outline\("
  "    vendor list facts|quillet::VendorList::facts\("
  "    raw vendor entries|quillet::VendorList::entriesOf\("
  "after the banner, HTTP thread|quillet::QuilletCMP::completeStart\("
  "  vendor models|quillet::VendorModels::models\("
  "  the whole stored list|quillet::\(anonymous namespace\)::WholeList::get\("
  "the banner's document, main thread|quillet::CMPBannerViewController::document"
)

for mode in 0 1; do
  out="$work/callgrind.$mode"
  valgrind --tool=callgrind --callgrind-out-file="$out" \
    --toggle-collect='quillet::QuilletCMP::initialize(*' \
    --toggle-collect='quillet::QLTAPIServer::(anonymous namespace)::downloadConfig(*' \
    --toggle-collect='quillet::ConsentStorage::(anonymous namespace)::readStartGVL(*' \
    --toggle-collect='quillet::CMPBannerViewController::document*' "$bench" \
    --benchmark_filter="StartUpFromCachedVendorListToBanner/cacheFilledAtLaunch:$mode/configMs:0" \
    --benchmark_min_time=0 > /dev/null 2>&1
  callgrind_annotate --inclusive=yes --threshold=100 "$out" > "$out.txt" 2> /dev/null
  echo "start-up, cacheFilledAtLaunch:$mode (instructions, one start)"
  # What the HTTP thread does after the banner (the vendor models, and for a start from the
  # store the whole list) is no part of the way to the banner.
  total=$(grep -m1 'PROGRAM TOTALS' "$out.txt" | awk '{print $1}' | tr -d ,)
  after=$(grep -m1 -E 'quillet::QuilletCMP::completeStart\(' "$out.txt" | awk '{print $1}' |
    tr -d , || true)
  printf '  %-62s %12s\n' "the steps below, together, to the banner" \
    "$(echo $((total - ${after:-0})) | sed ':a;s/\B[0-9]\{3\}\>/,&/;ta')"
  for step in "${steps[@]}"; do
    name=${step%%|*}
    count=$(grep -m1 -E "${step#*|}" "$out.txt" | awk '{print $1}' || true)
    printf '  %-62s %12s\n' "$name" "${count:--}"
  done
done
