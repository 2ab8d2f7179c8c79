#!/usr/bin/env bash
# Builds the fuzzers (build-fuzz/: clang, libFuzzer, ASan and UBSan) and runs
# each for SECONDS seconds, one after another, starting from its seed corpus
# (fuzz/corpus/<target>/) and the corpus earlier runs grew
# (build-fuzz/corpus/<target>/). Fails when any fuzzer finds a crash, a leak,
# a hang (10 s per input) or runaway memory; the input is kept in
# build-fuzz/findings/<target>/ (replay: build-fuzz/fuzz/fuzz_<target> FILE).
#
#   scripts/fuzz.sh SECONDS [TARGET...]     (default: every target)
#
# JOBS (default: all cores) bounds the build; BUILD_DIR moves the tree.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
if [ $# -lt 1 ] || ! [[ $1 =~ ^[0-9]+$ ]]; then
  echo "usage: $0 SECONDS [TARGET...]" >&2
  exit 2
fi
SECONDS_EACH="$1"
shift
"$ROOT/scripts/deps.sh"
BUILD_DIR="${BUILD_DIR:-$ROOT/build-fuzz}"
LAUNCHER=()
command -v ccache >/dev/null 2>&1 && LAUNCHER=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
CC=clang CXX=clang++ cmake -S "$ROOT" -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQEN_BUILD_FUZZERS=ON -DQEN_BUILD_BENCH=OFF "${LAUNCHER[@]}" >/dev/null
cmake --build "$BUILD_DIR" --target fuzzers -j"${JOBS:-$(nproc)}"

if [ $# -gt 0 ]; then
  TARGETS=("$@")
else
  TARGETS=()
  for f in "$ROOT"/fuzz/*.cpp; do TARGETS+=("$(basename "$f" .cpp)"); done
fi

failed=()
printf '%-12s %8s %8s %10s  %s\n' target seconds corpus execs result
for t in "${TARGETS[@]}"; do
  corpus="$BUILD_DIR/corpus/$t"
  findings="$BUILD_DIR/findings/$t"
  mkdir -p "$corpus" "$findings"
  log="$BUILD_DIR/fuzz-$t.log"
  # The target's temporary host root: a crash skips its removal at exit.
  tmp="$BUILD_DIR/tmp/$t"
  rm -rf "$tmp" && mkdir -p "$tmp"
  rc=0
  TMPDIR="$tmp" UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 "$BUILD_DIR/fuzz/fuzz_$t" \
    -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=2048 -max_len=16384 \
    -dict="$ROOT/fuzz/json.dict" -artifact_prefix="$findings/" -print_final_stats=1 \
    "$corpus" "$ROOT/fuzz/corpus/$t" >"$log" 2>&1 || rc=$?
  rm -rf "$tmp"
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  size=$(find "$corpus" -type f | wc -l)
  if [ "$rc" -eq 0 ]; then
    result=ok
  else
    result="FAILED (exit $rc; $BUILD_DIR/fuzz-$t.log, $findings/)"
    failed+=("$t")
  fi
  printf '%-12s %8s %8s %10s  %s\n' "$t" "$SECONDS_EACH" "$size" "${execs:-?}" "$result"
done
if ((${#failed[@]})); then
  echo "fuzzers with findings: ${failed[*]}" >&2
  exit 1
fi
