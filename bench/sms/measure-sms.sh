#!/usr/bin/env bash
# measure-sms.sh: the figures of the SMS path.
#
#   bench/sms/measure-sms.sh [-b BUILD_DIR] [-n MESSAGES]
#
#   -b  build directory with wwanctl, the host tools and the benchmarks (default build/release)
#   -n  messages delivered for the notification figure (default 200)
#
# 1. CPU time of reading a full store (255 PDUs, concatenated parts mixed in)
#    into messages, as the daemon does with the modem's AT+CMGL=4 answer.
# 2. Time from a message the simulated network delivers (the simulator sends
#    +CMTI) to the "sms_index" notification on gsm.modem0, through the real
#    processes (broker, simulator without its answer delay, daemon).
set -euo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source-path=SCRIPTDIR source=../../scripts/lib/sim-root.sh
. "$repo/scripts/lib/sim-root.sh"

build=$repo/build/release
messages=200
while getopts "b:n:h" opt; do
    case $opt in
    b) build=$OPTARG ;;
    n) messages=$OPTARG ;;
    *) sed -n '3,8p' "$0" | sed 's/^# \{0,1\}//' >&2; exit 2 ;;
    esac
done
build=$(cd "$build" && pwd)
for b in bench/sms/bench_sms_list bench/daemon/bench_sms; do
    [[ -x $build/$b ]] || { echo "measure-sms.sh: $build/$b is missing: build $build first" >&2; exit 1; }
done

list=$("$build/bench/sms/bench_sms_list" -r 200)

simroot_init "$build"
simroot_start_ec25s 1
simroot_start_daemon
simroot_wait_object gsm.modem0 30
"$build/bench/daemon/bench_actions" ready -T "$EPOCHREALTIME" -l 60 >/dev/null
notify=$("$build/bench/daemon/bench_sms" notify -c "$WWANCTL_ROOT/sim0.sock" -n "$messages")
simroot_stop daemon || echo "measure-sms.sh: wwanctl did not exit cleanly on SIGTERM" >&2
simroot_cleanup

build_type=$(awk -F= '/^CMAKE_BUILD_TYPE:/ { print $2 }' "$build/CMakeCache.txt")
echo
echo "wwanctl, $build ($build_type); $(awk -F': *' '/^model name/ { print $2; exit }' /proc/cpuinfo), $(nproc) CPUs"
echo "$list"
echo "$notify"
