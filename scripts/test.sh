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
