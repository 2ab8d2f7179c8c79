#!/usr/bin/env bash
# Installs what is needed, builds, lays out a sample host root under the
# build tree and runs the main job on it, printing what it did: the host's
# status, its current configuration as the extract plugins read it, the
# validation of a good and a bad desired document, and the drift between a
# desired document and the host.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$ROOT/scripts/deps.sh"
export BUILD_DIR="${BUILD_DIR:-$ROOT/build}"
"$ROOT/scripts/build.sh"

HOST="$BUILD_DIR/demo-host"
rm -rf "$HOST"
mkdir -p "$HOST"
cp -a "$ROOT/host/root/." "$HOST/"
cp -a "$BUILD_DIR/host-staging/." "$HOST/"
QEN="$BUILD_DIR/tools/qenconfig"
DOCS="$ROOT/host/documents"
q() {
  echo
  echo "\$ qenconfig $*"
  local rc=0
  "$QEN" --root "$HOST" "$@" || rc=$?
  echo "(exit $rc)"
}

echo "sample host root: $HOST"
q host status
q store load "$DOCS/store-sample.json"
q plugins list --type apply
q extract current
q validate "$DOCS/desired-good.json"
q validate "$DOCS/desired-bad.json"
q compliance "$DOCS/desired-compliance.json" --property-level

# Export and telemetry: the host's exported user configuration (reference
# host metadata, host-specific values split out, the time zone left out while
# it equals its default), its telemetry form (allow-listed keys only, the SNMP
# community redacted, the telemetry-disabled users masked), the SmartNIC's
# configuration, and the configuration manager's telemetry items.
q export
q export --telemetry
q smartnic get
q telemetry --exclude configManagerQenConfig
q telemetry --include configManagerQenBiosUuid,configManagerRowCount --index 5 --json

# Boot-time configuration: a document that needs a reboot is staged, a
# simulated reboot applies it, and an early bootstrap document brings up
# authentication and networking in two stages.
files() {  # the auto-deployment files, or that they are gone
  local f
  for f in /etc/corvane/autodeploy/waiterNotify.json /etc/corvane/firewall/autodeploy.xml; do
    if [ -e "$HOST$f" ]; then echo "$f: $(wc -c <"$HOST$f") bytes"; else echo "$f: absent"; fi
  done
}
echo
echo "# A kernel option that needs a reboot: staged, the auto-deployment files move into the store."
q boot document "$DOCS/boot-reboot.json"
files
q boot record
q store stats
echo
echo "# Simulated reboot: the store makes the staged document current, the boot-time apply writes the files back and applies it."
q store boot
q -v 0 boot apply
files
echo "/etc/kernel/cmdline: $(cat "$HOST/etc/kernel/cmdline")"
q boot record
echo
echo "# Early bootstrap: the root password first, then the virtual switch and the management network."
q boot early "$DOCS/bootstrap-early.json"
cat "$HOST/etc/corvane/network/vss/vss0.conf" "$HOST/etc/corvane/network/management.conf"
