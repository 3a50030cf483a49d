#!/usr/bin/env bash
# Builds both configurations and runs every test in each: the sanitizer build
# catches memory and undefined-behaviour faults, the release build checks
# what ships; then the build against system-style libubox/libubus, the ARMv7
# cross build's unit and component tests under qemu-arm, and a short run of
# every fuzz target. The package's shell scripts are linted first, and the size
# of the test suite against the code is printed last.
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
# The ARMv7 build under qemu-arm: the unit suites and the component suites
# that run the broker and the simulated modem (taken from the release build).
# Left out: the tools' own suites and those that start wwanctl or other
# programs of the cross build (without binfmt_misc a program under qemu-arm
# cannot start another ARM program). WWANCTL_ARMHF=0
# skips this step.
if [ "${WWANCTL_ARMHF:-1}" != 0 ]; then
    armhf_suites=(util_test sms_test api_test band_test blob_test blobmsg_json_test ujson_test uloop_test
        ubus_wire_test core_test discovery_test events_test services_test modem_info_test parser_test
        request_test generic_test quectel_test comm_test modem_test manager_test bus_api_test)
    echo "== armhf build"
    scripts/deps.sh armhf
    scripts/build.sh armhf wwanctl "${armhf_suites[@]}"
    echo "== armhf tests (qemu-arm)"
    pattern=$(IFS='|'; echo "${armhf_suites[*]}")
    ctest --test-dir build/armhf --output-on-failure -j "$jobs" -R "^($pattern)\\." || status=1
fi
echo "== fuzz"
scripts/fuzz.sh || status=1
echo "== code and tests"
scripts/ratio.sh
exit $status
