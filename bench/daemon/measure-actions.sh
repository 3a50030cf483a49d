#!/usr/bin/env bash
# measure-actions.sh: how soon the daemon answers a registration query after
# it starts, and its memory over many calls of the driver's actions.
#
#   bench/daemon/measure-actions.sh [-b BUILD_DIR] [-r RUNS] [-n CALLS] [-s SCENARIO]
#
#   -b  build directory with wwanctl, the host tools and bench_actions (default build/release)
#   -r  start-up runs, each in a fresh root (default 5)
#   -n  calls per round of the memory run (default 1000)
#   -s  simulator scenario (default: the EC25 scenario without its 5 ms answer delay)
#
# Start-up: the simulator is up and booted; the clock starts when wwanctl is
# started and stops when gsm.modem0 answers get_net_reg_stat_all with data.
# Memory: two simulated modems; Private_Dirty after start-up, after a first
# round of CALLS mixed calls over both, and after a second round.
set -euo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source-path=SCRIPTDIR source=../../scripts/lib/sim-root.sh
. "$repo/scripts/lib/sim-root.sh"

build=$repo/build/release
runs=5
calls=1000
scenario=""

while getopts "b:r:n:s:h" opt; do
    case $opt in
    b) build=$OPTARG ;;
    r) runs=$OPTARG ;;
    n) calls=$OPTARG ;;
    s) scenario=$OPTARG ;;
    *) sed -n '3,10p' "$0" | sed 's/^# \{0,1\}//' >&2; exit 2 ;;
    esac
done
build=$(cd "$build" && pwd)
bench=$build/bench/daemon/bench_actions
[[ -x $bench ]] || { echo "measure-actions.sh: $bench is missing: build $build first" >&2; exit 1; }

dirty_kb()
{
    awk '$1 == "Private_Dirty:" { print $2; exit }' "/proc/$1/smaps_rollup"
}

start_root()
{
    simroot_init "$build"
    simroot_start_ec25s "$1" "$scenario"
}

startup=()
for ((r = 1; r <= runs; r++)); do
    echo "start-up run $r of $runs" >&2
    start_root 1
    t0=$EPOCHREALTIME
    simroot_start_daemon
    if line=$("$bench" ready -T "$t0" -l 60); then
        startup+=("$(awk '{ print $(NF - 1) }' <<<"$line")")
    fi
    simroot_stop daemon || true
    simroot_cleanup
done

echo "memory run: two simulated modems, 2 x $calls mixed calls" >&2
start_root 2
simroot_start_daemon
simroot_wait_object gsm.modem0 30
simroot_wait_object gsm.modem1 30
"$bench" ready -T "$EPOCHREALTIME" -o gsm.modem1 -l 60 >/dev/null
simroot_sleep 5
pid=$(simroot_pid daemon)
dirty0=$(dirty_kb "$pid")
mix1=$("$bench" mixed -o gsm.modem0 -o gsm.modem1 -n "$calls") || echo "measure-actions.sh: some calls failed" >&2
dirty1=$(dirty_kb "$pid")
mix2=$("$bench" mixed -o gsm.modem0 -o gsm.modem1 -n "$calls") || echo "measure-actions.sh: some calls failed" >&2
dirty2=$(dirty_kb "$pid")
rss=$(awk '$1 == "VmRSS:" { print $2 }' "/proc/$pid/status")
simroot_stop daemon || echo "measure-actions.sh: wwanctl did not exit cleanly on SIGTERM" >&2
simroot_cleanup

sorted=$(printf '%s\n' "${startup[@]}" | sort -n)
median=$(awk '{ v[NR] = $1 } END { if (NR) print v[int((NR + 1) / 2)] }' <<<"$sorted")
build_type=$(awk -F= '/^CMAKE_BUILD_TYPE:/ { print $2 }' "$build/CMakeCache.txt")
echo
echo "wwanctl, $build ($build_type); $(awk -F': *' '/^model name/ { print $2; exit }' /proc/cpuinfo), $(nproc) CPUs"
echo "start to first get_net_reg_stat_all answer (ms), ${#startup[@]} of $runs runs: $(tr '\n' ' ' <<<"$sorted")"
echo "  median: ${median:-none}"
echo "Private_Dirty with 2 modems (kB): idle $dirty0, after $calls calls $dirty1, after $((2 * calls)) calls $dirty2;" \
    "VmRSS $rss; target < 1024 and no growth: $(awk -v a="$dirty1" -v b="$dirty2" \
    'BEGIN { print (b + 0 < 1024 && b + 0 <= a + 0) ? "met" : "MISSED" }')"
echo
echo "first round:"
echo "$mix1"
echo
echo "second round:"
echo "$mix2"
