#!/usr/bin/env bash
# Configures and builds into BUILD_DIR (default: build/). Extra arguments go
# to cmake's configure step.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD_DIR="${BUILD_DIR:-$ROOT/build}"
cmake -S "$ROOT" -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)"
