#!/usr/bin/env bash
# Installs the build tree into a scratch prefix and uses it as a host team
# would: checks the installed files, runs qenconfig from the installed tree,
# builds a program and a C++ plugin against it with find_package, builds the
# program again with nothing but pkg-config, and runs both on a host whose
# plugin runners and SDKs are the installed ones.
#
# install_test.sh BUILD_DIR CMAKE CXX   (QEN_CXX_LAUNCHER: e.g. ccache)
set -euo pipefail
build=$1 cmake=$2 cxx=$3
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
work=$(mktemp -d "${TMPDIR:-/tmp}/qen-install-XXXXXX")
trap 'rm -rf "$work"' EXIT
# The prefix is <root>/usr, so <root> is a host root for the installed runners.
root=$work/root
prefix=$root/usr

run_logged "$work/install.log" "cmake --install" "$cmake" --install "$build" --prefix "$prefix"

echo "-- installed files"
same "installed files (expected - actual +)" "$(listed RD)" \
  "$(cd "$prefix" && find . ! -type d | sed 's|^\./||' | sort)"
for exe in bin/qenconfig lib/corvane/configmanager/bin/cpp_plugin_runner \
           lib/corvane/configmanager/bin/py_plugin_runner; do
  [[ -x "$prefix/$exe" ]] || fail "$exe is not executable"
done
for lib in libconfigmanager libqenplatform; do
  same "SONAME of $lib" "$lib.so.0" \
    "$(objdump -p "$prefix/$QEN_LIBDIR/$lib.so" | awk '$1 == "SONAME" {print $2}')"
done

echo "-- qenconfig from the installed tree"
run_logged "$work/help.txt" "installed qenconfig --help" "$prefix/bin/qenconfig" --help
grep -q "extract" "$work/help.txt" || fail "qenconfig --help lists no commands"

# The host: key schemas and plugin manifests beside the installed product.
cp -R "$here/consumer/host/." "$root/"
expected=$(cat "$here/consumer/expected-output.txt")

echo "-- find_package(configmanager)"
launcher=()
[[ -n "${QEN_CXX_LAUNCHER:-}" ]] && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER="$QEN_CXX_LAUNCHER")
run_logged "$work/configure.log" "configuring the consumer" \
  "$cmake" -S "$here/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER="$cxx" "${launcher[@]}"
run_logged "$work/build.log" "building the consumer" "$cmake" --build "$work/cmake" -j2
install -D -m 0644 "$work/cmake/libgreeting.so" "$root/usr/lib/corvane/configmanager/plugins/libgreeting.so"
same "consumer output (find_package)" "$expected" "$(QEN_HOST_ROOT=$root "$work/cmake/consumer" 2>&1)"

echo "-- pkg-config configmanager"
export PKG_CONFIG_PATH=$prefix/$QEN_LIBDIR/pkgconfig
same "pkg-config prefix" "$prefix" "$(pkg-config --variable=prefix configmanager)"
# shellcheck disable=SC2046  # pkg-config's words are the flags
run_logged "$work/pc.log" "building the consumer with pkg-config" \
  ${QEN_CXX_LAUNCHER:-} "$cxx" -std=c++17 -o "$work/consumer-pc" "$here/consumer/consumer.cpp" \
  $(pkg-config --cflags configmanager) $(pkg-config --libs configmanager)
same "consumer output (pkg-config)" "$expected" \
  "$(LD_LIBRARY_PATH=$prefix/$QEN_LIBDIR QEN_HOST_ROOT=$root "$work/consumer-pc" 2>&1)"

echo "install test passed"
