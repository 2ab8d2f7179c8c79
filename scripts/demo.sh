#!/usr/bin/env bash
# Installs what is needed, builds, lays out a sample host root under the
# build tree and runs the main job on it, printing what it did: the host's
# status, its current configuration as the extract plugins read it, the
# validation of a good and a bad desired document, and the drift between a
# desired document and the host; at the end, the impact, plan and apply of
# a document on the sample host, and the staging of one that needs a reboot.
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

# Impact, plan and apply: the full cycle on the sample host. The document
# changes the resolver, adds an interface and sets a time server, none of
# which needs maintenance mode or a reboot, so apply runs the apply plugins
# in their dependency order and they rewrite the host's files below the host
# root. Then a document whose kernel option only takes effect through a
# reboot: apply stores it for the next boot and runs no plugin (exit 4).
PLAN="$BUILD_DIR/demo.plan"
echo
echo "== the host drifts from the document to apply:"
q compliance "$DOCS/desired-apply.json"
echo "== what applying it would cost the host:"
q impact "$DOCS/desired-apply.json"
echo "== the check-apply result kept in an owner-only plan file:"
q plan "$DOCS/desired-apply.json" -o "$PLAN"
echo "== $HOST/etc/resolv.conf before the apply:"
cat "$HOST/etc/resolv.conf"
echo "== applying the plan (one line per plugin notification, then the report):"
q apply "$PLAN"
echo "== $HOST/etc/resolv.conf after the apply:"
cat "$HOST/etc/resolv.conf"
echo "== the host now complies (exit 0):"
q compliance "$DOCS/desired-apply.json"
echo "== a kernel option that needs a reboot: planned, then staged by apply:"
q plan "$DOCS/desired-reboot.json" -o "$PLAN"
q apply "$PLAN"
