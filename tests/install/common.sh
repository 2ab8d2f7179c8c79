# Shared by the install and package tests. Expects QEN_LIBDIR, QEN_CONFIG
# (the lower-case build type) and QEN_VERSION in the environment.
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

fail() { echo "FAIL: $*" >&2; exit 1; }

same() {  # same WHAT EXPECTED ACTUAL
  if [[ "$2" != "$3" ]]; then
    diff -u <(printf '%s\n' "$2") <(printf '%s\n' "$3") >&2 || true
    fail "$1"
  fi
}

# listed COMPONENTS [PREFIX]: the installed files of the components (R
# runtime, D development, RD both), sorted, each with PREFIX in front.
listed() {
  sed -n "s|^[$1] |${2:-}|p" "$here/installed-files.txt" |
    sed -e "s|@LIBDIR@|$QEN_LIBDIR|" -e "s|@CONFIG@|$QEN_CONFIG|" -e "s|@VERSION@|$QEN_VERSION|" | sort
}

# run_logged LOG WHAT COMMAND...: runs COMMAND with its output in LOG, shown
# only when it fails.
run_logged() {
  local log=$1 what=$2
  shift 2
  "$@" >"$log" 2>&1 || { cat "$log" >&2; fail "$what"; }
}
