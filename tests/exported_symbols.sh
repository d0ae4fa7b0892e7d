#!/usr/bin/env bash
# The shared library exports the plain C symbols under their own names and keeps
# internal layers hidden.
set -euo pipefail
lib=${PLENK_BINARY_DIR:?}/libplenkkit.so.1
[ -f "$lib" ] || { echo "missing $lib"; exit 1; }

dynamic=$(nm -D --defined-only "$lib")
names=$(awk '{print $NF}' <<<"$dynamic")
demangled=$(nm -D --defined-only -C "$lib")

fail=0
for symbol in PlenkKitVersionNumber PlenkKitVersionString stringToHexConverter \
              RKErrorDomain LEErrorDomain LEDeviceErrorDomain; do
  if ! grep -qx "$symbol" <<<"$names"; then
    echo "not exported unmangled: $symbol"
    fail=1
  fi
done

# Data symbols are data (D/R), the converter is code (T).
for symbol in PlenkKitVersionNumber PlenkKitVersionString RKErrorDomain LEErrorDomain LEDeviceErrorDomain; do
  grep -qE " [DR] $symbol\$" <<<"$dynamic" || { echo "not a data symbol: $symbol"; fail=1; }
done
grep -qE " T stringToHexConverter\$" <<<"$dynamic" || { echo "not a function: stringToHexConverter"; fail=1; }

# The unexported domain text is not a symbol, and the wire module stays internal.
if grep -q "DeviceDomain" <<<"$names"; then
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

# Error kinds are public classes: their type information is exported for kind tests.
for kind in Error RKErrorLENotAvailableC RKErrorLENotAvailableCOff RKErrorDeviceNOCharacteristic; do
  grep -q "typeinfo for plenk::$kind\$" <<<"$demangled" || { echo "typeinfo not exported: plenk::$kind"; fail=1; }
done

# Every public class a host reaches (and may dynamic_cast or implement) has
# its type information and, where it has them, its factories exported.
for class in Peripheral CSRDevice CSRDeviceDelegate RKDevice RKDeviceDelegate \
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
