#!/usr/bin/env bash
# Installs the build and test dependencies from Debian's packages. Idempotent,
# never reads standard input; skips apt when everything is already present.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config python3
  rapidjson-dev libboost-graph-dev libboost-filesystem-dev libboost-system-dev
  libsqlite3-dev sqlite3 googletest libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev libssl-dev
  # clang with its libFuzzer and sanitizer runtimes, for scripts/fuzz.sh
  clang libclang-rt-14-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  SUDO=""
  [[ $(id -u) -eq 0 ]] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq </dev/null
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
fi
# npm (for the JSON Schema conformance suite) may come from Debian or be
# present already; only install Debian's when there is none.
if ! command -v npm >/dev/null 2>&1; then
  SUDO=""
  [[ $(id -u) -eq 0 ]] || SUDO="sudo"
  $SUDO apt-get install -y -qq --no-install-recommends npm </dev/null || true
fi
