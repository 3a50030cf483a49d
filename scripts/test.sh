#!/usr/bin/env bash
# Builds both configurations and runs every test in each: the sanitizer build
# catches memory and undefined-behaviour faults, the release build checks
# what ships; then the build against system-style libubox/libubus and a short
# run of every fuzz target. The package's shell scripts are linted first, and
# the size of the test suite against the code is printed last.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
jobs=$(nproc)
status=0
echo "== package scripts"
shellcheck openwrt/wwanctl/files/wwanctl.init openwrt/wwanctl/files/wwanctl.hotplug || status=1
for kind in asan release; do
    echo "== $kind build"
    scripts/build.sh "$kind"
    echo "== $kind tests"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --test-dir "build/$kind" --output-on-failure -j "$jobs" || status=1
done
echo "== system libubox/libubus"
JOBS=$jobs scripts/check-system-ubus.sh || status=1
echo "== fuzz"
scripts/fuzz.sh || status=1
echo "== code and tests"
scripts/ratio.sh
exit $status
