#!/usr/bin/env bash
# Installs what is needed, builds, and runs the whole test suite with ctest.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$ROOT/scripts/deps.sh"
export BUILD_DIR="${BUILD_DIR:-$ROOT/build}"
"$ROOT/scripts/build.sh" -DQEN_BUILD_BENCH=ON
# The outside JSON Schema conformance suite, read by test_validator.
"$ROOT/scripts/fetch-schema-suite.sh" "$BUILD_DIR/schema-suite"
cd "$BUILD_DIR"
ctest -j"$(nproc)" --output-on-failure

# The fuzzers, each for a short budget (QEN_CI_FUZZ_SECONDS), in their own
# clang tree instrumented with ASan and UBSan (build-fuzz/); in the same tree
# the reliability tests, the fuzz regressions, and the secrets and bad-input
# tests of the command line run again under the sanitizers.
# tests/README.md records what this costs.
FUZZ_DIR="$ROOT/build-fuzz"
BUILD_DIR="$FUZZ_DIR" "$ROOT/scripts/fuzz.sh" "${QEN_CI_FUZZ_SECONDS:-20}"
cmake --build "$FUZZ_DIR" --target test_reliability test_fuzz_regressions test_qenconfig -j"$(nproc)"
cd "$FUZZ_DIR"
UBSAN_OPTIONS=print_stacktrace=1 ctest -j"$(nproc)" --output-on-failure \
  -R '^(Store/StoreFaultTest|CrashSafetyTest|PluginFaultsTest|Fuzz/ReplayTest|BadInputTest|SecretsTest|Inputs/CliBadInputTest)\.'
