#!/usr/bin/env bash
# The shared library exports the plain C symbols under their own names and keeps
# internal layers hidden.
set -euo pipefail
lib=${PLENK_BINARY_DIR:?}/libplenkkit.so.1
[ -f "$lib" ] || { echo "missing $lib"; exit 1; }

dynamic=$(nm -D --defined-only "$lib")
demangled=$(nm -D --defined-only -C "$lib")

fail=0
# The plain C symbols under their own names: data (D/R), the converter code (T).
while read -r kind symbol; do
  grep -qE " $kind $symbol\$" <<<"$dynamic" || { echo "not exported unmangled as $kind: $symbol"; fail=1; }
done <<'TABLE'
[DR] PlenkKitVersionNumber
[DR] PlenkKitVersionString
[DR] RKErrorDomain
[DR] LEErrorDomain
[DR] LEDeviceErrorDomain
T stringToHexConverter
TABLE

# The unexported domain text is not a symbol, and the wire module stays internal.
if grep -q "DeviceDomain" <<<"$dynamic"; then
  echo "DeviceDomain must not be an exported symbol"
  fail=1
fi
# Internal layers stay hidden: the wire format, the port and the simulator's
# machinery, and the implementations behind the public interfaces.
internal=$(grep -E " [A-Za-z] ([a-z ]+ for )?plenk::((wire|bt|sim)::|[A-Za-z]+Core\b)" <<<"$demangled" || true)
if [ -n "$internal" ]; then
  echo "internal symbols are exported:"
  head <<<"$internal"
  fail=1
fi

# The simulator's scripting API is public (the simulator behind it is not: above).
grep -q "plenk::Simulator::Scale::dropLink" <<<"$demangled" || { echo "plenk::Simulator is not exported"; fail=1; }

# Every public class a host reaches (and may dynamic_cast or implement), error kinds
# included (for kind tests), has its type information and, where it has them, its
# factories exported.
for class in Error RKErrorLENotAvailableC RKErrorLENotAvailableCOff RKErrorDeviceNOCharacteristic \
             Peripheral CSRDevice CSRDeviceDelegate RKDevice RKDeviceDelegate \
             BLEConnecter BLEConnecterDelegate CSRSelectDeviceViewController \
             CSRSelectDeviceViewControllerDataSource CSRSelectDeviceViewControllerDelegate PickerView \
             RKRostaKit RKRostaDelegate RKRostaDataSource PickerPresenter PKPlenk PKPlenkDelegate; do
  grep -q "typeinfo for plenk::$class\$" <<<"$demangled" || { echo "typeinfo not exported: plenk::$class"; fail=1; }
done
for function in "plenk::BLEConnecter::create(" "plenk::CSRSelectDeviceViewController::create(" \
                "plenk::RKRostaKit::create(" "plenk::Uuid::fromString(" "plenk::Uuid::toString" \
                "plenk::protocol::tareFrame(" "plenk::protocol::defaultConfigurationFrames(" \
                "plenk::protocol::decodeWeight(" "plenk::protocol::configurationRecord("; do
  grep -qF " T $function" <<<"$demangled" || { echo "not exported: $function"; fail=1; }
done

# The version string's bytes, as a host reading the symbol sees them.
# (grep reads a captured copy: with pipefail, grep -q closing a pipe early would fail it.)
printable=$(strings -a "$lib")
grep -qx '@(#)PROGRAM:PlenkKit  PROJECT:PlenkKit-1' <<<"$printable" || {
  echo "version string not found in $lib"
  fail=1
}

exit $fail
