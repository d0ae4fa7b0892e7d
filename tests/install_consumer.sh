#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds a small host program
# against it twice, with find_package(PlenkKit) and with pkg-config, and runs
# it: on the simulator it connects to a scale, reads its firmware and arms DFU mode.
# Where the GTK library was built, a GTK host is built and run the same two ways.
set -euo pipefail
src=${PLENK_SOURCE_DIR:?} bin=${PLENK_BINARY_DIR:?}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$bin" --prefix "$prefix" >/dev/null

expected_head='@(#)PROGRAM:PlenkKit  PROJECT:PlenkKit-1'
check() {
  local exe=$1
  local out
  out=$(LD_LIBRARY_PATH=$prefix/lib "$exe" 2>&1)
  echo "$out" | grep -qF "$expected_head" || { echo "version string missing: $out"; exit 1; }
  echo "$out" | grep -qF '|1.0|0a1b|Device BLE power off|1' || { echo "unexpected output: $out"; exit 1; }
  echo "$out" | grep -qxF 'connected Plenk Scale|rssi 1|firmware 1.2.3|dfu 1' ||
    { echo "host run failed: $out"; exit 1; }
}

# 1. CMake package
cmake -S "$src/tests/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="${CXX:-c++}" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
check "$work/cmake-build/consumer"

# 2. pkg-config
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig
# shellcheck disable=SC2046
"${CXX:-c++}" -o "$work/pc-consumer" "$src/tests/consumer/main.cpp" $(pkg-config --cflags --libs plenkkit)
check "$work/pc-consumer"

# The GTK library, when it was built: through both ways again.
if [ -f "$bin/plenkkit-gtk.pc" ]; then
  "${CXX:-c++}" -o "$work/pc-gtk-consumer" "$src/tests/consumer/gtk_main.cpp" $(pkg-config --cflags --libs plenkkit-gtk)
  for exe in "$work/cmake-build/gtk-consumer" "$work/pc-gtk-consumer"; do
    out=$(LD_LIBRARY_PATH=$prefix/lib "$exe" 2>&1)
    [ "$out" = "glib queue abc" ] || { echo "GTK host run failed ($exe): $out"; exit 1; }
  done
fi

# The installed library carries its SONAME.
so=$(find "$prefix" -name 'libplenkkit.so.1.0.0' | sed -n 1p)
objdump -p "$so" | grep -c 'SONAME *libplenkkit.so.1' >/dev/null || { echo "SONAME missing"; exit 1; }
echo "install consumer: ok"
