#!/usr/bin/env bash
# Installs what is needed, builds, lays out a sample host root under the
# build tree and runs the main job on it, printing what it did: the host's
# status, its current configuration as the extract plugins read it, the
# validation of a good and a bad desired document, and the drift between a
# desired document and the host; then export and telemetry, single-key get,
# set and delete, the impact, plan and apply of a document (and the staging
# of one that needs a reboot), and boot-time configuration: a staged document
# applied by a simulated reboot, and an early bootstrap in two stages.
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

# Single keys: read one key, set one whose change has no impact (the resolver
# plugin rewrites /etc/resolv.conf at once, and a compliance check against the
# host with the new value goes from one drift to none), set one that needs a
# reboot (staged, boot mode 4), and delete one.
RESOLVER='{"servers": ["192.0.2.53", "192.0.2.54"], "search": ["lab.example"]}'
"$QEN" --root "$HOST" extract current --show-sensitive | python3 -c '
import json, sys
doc = json.load(sys.stdin)
doc["network"]["dns"]["resolver"] = json.loads(sys.argv[1])
print(json.dumps(doc, indent=3))' "$RESOLVER" > "$BUILD_DIR/demo-resolver.json"
echo
echo "# get: one key's default and current value"
q get network dns resolver
echo "# the host with the new resolver value drifts in that key only"
q compliance "$BUILD_DIR/demo-resolver.json"
echo "# set with no impact: applied at once, /etc/resolv.conf before and after"
cat "$HOST/etc/resolv.conf"
q set network dns resolver "$RESOLVER"
cat "$HOST/etc/resolv.conf"
echo "# compliance again: the host now has the new value"
q compliance "$BUILD_DIR/demo-resolver.json"
echo "# set that needs a reboot: confirmed with --yes, staged for the next boot"
q set system boot kernel '{"iommu": true, "consoleLogLevel": 4}' --yes
echo "# the store's boot mode is now 4 (single-key changes wait for the reboot)"
q store stats
echo "# delete: the resolver's configuration is removed from the host"
q delete network dns resolver
cat "$HOST/etc/resolv.conf"

# Impact, plan and apply: the full cycle on the sample host. The document
# changes the resolver, adds an interface and sets a time server, none of
# which needs maintenance mode or a reboot, so apply runs the apply plugins
# in their dependency order and they rewrite the host's files below the host
# root. Then a document whose kernel option only takes effect through a
# reboot: apply stores it for the next boot and runs no plugin (exit 4).
# It runs on a sample host of its own, so that blocks before and after it
# find the host as they expect.
MAIN_HOST="$HOST"
HOST="$BUILD_DIR/demo-apply-host"
rm -rf "$HOST"
mkdir -p "$HOST"
cp -a "$ROOT/host/root/." "$BUILD_DIR/host-staging/." "$HOST/"
"$QEN" --root "$HOST" store load "$DOCS/store-sample.json" >/dev/null
PLAN="$BUILD_DIR/demo.plan"
echo
echo "# the host drifts from the document to apply:"
q compliance "$DOCS/desired-apply.json"
echo "# what applying it would cost the host:"
q impact "$DOCS/desired-apply.json"
echo "# the check-apply result kept in an owner-only plan file:"
q plan "$DOCS/desired-apply.json" -o "$PLAN"
echo "# $HOST/etc/resolv.conf before the apply:"
cat "$HOST/etc/resolv.conf"
echo "# applying the plan (one line per plugin notification, then the report):"
q apply "$PLAN"
echo "# $HOST/etc/resolv.conf after the apply:"
cat "$HOST/etc/resolv.conf"
echo "# the host now complies (exit 0):"
q compliance "$DOCS/desired-apply.json"
echo "# a kernel option that needs a reboot: planned, then staged by apply:"
q plan "$DOCS/desired-reboot.json" -o "$PLAN"
q apply "$PLAN"
HOST="$MAIN_HOST"

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
