#!/usr/bin/env bash
# measure-load.sh: wwanctl under 1000 concurrent clients of one simulated EC25.
#
#   bench/daemon/measure-load.sh [-b BUILD_DIR] [-n CLIENTS] [-r ROUNDS] [-w SECONDS] [-s SCENARIO]
#                                [-f NOFILE] [-B NOFILE] [-D]
#
#   -b  build directory with wwanctl, the host tools and bench_load (default build/release)
#   -n  concurrent clients per phase (default 1000)
#   -r  rounds, each a socket phase and a bus phase (default 5)
#   -w  longest wait for the answers of one phase, in seconds (default 60)
#   -s  simulator scenario; without it two runs: the EC25 scenario as it is
#       (5 ms per answer) and without its answer delay
#   -f  soft descriptor limit (RLIMIT_NOFILE) of the broker and the daemon (default 1024)
#   -B  descriptor limit of the broker alone, set after it started (default: as -f)
#   -D  run the daemon with -D (debug log to a file)
#
# Every run is a fresh root (scripts/lib/sim-root.sh) with the broker, one
# simulated modem and the daemon; bench_load then runs its rounds against
# gsm.modem0 and $WWANCTL_ROOT/dev/modem0 and checks the daemon afterwards.
set -euo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source-path=SCRIPTDIR source=../../scripts/lib/sim-root.sh
. "$repo/scripts/lib/sim-root.sh"

build=$repo/build/release
clients=1000
rounds=5
wait_s=60
scenario=""
nofile=1024
broker_nofile=""
daemon_args=()

usage()
{
    sed -n '3,15p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

while getopts "b:n:r:w:s:f:B:Dh" opt; do
    case $opt in
    b) build=$OPTARG ;;
    n) clients=$OPTARG ;;
    r) rounds=$OPTARG ;;
    w) wait_s=$OPTARG ;;
    s) scenario=$OPTARG ;;
    f) nofile=$OPTARG ;;
    B) broker_nofile=$OPTARG ;;
    D) daemon_args=(-D) ;;
    *) usage ;;
    esac
done
build=$(cd "$build" && pwd)
bench_load=$build/bench/daemon/bench_load
[[ -x $bench_load ]] || { echo "measure-load.sh: $bench_load is missing: build $build first" >&2; exit 1; }

# The broker and the daemon start with this soft limit (the hard one is left
# alone, so bench_load can raise its own).
ulimit -Sn "$nofile"

# "soft/hard" descriptor limit of a process.
nofile_of()
{
    awk '/^Max open files/ { print $4 "/" $5 }' "/proc/$1/limits"
}

# Runs bench_load against a fresh root with scenario $1 (a file or a name),
# described as $2.
run_once()
{
    local scn=$1 what=$2 status=0 pid bpid
    echo "== $what: $clients clients, $rounds rounds" >&2
    # Called where a failure does not stop the script: every step checks.
    simroot_init "$build" || return 1
    simroot_board '{"modems":[{"usb_id":"1-1","builtin":true,"primary":true}],"blocked_modems":[]}'
    simroot_start_broker || { simroot_cleanup; return 1; }
    bpid=$(simroot_pid broker)
    if [[ -n $broker_nofile ]]; then
        prlimit --pid "$bpid" --nofile="$broker_nofile:$broker_nofile" || { simroot_cleanup; return 1; }
    fi
    simroot_add_modem 1-1 ttyUSB2
    simroot_start_sim sim0 ttyUSB2 "$scn" || { simroot_cleanup; return 1; }
    simroot_start_daemon "${daemon_args[@]}"
    simroot_wait_object gsm.modem0 30 || { simroot_cleanup; return 1; }
    pid=$(simroot_pid daemon)
    # Identification and the first periodic work are over before the clients come.
    simroot_sleep 5

    echo
    echo "--- $what"
    echo "descriptor limits: daemon $(nofile_of "$pid"), broker $(nofile_of "$bpid"), bench_load raises its own"
    "$bench_load" -n "$clients" -r "$rounds" -w "$wait_s" -p "$pid" -B "$bpid" || status=$?
    echo "bench_load exit status: $status"
    local log=$WWANCTL_ROOT/wwanctl.log
    echo "daemon log: $(wc -l <"$log") lines," \
        "$(grep -c 'error:' "$log" || true) errors," \
        "$(grep -c 'Failed to accept' "$log" || true) failed accepts," \
        "$(grep -c 'modem may be unresponsive' "$log" || true) hang declarations"
    grep 'error:' "$log" | sort | uniq -c | sort -rn | head -n 5 | sed 's/^/  /' || true
    if [[ -s $WWANCTL_ROOT/busd.log ]]; then
        echo "broker log:"
        tail -n 5 "$WWANCTL_ROOT/busd.log" | sed 's/^/  /'
    fi
    local stop=0
    simroot_stop daemon || stop=$?
    echo "daemon exit status on SIGTERM: $stop"
    simroot_cleanup
    ((status == 0 && stop == 0))
}

build_type=$(awk -F= '/^CMAKE_BUILD_TYPE:/ { print $2 }' "$build/CMakeCache.txt")
sanitize=$(awk -F= '/^WWANCTL_SANITIZE:/ { print $2 }' "$build/CMakeCache.txt")
echo "wwanctl ${daemon_args[*]:-(no options)}, $build ($build_type${sanitize:+, sanitizers $sanitize})"
echo "$(awk -F': *' '/^model name/ { print $2; exit }' /proc/cpuinfo), $(nproc) CPUs, Linux $(uname -r)," \
    "load average $(cut -d' ' -f1-3 /proc/loadavg)"
[[ $build_type == RelWithDebInfo || $build_type == Release ]] || echo "warning: not an optimised build"
[[ ${sanitize:-OFF} == OFF ]] || echo "warning: sanitizers inflate every figure"

failed=0
if [[ -n $scenario ]]; then
    run_once "$scenario" "scenario $scenario" || failed=1
else
    run_once ec25 "EC25 scenario, 5 ms per answer" || failed=1
    immediate=$(mktemp "${TMPDIR:-/tmp}/ec25-immediate.XXXXXX.scn")
    sed '/^latency /d' "$SIMROOT_SRC/tools/modem-sim/scenarios/ec25.scn" >"$immediate"
    run_once "$immediate" "EC25 scenario without its answer delay" || failed=1
    rm -f "$immediate"
fi
exit "$failed"
