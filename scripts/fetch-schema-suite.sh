#!/usr/bin/env bash
# Installs the JSON Schema Test Suite (npm package json-schema-test-suite,
# pinned so that the expected pass counts stay put)
# into the directory given as $1, for the validator's conformance test
# (QEN_SCHEMA_SUITE_DIR, or ${QEN_BINARY_DIR}/schema-suite). Idempotent: an
# existing install is kept.
set -euo pipefail
if [ $# -ne 1 ] || [ -z "$1" ]; then
  echo "usage: $0 DIR" >&2
  exit 2
fi
DIR="$1"
if [ -d "$DIR/node_modules/json-schema-test-suite/tests/draft4" ]; then
  exit 0
fi
if ! command -v npm >/dev/null 2>&1; then
  echo "error: npm is not installed; install it (apt-get install npm) to fetch the JSON Schema Test Suite" >&2
  exit 1
fi
mkdir -p "$DIR"
npm install --prefix "$DIR" --no-audit --no-fund --no-save --loglevel=error json-schema-test-suite@0.0.10 </dev/null
if [ ! -d "$DIR/node_modules/json-schema-test-suite/tests/draft4" ]; then
  echo "error: json-schema-test-suite installed into $DIR has no tests/draft4 directory" >&2
  exit 1
fi
