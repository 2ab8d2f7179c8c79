#!/usr/bin/env bash
# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer, in
# its own build tree (build-asan/).
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$ROOT/scripts/deps.sh"
export BUILD_DIR="${BUILD_DIR:-$ROOT/build-asan}"
BUILD_TYPE=Debug "$ROOT/scripts/build.sh" -DQEN_SANITIZE=ON -DQEN_BUILD_BENCH=OFF
"$ROOT/scripts/fetch-schema-suite.sh" "$BUILD_DIR/schema-suite"
cd "$BUILD_DIR"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest -j"$(nproc)" --output-on-failure
