#!/usr/bin/env bash
# The guided demo: installs what is needed, builds quietly, lays out a sample
# host root under the build tree and walks through what the configuration
# manager does on it, one narrated line per step. The build's output is kept
# in a log and shown only when the build fails.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
export BUILD_DIR="${BUILD_DIR:-$ROOT/build}"
mkdir -p "$BUILD_DIR"

quietly() {  # runs "$@" into a log; shows the log and stops when it fails
  local what="$1" log="$2"
  shift 2
  if ! "$@" >"$log" 2>&1; then
    cat "$log"
    echo "demo: $what failed (log: $log)" >&2
    exit 1
  fi
}
echo "Installing the build dependencies and building (log: $BUILD_DIR/demo-build.log) ..."
quietly "installing the dependencies" "$BUILD_DIR/demo-deps.log" "$ROOT/scripts/deps.sh"
quietly "the build" "$BUILD_DIR/demo-build.log" "$ROOT/scripts/build.sh"

HOST="$BUILD_DIR/demo-host"
rm -rf "$HOST"
mkdir -p "$HOST"
cp -a "$ROOT/host/root/." "$HOST/"
cp -a "$BUILD_DIR/host-staging/." "$HOST/"
QEN="$BUILD_DIR/tools/qenconfig"
DOCS="$ROOT/host/documents"
q() {
  echo "\$ qenconfig $*"
  local rc=0
  "$QEN" --root "$HOST" "$@" || rc=$?
  echo "(exit $rc)"
}
step() {  # one line saying what the next command shows and why
  echo
  echo "# $*"
}
show() {  # a host file, indented so that it stands apart from the narration
  echo "--- $1:"
  sed 's/^/    /' "$HOST$1"
}
section() {
  echo
  echo "=== $* ==="
}

echo "The sample host's files live below $HOST; nothing outside it is touched."

section "The main flow: read the host, validate documents, find drift"
step "Host status: is the host in maintenance mode, can it quick-boot, what is its BIOS UUID."
q host status
step "Seed the configuration store with the sample host's current and desired values."
q store load "$DOCS/store-sample.json"
step "The apply plugins installed on the host; the last line is the order in which apply runs their services and groups."
q plugins list --type apply
step "The host's current configuration: the store's values merged with what the extract plugins read from its files."
q extract current
step "Validate a good desired document: every key matches its schema and its validation plugin."
q validate "$DOCS/desired-good.json"
step "Validate a bad one: each error names the path of the value and why it is refused (exit 3: invalid)."
q validate "$DOCS/desired-bad.json"
step "Compliance: every difference between a desired document and the host, down to single properties (exit 3: drift found)."
q compliance "$DOCS/desired-compliance.json" --property-level

section "Export and telemetry"
step "The user configuration as an exported document: host-specific values split out, a time zone equal to its default left out."
q export
step "Its telemetry form: allow-listed keys only, the SNMP community redacted, users whose telemetry is disabled masked."
q export --telemetry
step "The SmartNIC's configuration, kept apart from the host's."
q smartnic get
step "The configuration manager's own telemetry items (store size, row counts, ...), one left out by name."
q telemetry --exclude configManagerQenConfig
step "Two chosen items as JSON, starting at index 5, with the index to ask for next."
q telemetry --include configManagerQenBiosUuid,configManagerRowCount --index 5 --json

section "Single keys: get, set and delete"
RESOLVER='{"servers": ["192.0.2.53", "192.0.2.54"], "search": ["lab.example"]}'
"$QEN" --root "$HOST" extract current --show-sensitive | python3 -c '
import json, sys
doc = json.load(sys.stdin)
doc["network"]["dns"]["resolver"] = json.loads(sys.argv[1])
print(json.dumps(doc, indent=3))' "$RESOLVER" > "$BUILD_DIR/demo-resolver.json"
step "One key's default and current value."
q get network dns resolver
step "A document that is the host with a new resolver value drifts in that one key (exit 3)."
q compliance "$BUILD_DIR/demo-resolver.json"
step "Setting the resolver has no impact, so it is applied at once; /etc/resolv.conf before and after:"
show /etc/resolv.conf
q set network dns resolver "$RESOLVER"
show /etc/resolv.conf
step "The same compliance check is clean now: the host has the new value (exit 0)."
q compliance "$BUILD_DIR/demo-resolver.json"
step "A kernel option needs a reboot: --yes confirms it, and the change is staged for the next boot."
q set system boot kernel '{"iommu": true, "consoleLogLevel": 4}' --yes
step "The store's boot mode is now 4: single-key changes wait for the reboot."
q store stats
step "Delete the resolver's configuration: the resolver plugin empties /etc/resolv.conf."
q delete network dns resolver
show /etc/resolv.conf

# The cycle runs on a sample host of its own, so that the blocks before and
# after it find the host as they expect.
section "Impact, plan and apply: the full cycle on a fresh sample host"
MAIN_HOST="$HOST"
HOST="$BUILD_DIR/demo-apply-host"
rm -rf "$HOST"
mkdir -p "$HOST"
cp -a "$ROOT/host/root/." "$BUILD_DIR/host-staging/." "$HOST/"
"$QEN" --root "$HOST" store load "$DOCS/store-sample.json" >/dev/null
PLAN="$BUILD_DIR/demo.plan"
step "The document to apply changes the resolver, adds an interface and sets a time server; the host drifts from it (exit 3)."
q compliance "$DOCS/desired-apply.json"
step "What applying it costs: none of these changes needs maintenance mode or a reboot."
q impact "$DOCS/desired-apply.json"
step "The plan: the check-apply result, kept in an owner-only file that apply checks again."
q plan "$DOCS/desired-apply.json" -o "$PLAN"
step "/etc/resolv.conf before the apply (below this host's root):"
show /etc/resolv.conf
step "Apply the plan: the plugins run in dependency order, one line per notification, then the report."
q apply "$PLAN"
step "/etc/resolv.conf after the apply:"
show /etc/resolv.conf
step "The host now complies with the document (exit 0)."
q compliance "$DOCS/desired-apply.json"
step "A kernel option that only takes effect through a reboot: plan it ..."
q plan "$DOCS/desired-reboot.json" -o "$PLAN"
step "... and apply stores it for the next boot and runs no plugin (exit 4)."
q apply "$PLAN"
HOST="$MAIN_HOST"

section "Boot-time configuration"
files() {  # the auto-deployment files, or that they are gone
  local f
  for f in /etc/corvane/autodeploy/waiterNotify.json /etc/corvane/firewall/autodeploy.xml; do
    if [ -e "$HOST$f" ]; then echo "$f: $(wc -c <"$HOST$f") bytes"; else echo "$f: absent"; fi
  done
}
step "A boot document whose kernel option needs a reboot is staged; the auto-deployment files move into the store."
q boot document "$DOCS/boot-reboot.json"
files
step "The boot record: boot mode 1, a staged document waits for the next boot."
q boot record
step "The store holds the staged document (desiredRows) and the auto-deployment files (vitalConfigSize)."
q store stats
step "Simulated reboot, first half: the store makes the staged document current."
q store boot
step "Second half: the boot-time apply writes the files back and runs the boot-capable plugins (-v 0 shows that ntp, not boot-capable, is skipped)."
q -v 0 boot apply
files
echo "/etc/kernel/cmdline: $(cat "$HOST/etc/kernel/cmdline")"
step "The boot record now holds the outcome of that boot: boot mode 0, all applied."
q boot record
step "Early bootstrap in two stages: the root password first, then the virtual switch and the management network."
q boot early "$DOCS/bootstrap-early.json"
show /etc/corvane/network/vss/vss0.conf
show /etc/corvane/network/management.conf
