#!/usr/bin/env bash
# Installs the build and test dependencies from Debian's packages. Idempotent,
# never reads standard input; skips apt when everything is already present.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config python3
  rapidjson-dev libboost-graph-dev libboost-filesystem-dev libboost-system-dev
  libsqlite3-dev sqlite3 googletest libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev libssl-dev
  # cpack -G DEB: dpkg-shlibdeps for the package's dependencies, file to
  # tell it which files are ELF objects
  dpkg-dev file
  # clang with its libFuzzer and sanitizer runtimes, for scripts/fuzz.sh
  clang libclang-rt-14-dev
)

# Only the peer validator comparison (bench/bench_peer_validator.cpp) uses
# these; the build and the tests go on without them.
OPTIONAL_PACKAGES=(libvalijson-dev)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
missing=()
for p in "${PACKAGES[@]}"; do
  installed "$p" || missing+=("$p")
done
optional=()
for p in "${OPTIONAL_PACKAGES[@]}"; do
  installed "$p" || optional+=("$p")
done
if ((${#missing[@]} + ${#optional[@]})); then
  SUDO=""
  [[ $(id -u) -eq 0 ]] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq </dev/null
  if ((${#missing[@]})); then
    echo "installing: ${missing[*]}"
    $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
  fi
  if ((${#optional[@]})); then
    echo "installing (optional, benchmarks only): ${optional[*]}"
    $SUDO apt-get install -y -qq --no-install-recommends "${optional[@]}" </dev/null ||
      echo "optional packages not installed: ${optional[*]}"
  fi
fi
# npm (for the JSON Schema conformance suite) may come from Debian or be
# present already; only install Debian's when there is none.
if ! command -v npm >/dev/null 2>&1; then
  SUDO=""
  [[ $(id -u) -eq 0 ]] || SUDO="sudo"
  $SUDO apt-get install -y -qq --no-install-recommends npm </dev/null || true
fi
