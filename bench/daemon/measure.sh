#!/usr/bin/env bash
# measure.sh: wwanctl's footprint and exec latency against simulated EC25s.
#
#   bench/daemon/measure.sh [-b BUILD_DIR] [-i IDLE_SECONDS] [-n CALLS] [-w SETTLE_SECONDS] [-s SCENARIO] [-D]
#
#   -b  build directory with wwanctl, the host tools and bench_exec (default build/release)
#   -i  idle window for the CPU figure (default 60; e.g. -i 10 for a quick run)
#   -n  exec round trips timed by bench_exec (default 1000)
#   -w  seconds to let the daemon settle after its objects appear (default 5)
#   -s  simulator scenario (default: the EC25 scenario without its 5 ms answer delay,
#       so the modem's own time does not drown the daemon's)
#   -D  run the daemon with -D (debug log to a file), as when debugging
#
# Two runs, each in a fresh root:
#   1 modem:  memory idle after start-up, then bench_exec (exec, bus and tty round
#             trips), then memory again
#   2 modems: memory idle after start-up, then CPU time over the idle window
set -euo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source-path=SCRIPTDIR source=../../scripts/lib/sim-root.sh
. "$repo/scripts/lib/sim-root.sh"

build=$repo/build/release
idle=60
calls=1000
settle=5
scenario=""
daemon_args=()

usage()
{
    sed -n '3,12p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

while getopts "b:i:n:w:s:Dh" opt; do
    case $opt in
    b) build=$OPTARG ;;
    i) idle=$OPTARG ;;
    n) calls=$OPTARG ;;
    w) settle=$OPTARG ;;
    s) scenario=$OPTARG ;;
    D) daemon_args=(-D) ;;
    *) usage ;;
    esac
done
build=$(cd "$build" && pwd)
bench_exec=$build/bench/daemon/bench_exec
[[ -x $bench_exec ]] || { echo "measure.sh: $bench_exec is missing: build $build first" >&2; exit 1; }

# ---- figures from /proc ----

# A "Key: value kB" field of a /proc status-like file.
proc_kb()
{
    awk -v key="$2:" '$1 == key { print $2; exit }' "$1"
}

# utime + stime of the whole process, in clock ticks.
cpu_ticks()
{
    local stat fields
    stat=$(<"/proc/$1/stat")
    read -ra fields <<<"${stat##*) }"
    echo $((fields[11] + fields[12]))
}

# Time on a CPU summed over the process's threads, in nanoseconds.
cpu_ns()
{
    cat /proc/"$1"/task/*/schedstat | awk '{ sum += $1 } END { printf "%d\n", sum }'
}

# Context switches summed over the threads: each one is a wake-up or a preemption.
switches()
{
    cat /proc/"$1"/task/*/status | awk '/ctxt_switches:/ { sum += $2 } END { print sum }'
}

# Sets mem_rss, mem_hwm, mem_dirty (kB) and threads for the daemon.
read_memory()
{
    local pid=$1
    if [[ ! -r /proc/$pid/smaps_rollup ]]; then
        echo "measure.sh: wwanctl (pid $pid) is gone; the end of its log:" >&2
        tail -n 20 "$WWANCTL_ROOT/wwanctl.log" >&2
        exit 1
    fi
    mem_rss=$(proc_kb "/proc/$pid/status" VmRSS)
    mem_hwm=$(proc_kb "/proc/$pid/status" VmHWM)
    mem_dirty=$(proc_kb "/proc/$pid/smaps_rollup" Private_Dirty)
    threads=$(proc_kb "/proc/$pid/status" Threads)
}

# ---- the runs ----

start_root()
{
    local modems=$1 i
    simroot_init "$build"
    # Built-in modems: the first is primary (gsm.modem0), the second secondary (gsm.modem1).
    simroot_start_ec25s "$modems" "$scenario" ',"blocked_modems":["3-1"]'
    simroot_start_daemon "${daemon_args[@]}"
    for ((i = 0; i < modems; i++)); do
        simroot_wait_object "gsm.modem$i" 30
    done
    simroot_sleep "$settle"
}

stop_root()
{
    local status=0
    simroot_stop daemon || status=$?
    ((status == 0)) || echo "measure.sh: wwanctl exited with status $status on SIGTERM" >&2
    simroot_cleanup
}

echo "run 1: one simulated modem (settle ${settle} s, then $calls exec round trips)" >&2
start_root 1
pid=$(simroot_pid daemon)
read_memory "$pid"
rss1=$mem_rss hwm1=$mem_hwm dirty1=$mem_dirty threads1=$threads
simroot_start_sim bench ttyBENCH "${scenario:-$(simroot_quick_scenario)}"
latency_out=$("$bench_exec" -n "$calls" -t "$WWANCTL_ROOT/dev/ttyBENCH") || {
    echo "measure.sh: bench_exec failed:" >&2
    echo "$latency_out" >&2
}
read_memory "$pid"
rss1_after=$mem_rss hwm1_after=$mem_hwm dirty1_after=$mem_dirty
stop_root

echo "run 2: two simulated modems (settle ${settle} s, then ${idle} s idle)" >&2
start_root 2
pid=$(simroot_pid daemon)
read_memory "$pid"
rss2=$mem_rss hwm2=$mem_hwm dirty2=$mem_dirty threads2=$threads
ticks0=$(cpu_ticks "$pid") ns0=$(cpu_ns "$pid") sw0=$(switches "$pid") t0=$EPOCHREALTIME
simroot_sleep "$idle"
ticks1=$(cpu_ticks "$pid") ns1=$(cpu_ns "$pid") sw1=$(switches "$pid") t1=$EPOCHREALTIME
stop_root

# ---- report ----

hz=$(getconf CLK_TCK)
build_type=$(awk -F= '/^CMAKE_BUILD_TYPE:/ { print $2 }' "$build/CMakeCache.txt")
sanitize=$(awk -F= '/^WWANCTL_SANITIZE:/ { print $2 }' "$build/CMakeCache.txt")
cpu_model=$(awk -F': *' '/^model name/ { print $2; exit }' /proc/cpuinfo)

read -r cpu_pct cpu_pct_ns wakeups < <(awk -v t="$ticks0 $ticks1" -v n="$ns0 $ns1" -v s="$sw0 $sw1" \
    -v w="$t0 $t1" -v hz="$hz" 'BEGIN {
        split(t, tk); split(n, ns); split(s, sw); split(w, wall)
        secs = wall[2] - wall[1]
        printf "%.4f %.4f %.2f\n", (tk[2] - tk[1]) / hz / secs * 100, (ns[2] - ns[1]) / 1e9 / secs * 100,
            (sw[2] - sw[1]) / secs
    }')

# bench_exec's last rows: "added <what> median" and "paired <what> median p90 p99".
added_median=$(awk '$1 == "added" { print $NF; exit }' <<<"$latency_out")
paired_median=$(awk '$1 == "paired" { print $(NF - 2); exit }' <<<"$latency_out")

verdict()
{
    awk -v v="$1" -v limit="$2" 'BEGIN { print (v != "" && v + 0 < limit + 0) ? "met" : "MISSED" }'
}

echo
echo "wwanctl ${daemon_args[*]:-(no options)}, $build ($build_type${sanitize:+, sanitizers $sanitize})"
echo "$cpu_model, $(nproc) CPUs, Linux $(uname -r); simulated EC25, scenario ${scenario:-ec25 without its answer delay}"
[[ $build_type == RelWithDebInfo || $build_type == Release ]] || echo "warning: not an optimised build"
[[ ${sanitize:-OFF} == OFF ]] || echo "warning: sanitizers inflate every figure"
echo
printf '%-36s %12s %12s   %s\n' "" "1 modem" "2 modems" "target"
printf '%-36s %12s %12s\n' "VmRSS, idle after start-up (kB)" "$rss1" "$rss2"
printf '%-36s %12s %12s\n' "VmHWM, idle after start-up (kB)" "$hwm1" "$hwm2"
printf '%-36s %12s %12s   %s\n' "Private_Dirty, idle (kB)" "$dirty1" "$dirty2" \
    "< 1024 with 2 modems: $(verdict "$dirty2" 1024)"
printf '%-36s %12s\n' "VmRSS after $calls exec (kB)" "$rss1_after"
printf '%-36s %12s\n' "VmHWM after $calls exec (kB)" "$hwm1_after"
printf '%-36s %12s\n' "Private_Dirty after $calls exec (kB)" "$dirty1_after"
printf '%-36s %12s %12s\n' "threads" "$threads1" "$threads2"
printf '%-36s %12s %12s   %s\n' "CPU idle over $idle s, stat (%)" "" "$cpu_pct" "< 0.1: $(verdict "$cpu_pct" 0.1)"
printf '%-36s %12s %12s\n' "CPU idle over $idle s, schedstat (%)" "" "$cpu_pct_ns"
printf '%-36s %12s %12s\n' "context switches per second, idle" "" "$wakeups"
echo
echo "exec latency (bench_exec -n $calls, 1 modem):"
while IFS= read -r line; do echo "  $line"; done <<<"$latency_out"
printf '%-36s %12s   %s\n' "added by wwanctl, medians (us)" "$added_median" "< 1000: $(verdict "$added_median" 1000)"
printf '%-36s %12s   %s\n' "added by wwanctl, paired median (us)" "$paired_median" "< 1000: $(verdict "$paired_median" 1000)"
