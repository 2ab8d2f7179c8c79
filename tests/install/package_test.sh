#!/usr/bin/env bash
# Builds the Debian packages from the build tree, checks what each holds and
# depends on, then installs and removes them with dpkg in a scratch root
# (never the machine's own /): the files land below /usr, the maintainer
# scripts run, qenconfig runs from there and removal leaves nothing behind.
#
# package_test.sh BUILD_DIR CPACK
set -euo pipefail
build=$1 cpack=$2
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
work=$(mktemp -d "${TMPDIR:-/tmp}/qen-package-XXXXXX")
trap 'rm -rf "$work"' EXIT

echo "-- cpack -G DEB"
run_logged "$work/cpack.log" "cpack" "$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$work/out"
runtime=$(echo "$work"/out/configmanager_*.deb)
dev=$(echo "$work"/out/configmanager-dev_*.deb)
[[ -f $runtime && -f $dev ]] || fail "expected configmanager and configmanager-dev packages, got: $(ls "$work/out")"

contents() { dpkg-deb --fsys-tarfile "$1" | tar -t | grep -v '/$' | sed 's|^\./||' | sort; }
same "files of configmanager" "$(listed R usr/)" "$(contents "$runtime")"
same "files of configmanager-dev" "$(listed D usr/)" "$(contents "$dev")"

depends=$(dpkg-deb -f "$runtime" Depends)
for package in libc6 libstdc++6 libsqlite3-0 libboost-filesystem python3; do
  [[ ", $depends" == *", $package"* ]] || fail "configmanager does not depend on $package: $depends"
done
[[ $(dpkg-deb -f "$dev" Depends) == "configmanager (= $(dpkg-deb -f "$runtime" Version)), rapidjson-dev,"* ]] \
  || fail "configmanager-dev depends on: $(dpkg-deb -f "$dev" Depends)"
control() { dpkg-deb --ctrl-tarfile "$1" | tar -xO "./$2"; }
same "shlibs of configmanager" "libconfigmanager 0 configmanager (= $QEN_VERSION)
libqenplatform 0 configmanager (= $QEN_VERSION)" "$(control "$runtime" shlibs)"
same "triggers of configmanager" "activate-noawait ldconfig" "$(control "$runtime" triggers)"
# The pkg-config file names where the package puts things, not the staging tree.
same "configmanager.pc prefix" "prefix=/usr" \
  "$(dpkg-deb --fsys-tarfile "$dev" | tar -xO "./usr/$QEN_LIBDIR/pkgconfig/configmanager.pc" | head -1)"

echo "-- dpkg -i, dpkg -r in a scratch root"
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
# The scratch root has no libc or python3 of its own: dependencies are not
# checked there, and the maintainer scripts run outside it (DPKG_ROOT).
scratch_dpkg() {
  dpkg --root="$root" --log=/dev/null --force-depends --force-not-root --force-script-chrootless "$@" \
    >>"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg $*"; }
}
scratch_dpkg -i "$runtime" "$dev"
same "installed packages" "configmanager configmanager-dev" \
  "$(dpkg-query --admindir="$root/var/lib/dpkg" -W -f='${Package} ' | xargs)"
run_logged "$work/help.txt" "installed qenconfig --help" "$root/usr/bin/qenconfig" --help
grep -q "extract" "$work/help.txt" || fail "installed qenconfig --help lists no commands"
ls "$root/usr/lib/corvane/configmanager/python/qenplugin/__pycache__/"*.pyc >/dev/null 2>&1 \
  || fail "postinst did not compile the Python SDK"

scratch_dpkg -r configmanager-dev configmanager
same "what dpkg -r left (besides dpkg's own database)" "" \
  "$(cd "$root" && find . -mindepth 1 ! -path ./var ! -path ./var/lib ! -path './var/lib/dpkg*' | sort)"

# On a CI machine (root, a clean system) the real round trip: dpkg -i into /,
# a program built with the installed pkg-config file and found by the
# dynamic linker without help, dpkg -P leaving none of the package's files.
if [[ -n ${CI:-} ]]; then
  echo "-- dpkg -i, dpkg -P on this machine (CI)"
  [[ $(id -u) == 0 ]] || fail "the CI round trip needs root"
  if dpkg-query -W -f='${Status}' configmanager 2>/dev/null | grep -q installed; then
    fail "configmanager is installed already; not replacing it"
  fi
  run_logged "$work/dpkg-real.log" "dpkg -i" dpkg -i "$runtime" "$dev"
  # A failed check below must not leave the packages on the machine.
  trap 'dpkg -P configmanager-dev configmanager >/dev/null 2>&1; rm -rf "$work"' EXIT
  files=$(dpkg-query -L configmanager configmanager-dev | sort -u)
  run_logged "$work/help.txt" "qenconfig --help from /usr/bin" qenconfig --help
  grep -q "extract" "$work/help.txt" || fail "installed qenconfig --help lists no commands"
  # shellcheck disable=SC2046  # pkg-config's words are the flags
  run_logged "$work/pc.log" "building against the installed package" \
    c++ -std=c++17 -o "$work/consumer" "$here/consumer/consumer.cpp" \
    $(pkg-config --cflags --libs configmanager)
  # Found where the package put it (/lib is /usr/lib on a merged-/usr system).
  found=$(ldd "$work/consumer" | sed -n 's/^\s*libconfigmanager\.so\.0 => \(\S*\) .*/\1/p')
  [[ -n $found && $(readlink -f "$found") == $(readlink -f /usr/lib/libconfigmanager.so.0) ]] \
    || fail "the dynamic linker does not find libconfigmanager: $(ldd "$work/consumer")"
  run_logged "$work/dpkg-real.log" "dpkg -P" dpkg -P configmanager-dev configmanager
  trap 'rm -rf "$work"' EXIT
  left=$(while read -r f; do if [[ -e $f && ! -d $f ]]; then echo "$f"; fi; done <<<"$files")
  same "files dpkg -P left behind" "" "$left"
  [[ ! -e /usr/lib/corvane/configmanager/python ]] || fail "dpkg -P left /usr/lib/corvane/configmanager/python"
fi

echo "package test passed"
