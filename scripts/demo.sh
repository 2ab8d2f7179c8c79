#!/usr/bin/env bash
# Installs what is needed, builds, lays out a sample host root under the
# build tree and runs the main job on it, printing what it did.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$ROOT/scripts/deps.sh"
export BUILD_DIR="${BUILD_DIR:-$ROOT/build}"
"$ROOT/scripts/build.sh"

HOST="$BUILD_DIR/demo-host"
rm -rf "$HOST"
mkdir -p "$HOST"
cp -a "$ROOT/host/root/." "$HOST/"
[[ -d "$BUILD_DIR/host-staging" ]] && cp -a "$BUILD_DIR/host-staging/." "$HOST/"
QEN="$BUILD_DIR/tools/qenconfig"
q() { echo; echo "\$ qenconfig $*"; "$QEN" --root "$HOST" "$@"; }

echo "sample host root: $HOST"
q host status
q doc fmt "$ROOT/host/documents/desired-basic.json"
