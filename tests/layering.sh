#!/usr/bin/env bash
# Include directions: calls go down, events go up, and no file includes a layer
# above its own. Scans the #include lines of src/ and the public headers and
# names each forbidden one by file and line.
#
#   facade (src/PlenkKit) > kit (src/RostaKit) > ble (src/ble, the error catalogue)
#     > port (src/bt) > foundations (src/dispatch, src/wire, src/errors, the port's
#     value types Uuid/Bytes/CharacteristicProperty, public foundation headers)
#   backends (src/backends/*) -> port, foundations, emulator; never another backend
#   emulator -> wire and foundations; never the kit, ble or the port
#   composition root (src/composition) -> backends, port, foundations; nothing includes it
#   toolkits (src/ui, include/PlenkKitGtk) -> ble's picker interfaces, the kit's PickerPresenter
#     (declared in RKRostaKit.h), port, foundations
#   the umbrella header <PlenkKit/PlenkKit.h> -> every public header
set -uo pipefail
root=${PLENK_SOURCE_DIR:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$root" || exit 1

# The layer of a repository path, or "" when the check does not know it.
layer_of() {
  local path=$1
  case $path in
    src/PlenkKit/*) echo facade ;;
    src/RostaKit/*) echo kit ;;
    src/ble/*) echo ble ;;
    src/bt/Uuid.h | src/bt/Bytes.h | src/bt/CharacteristicProperty.h) echo foundation ;;
    src/bt/*) echo port ;;
    src/dispatch/* | src/wire/* | src/errors/*) echo foundation ;;
    src/backends/*/*) path=${path#src/backends/} && echo "backend:${path%%/*}" ;;
    src/emulator/*) echo emulator ;;
    src/composition/*) echo composition ;;
    src/ui/* | include/PlenkKitGtk/*) echo toolkit ;;
    include/PlenkKit/*)
      case ${path#include/PlenkKit/} in
        Export.h | Error.h | PlatformErrors.h | Clock.h | Task.h | Executor.h | LogSink.h | \
          NotificationCenter.h | RunLoop.h | Context.h | Color.h | Version.h | RKConfiguration.h | Uuid.h | \
          Peripheral.h | RadioState.h)
          echo foundation ;;
        RKErrors.h) echo ble ;; # the error catalogue: the kit's kinds, also made by the generic device
        StringToHexConverter.h | BLEConnecter.h | CSRDevice.h | CSRSelectDeviceViewController.h) echo ble ;;
        RKRostaKit.h | RKDevice.h) echo kit ;;
        PKPlenk.h) echo facade ;;
        ScaleProtocol.h) echo facade ;; # the wire format's public face, implemented beside the facade
        PlenkKit.h) echo umbrella ;;
        Simulator.h) echo backend:sim ;; # the simulated backend's public scripting API
        *) echo "" ;;
      esac
      ;;
    *) echo "" ;;
  esac
}

# Whether layer $1 may include layer $2.
allowed() {
  local from=$1 to=$2
  [ "$from" = "$to" ] && return 0
  case $from in
    umbrella) [[ $to != composition ]] ;; # every public header
    facade) [[ $to =~ ^(kit|ble|port|foundation)$ ]] ;;
    kit) [[ $to =~ ^(ble|port|foundation)$ ]] ;;
    ble) [[ $to =~ ^(port|foundation)$ ]] ;;
    port) [ "$to" = foundation ] ;;
    foundation) return 1 ;;
    backend:*) [[ $to =~ ^(port|foundation|emulator)$ ]] ;;
    emulator) [ "$to" = foundation ] ;;
    composition) [[ $to =~ ^(backend:.*|port|foundation)$ ]] ;;
    toolkit) [[ $to =~ ^(ble|port|foundation)$ ]] ;;
    *) return 1 ;;
  esac
}

failures=0
checked=0
report() {
  echo "$1"
  failures=$((failures + 1))
}

mapfile -t files < <(find src include/PlenkKit include/PlenkKitGtk -type f \( -name '*.h' -o -name '*.cpp' \) | sort)
for file in "${files[@]}"; do
  from=$(layer_of "$file")
  if [ -z "$from" ]; then
    report "$file: not in any known layer (classify its folder in tests/layering.sh)"
    continue
  fi
  while IFS=: read -r line text; do
    if [[ $text =~ \#[[:space:]]*include[[:space:]]*\"([^\"]+)\" ]]; then
      name=${BASH_REMATCH[1]}
      if [ -f "src/$name" ]; then
        target=src/$name
      elif [ -f "$(dirname "$file")/$name" ]; then
        target=$(dirname "$file")/$name
      else
        report "$file:$line: \"$name\" is not a file under src/"
        continue
      fi
    elif [[ $text =~ \#[[:space:]]*include[[:space:]]*\<(PlenkKit(Gtk)?/[^\>]+)\> ]]; then
      target=include/${BASH_REMATCH[1]}
    else
      continue # the standard library and system headers
    fi
    checked=$((checked + 1))
    to=$(layer_of "$target")
    if [ -z "$to" ]; then
      report "$file:$line: includes $target, which is in no known layer (classify it in tests/layering.sh)"
    elif [ "$from" = toolkit ] && [ "$target" = include/PlenkKit/RKRostaKit.h ]; then
      : # the presenter a toolkit implements is declared beside the kit
    elif ! allowed "$from" "$to"; then
      report "$file:$line: $from must not include $to ($target)"
    fi
  done < <(grep -n '^[[:space:]]*#[[:space:]]*include' "$file")
done

if [ "$failures" -ne 0 ]; then
  echo "layering: $failures forbidden or unknown include(s)"
  exit 1
fi
echo "layering: ${#files[@]} files, $checked project includes, all in allowed directions"
