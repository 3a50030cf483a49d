#!/usr/bin/env bash
# demo.sh [BUILD_DIR]: runs wwanctl against one simulated Quectel EC25 in a
# throw-away root and shows through the bus CLI what it serves. Builds nothing:
# BUILD_DIR (default build/release) must hold the daemon and the host tools.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source-path=SCRIPTDIR source=lib/sim-root.sh
. scripts/lib/sim-root.sh

build=${1:-build/release}

# Prints a command as typed (arguments with special characters in single
# quotes), then runs it.
run()
{
    local arg line="$"
    for arg; do
        if [[ $arg =~ [^A-Za-z0-9_./=:-] ]]; then
            line+=" '$arg'"
        else
            line+=" $arg"
        fi
    done
    echo "$line"
    "$@"
    echo
}

wwan-bus()
{
    simroot_bus "$@"
}

# The top level of an indented JSON reply; nested values shown as { ... } or [ ... ].
top_level()
{
    awk '
        { opens = /[{[]$/; closes = /^[ \t]*[]}]/ }
        closes { depth-- }
        depth == 0 || (depth == 1 && !closes) {
            line = $0
            if (depth == 1 && opens) {
                sub(/\[$/, "[ ... ]", line)
                sub(/\{$/, "{ ... }", line)
            }
            print line
        }
        opens { depth++ }
    '
}

simroot_init "$build"
simroot_add_modem 1-1 ttyUSB2
simroot_board '{"modems":[{"usb_id":"1-1","builtin":true,"primary":true}],"blocked_modems":["3-1"]}'

echo "# A root in $WWANCTL_ROOT: the EC25 (2c7c:0125) at USB 1-1, AT port on interface 2,"
echo "# /dev/ttyUSB2 linked to the simulator's terminal, a board file naming 1-1 the primary modem."
simroot_start_broker
simroot_start_sim sim0 ttyUSB2
echo "\$ wwanctl -D > wwanctl.log &"
simroot_start_daemon -D
simroot_wait_object gsm.modem0 30
echo "# wwanctl identified the modem and published gsm.modem0:"
grep -E "identification|Selected driver" "$WWANCTL_ROOT/wwanctl.log" | sed 's/^/    /'
echo

run wwan-bus list
run wwan-bus call gsm.modem0 get_id_info
run wwan-bus call gsm.modem0 exec '{"command":"AT+CSQ"}'
run wwan-bus call gsm.modem0 exec '{"command":"AT+COPS?"}'
run wwan-bus call gsm.modem0 read_sms '{"index":4}'
run wwan-bus call gsm.modem0 get_serving_cell
echo "\$ wwan-bus call gsm.modem0 info    # nested statistics shown as { ... }"
wwan-bus call gsm.modem0 info | top_level
echo
run wwan-bus call gsm info

echo "# The modem reports POWERED DOWN (operator command to the simulator); wwanctl broadcasts it:"
echo "\$ wwan-bus -t 3 listen gsm.modem.powerdown gsm.modem_gone &"
wwan-bus -t 3 listen gsm.modem.powerdown gsm.modem_gone &
listener=$!
sleep 0.5
echo "\$ echo powerdown | socat - UNIX-CONNECT:\$WWANCTL_ROOT/sim0.sock"
simroot_sim_cmd sim0 powerdown
wait "$listener" || true
echo

echo "# stopping wwanctl with SIGTERM"
status=0
simroot_stop daemon || status=$?
echo "wwanctl exited with status $status; its log had $(wc -l <"$WWANCTL_ROOT/wwanctl.log") lines"
exit "$status"
