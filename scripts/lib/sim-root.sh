# shellcheck shell=bash
# sim-root.sh: a throw-away root in which wwanctl runs against simulated modems.
#
# Source it from a bash script, then:
#   simroot_init BUILD_DIR           create the root (exported as WWANCTL_ROOT) and the
#                                    traps that tear everything down on exit or signal
#   simroot_add_modem USB_ID TTY     sysfs entry of a simulated EC25 at USB_ID ("1-1")
#                                    whose AT port is /dev/TTY ("ttyUSB2")
#   simroot_board JSON               write etc/board.json
#   simroot_start_broker             wwan-busd on the root's bus socket
#   simroot_start_sim NAME TTY [SCN] wwan-modem-sim (scenario SCN, default ec25) linked at
#                                    $ROOT/dev/TTY, control socket $ROOT/NAME.sock (with
#                                    SIMROOT_TRANSCRIPTS=1 a transcript $ROOT/NAME.log)
#   simroot_quick_scenario           print the path of the EC25 scenario without its answer
#                                    delay, written into the root on first use
#   simroot_start_ec25s N [SCN] [BOARD_EXTRA]
#                                    board of N built-in modems (1-1 primary, 1-2), the broker
#                                    and N simulators sim0.. on ttyUSB2, ttyUSB6 (scenario SCN,
#                                    default the quick one); BOARD_EXTRA adds board members
#                                    (',"blocked_modems":["3-1"]')
#   simroot_start_daemon [ARGS...]   wwanctl ARGS (e.g. -D), output in $ROOT/wwanctl.log
#   simroot_wait_object OBJ [SECS]   wait until OBJ is on the bus (fails early if the
#                                    daemon dies)
#   simroot_bus ARGS...              wwan-bus on the root's socket
#   simroot_sim_cmd NAME COMMAND     operator command to a simulator, prints its reply
#   simroot_sleep SECS               sleep that a signal interrupts at once (a plain sleep
#                                    delays the traps until it ends)
#   simroot_pid NAME                 pid of a started process ("broker", "daemon", sims)
#   simroot_stop NAME [SECS]         SIGTERM, wait (SIGKILL after SECS, default 5);
#                                    returns the process's exit status
#   simroot_cleanup                  stop everything, newest first, and remove the root
#
# Every process is started by these functions and stopped by its pid only. Set
# SIMROOT_KEEP=1 to keep the root (logs, transcripts) after the run.

SIMROOT_SRC=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
SIMROOT_ROOT=""
SIMROOT_BUILD=""
SIMROOT_DESC='{"desc":"EC25","boudrate":115200,"control":2,"gps":1,"gps_optional":true}'
SIMROOT_VIDPID="2c7c:0125"
declare -A SIMROOT_PIDS=()
SIMROOT_ORDER=()
SIMROOT_SLEEP_PID=""

simroot_log()
{
    echo "sim-root: $*" >&2
}

simroot_bin()
{
    case "$1" in
    wwanctl) echo "$SIMROOT_BUILD/src/wwanctl" ;;
    wwan-busd) echo "$SIMROOT_BUILD/tools/busd/wwan-busd" ;;
    wwan-bus) echo "$SIMROOT_BUILD/tools/bus/wwan-bus" ;;
    wwan-modem-sim) echo "$SIMROOT_BUILD/tools/modem-sim/wwan-modem-sim" ;;
    *) echo "$SIMROOT_BUILD/$1" ;;
    esac
}

simroot_init()
{
    local build=${1:?build directory}
    SIMROOT_BUILD=$(cd "$build" && pwd) || return 1
    local tool
    for tool in wwanctl wwan-busd wwan-bus wwan-modem-sim; do
        if [[ ! -x $(simroot_bin "$tool") ]]; then
            simroot_log "$(simroot_bin "$tool") is missing: build $build first"
            return 1
        fi
    done
    SIMROOT_ROOT=$(mktemp -d "${TMPDIR:-/tmp}/wwanctl-root.XXXXXX") || return 1
    export WWANCTL_ROOT=$SIMROOT_ROOT
    mkdir -p "$SIMROOT_ROOT"/{sys/bus/usb/devices,lib/network/wwan,etc,dev,tmp,var/run/ubus}
    printf '%s\n' "$SIMROOT_DESC" >"$SIMROOT_ROOT/lib/network/wwan/$SIMROOT_VIDPID"
    trap simroot_cleanup EXIT
    trap 'simroot_cleanup; exit 130' INT
    trap 'simroot_cleanup; exit 143' TERM
}

simroot_add_modem()
{
    local usb_id=${1:?usb id} tty=${2:?tty name}
    local dev=$SIMROOT_ROOT/sys/bus/usb/devices/$usb_id
    mkdir -p "$dev" "$dev:1.2/$tty"
    echo "${SIMROOT_VIDPID%%:*}" >"$dev/idVendor"
    echo "${SIMROOT_VIDPID##*:}" >"$dev/idProduct"
    echo "${usb_id%%-*}" >"$dev/busnum"
    echo "${usb_id#*-}" >"$dev/devpath"
}

simroot_board()
{
    printf '%s\n' "${1:?board json}" >"$SIMROOT_ROOT/etc/board.json"
}

# Remembers a started process; the order is the reverse of the stopping order.
simroot_track()
{
    SIMROOT_PIDS[$1]=$2
    SIMROOT_ORDER+=("$1")
}

simroot_pid()
{
    echo "${SIMROOT_PIDS[$1]:-}"
}

simroot_alive()
{
    local pid=${SIMROOT_PIDS[$1]:-}
    [[ -n $pid ]] && kill -0 "$pid" 2>/dev/null
}

# Polls "$@" every 50 ms for up to secs seconds while process name is alive.
simroot_poll()
{
    local name=$1 secs=$2
    shift 2
    local tries=$((secs * 20))
    while ((tries-- > 0)); do
        "$@" && return 0
        simroot_alive "$name" || return 1
        sleep 0.05
    done
    return 1
}

simroot_bus()
{
    "$(simroot_bin wwan-bus)" "$@"
}

simroot_broker_up()
{
    # 255: no connection; any other status is the broker's answer.
    local status=0
    simroot_bus -S -t 1 list >/dev/null 2>&1 || status=$?
    ((status != 255))
}

simroot_start_broker()
{
    "$(simroot_bin wwan-busd)" >"$SIMROOT_ROOT/busd.log" 2>&1 &
    simroot_track broker $!
    if ! simroot_poll broker 5 simroot_broker_up; then
        simroot_log "the broker did not come up (see $SIMROOT_ROOT/busd.log)"
        return 1
    fi
}

simroot_sim_ready()
{
    [[ -L $1 && -S $2 ]]
}

simroot_start_sim()
{
    local name=${1:?name} tty=${2:?tty name} scenario=${3:-ec25}
    local link=$SIMROOT_ROOT/dev/$tty sock=$SIMROOT_ROOT/$name.sock
    local args=(-s "$scenario" -n -l "$link" -c "$sock")
    [[ ${SIMROOT_TRANSCRIPTS:-0} == 1 ]] && args+=(-t "$SIMROOT_ROOT/$name.log")
    "$(simroot_bin wwan-modem-sim)" "${args[@]}" >"$SIMROOT_ROOT/$name.out" 2>&1 &
    simroot_track "$name" $!
    if ! simroot_poll "$name" 5 simroot_sim_ready "$link" "$sock"; then
        simroot_log "simulator $name did not come up (see $SIMROOT_ROOT/$name.out)"
        return 1
    fi
}

simroot_sim_cmd()
{
    local sock=$SIMROOT_ROOT/${1:?name}.sock
    printf '%s\n' "${2:?command}" | timeout 5 socat -t 2 - "UNIX-CONNECT:$sock"
}

simroot_quick_scenario()
{
    # Beside copies of the scenarios it includes, which are found relative to it.
    local scn=$SIMROOT_ROOT/ec25-immediate.scn
    if [[ ! -f $scn ]]; then
        cp "$SIMROOT_SRC"/tools/modem-sim/scenarios/*.scn "$SIMROOT_ROOT"/
        sed '/^latency /d' "$SIMROOT_SRC/tools/modem-sim/scenarios/ec25.scn" >"$scn"
    fi
    echo "$scn"
}

simroot_start_ec25s()
{
    local modems=${1:?count} scenario=${2:-} extra=${3:-} i
    local board='{"usb_id":"1-1","builtin":true,"primary":true}'
    ((modems < 2)) || board+=',{"usb_id":"1-2","builtin":true}'
    simroot_board "{\"modems\":[$board]$extra}"
    [[ -n $scenario ]] || scenario=$(simroot_quick_scenario)
    simroot_start_broker || return 1
    for ((i = 0; i < modems; i++)); do
        simroot_add_modem "1-$((i + 1))" "ttyUSB$((4 * i + 2))" || return 1
        simroot_start_sim "sim$i" "ttyUSB$((4 * i + 2))" "$scenario" || return 1
    done
}

simroot_start_daemon()
{
    "$(simroot_bin wwanctl)" "$@" >"$SIMROOT_ROOT/wwanctl.log" 2>&1 &
    simroot_track daemon $!
}

simroot_wait_object()
{
    local obj=${1:?object} secs=${2:-30}
    local deadline=$((SECONDS + secs))
    while ((SECONDS < deadline)); do
        if ! simroot_alive daemon; then
            simroot_log "wwanctl exited before $obj appeared; last lines of its log:"
            tail -n 20 "$SIMROOT_ROOT/wwanctl.log" >&2
            return 1
        fi
        simroot_bus -S -t 1 wait_for "$obj" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    simroot_log "$obj did not appear within $secs s; last lines of the daemon's log:"
    tail -n 20 "$SIMROOT_ROOT/wwanctl.log" >&2
    return 1
}

simroot_stop()
{
    local name=${1:?name} grace=${2:-5}
    local pid=${SIMROOT_PIDS[$name]:-}
    [[ -n $pid ]] || return 0
    unset "SIMROOT_PIDS[$name]"
    kill -TERM "$pid" 2>/dev/null || true
    local tries=$((grace * 20))
    while kill -0 "$pid" 2>/dev/null && ((tries-- > 0)); do
        sleep 0.05
    done
    if kill -0 "$pid" 2>/dev/null; then
        simroot_log "$name (pid $pid) ignored SIGTERM for $grace s, killing it"
        kill -KILL "$pid" 2>/dev/null || true
    fi
    local status=0
    wait "$pid" 2>/dev/null || status=$?
    return "$status"
}

simroot_sleep()
{
    sleep "${1:?seconds}" &
    SIMROOT_SLEEP_PID=$!
    wait "$SIMROOT_SLEEP_PID" || true
    SIMROOT_SLEEP_PID=""
}

simroot_cleanup()
{
    trap - EXIT INT TERM
    if [[ -n ${SIMROOT_SLEEP_PID:-} ]]; then
        kill "$SIMROOT_SLEEP_PID" 2>/dev/null || true
        wait "$SIMROOT_SLEEP_PID" 2>/dev/null || true
        SIMROOT_SLEEP_PID=""
    fi
    local i name status
    for ((i = ${#SIMROOT_ORDER[@]} - 1; i >= 0; i--)); do
        name=${SIMROOT_ORDER[i]}
        [[ -n ${SIMROOT_PIDS[$name]:-} ]] || continue
        status=0
        simroot_stop "$name" || status=$?
        ((status == 0)) || simroot_log "$name exited with status $status"
    done
    SIMROOT_ORDER=()
    if [[ -n $SIMROOT_ROOT && -d $SIMROOT_ROOT ]]; then
        if [[ ${SIMROOT_KEEP:-0} == 1 ]]; then
            simroot_log "kept $SIMROOT_ROOT"
        else
            rm -rf -- "$SIMROOT_ROOT"
        fi
    fi
    SIMROOT_ROOT=""
}
