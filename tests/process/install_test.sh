#!/usr/bin/env bash
# The installed package stands on its own: the example is built against it and plays a switch, a changed tag and
# replaced frames with the installed programs.
# usage: install_test.sh BUILD_TREE SOURCE_TREE
set -euo pipefail

build=$1
sources=$2
scratch=$(mktemp -d)
prefix=$scratch/prefix
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$scratch"' EXIT

fail() {
    echo "$*" >&2
    tail -n 20 "$scratch"/*.log >&2
    exit 1
}
# await FILE TEXT: waits until the file holds it.
await() {
    for ((i = 0; i < 600; ++i)); do
        grep -q -- "$2" "$1" 2>/dev/null && return
        sleep 0.1
    done
    fail "no '$2' in ${1##*/}"
}

cmake --install "$build" --prefix "$prefix" --strip >"$scratch/install.log"
! grep -rlF -e "$build" -e "$sources" "$prefix" || fail "these point back to where they were built"
cmake -G Ninja -S "$sources/examples/minimal_hal" -B "$scratch/hal" -DCMAKE_PREFIX_PATH="$prefix" >"$scratch/cmake.log"
cmake --build "$scratch/hal" >"$scratch/make.log" 2>&1 || fail "the example does not build"
PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs vel_chi_desktop_helper >"$scratch/flags"
read -ra flags <"$scratch/flags"
c++ -std=c++17 "$sources/examples/minimal_hal/minimal_hal.cpp" -o "$scratch/by_pkg_config" "${flags[@]}"

export VEL_DESKTOP_BUS_ADDRESS=unix:path=$scratch/bus
dbus-daemon --session --nofork --print-address --address="$VEL_DESKTOP_BUS_ADDRESS" >"$scratch/bus.log" 2>&1 &
await "$scratch/bus.log" unix:
"$prefix/bin/desktop_service" --trace >"$scratch/service.log" &
await "$scratch/service.log" ready
"$scratch/hal/minimal_hal" 240 >"$scratch/hal.log" 2>"$scratch/hal.err.log" &
hal=$!
await "$scratch/hal.log" "open 0 -> camera 4"
mkfifo "$scratch/input"
"$prefix/bin/desktop_app" --change-metadata - <"$scratch/input" >"$scratch/app.log" &
exec 3>"$scratch/input"
cat >&3 <<'LINES'
{"filter-results":["com.example.sensor.Temperature","com.example.sensor.Gain"]}
{"filter-requests":["android.control.aeExposureCompensation"]}
frames size=320x240 effect=mirror
LINES
await "$scratch/hal.log" "camera 4, .*replaced 2 of 2"
await "$scratch/hal.log" "compensation [1-6],"
await "$scratch/app.log" '"com.example.sensor.Gain":\[1.0\]'
echo '{"general":{"originalId":0,"overrideId":2}}' >&3
await "$scratch/hal.log" "camera 2, .*replaced 2 of 2"
wait "$hal" || fail "the HAL ended with $?"
exec 3>&-
