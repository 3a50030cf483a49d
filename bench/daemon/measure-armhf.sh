#!/usr/bin/env bash
# measure-armhf.sh: size and memory of the ARMv7 (armhf) daemon, run under qemu-arm.
#
#   bench/daemon/measure-armhf.sh [-a ARMHF_BUILD] [-b HOST_BUILD] [-w SETTLE_SECONDS]
#
#   -a  cross build holding src/wwanctl (default build/armhf, scripts/build.sh armhf)
#   -b  native build whose broker and simulated modem serve as peers (default build/release)
#   -w  seconds to let the daemon settle once gsm.modem0 answers (default 5)
#
# Prints the size of wwanctl stripped with arm-linux-gnueabihf-strip, then runs
# it under qemu-arm against one simulated EC25 in a throw-away root and, once
# gsm.modem0 has answered get_id_info and the settling time has passed, reads the
# memory of the qemu-arm process: VmRSS, and Private_Dirty from smaps_rollup
# (the emulator's own heap and translated code included), and Private_Dirty
# summed over the mappings inside the guest's 4 GB address space only, which is
# what the daemon itself dirties. qemu-arm is given a fixed guest base (-B) so
# that the guest's mappings can be told apart.
set -euo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source-path=SCRIPTDIR source=../../scripts/lib/sim-root.sh
. "$repo/scripts/lib/sim-root.sh"

armhf=$repo/build/armhf
host=$repo/build/release
settle=5
triple=arm-linux-gnueabihf
guest_base=0x100000000000

usage()
{
    sed -n '3,8p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

while getopts "a:b:w:h" opt; do
    case $opt in
    a) armhf=$OPTARG ;;
    b) host=$OPTARG ;;
    w) settle=$OPTARG ;;
    *) usage ;;
    esac
done
armhf=$(cd "$armhf" && pwd)
daemon=$armhf/src/wwanctl
[[ -x $daemon ]] || { echo "measure-armhf.sh: $daemon is missing: scripts/build.sh armhf first" >&2; exit 1; }
for tool in qemu-arm "$triple-strip"; do
    command -v "$tool" >/dev/null || { echo "measure-armhf.sh: $tool is missing: scripts/deps.sh armhf" >&2; exit 1; }
done

# ---- size ----

stripped=$(mktemp)
"$triple-strip" -o "$stripped" "$daemon"
size_unstripped=$(stat -c %s "$daemon")
size_stripped=$(stat -c %s "$stripped")
read -r text data bss < <("$triple-size" "$stripped" | awk 'NR == 2 { print $1, $2, $3 }')
rm -f "$stripped"
needed=$("$triple-readelf" -d "$daemon" | awk -F'[][]' '/NEEDED/ { printf "%s%s", sep, $2; sep = ", " }')

# ---- memory ----

# A "Key: value kB" field of a /proc status-like file.
proc_kb()
{
    awk -v key="$2:" '$1 == key { print $2; exit }' "$1"
}

# Private_Dirty (kB) summed over the mappings of pid that start inside
# [lo, hi); bash arithmetic reads the hexadecimal addresses.
dirty_between()
{
    local pid=$1 lo=$(($2)) hi=$(($3)) sum=0 inside=0 first rest start key value
    while read -r first rest; do
        if [[ $first == *-* && $first != *: ]]; then
            start=$((16#${first%%-*}))
            inside=$((start >= lo && start < hi))
        elif ((inside)) && [[ $first == Private_Dirty: ]]; then
            read -r value _ <<<"$rest"
            sum=$((sum + value))
        fi
    done <"/proc/$pid/smaps"
    echo "$sum"
}

simroot_init "$host"
simroot_start_ec25s 1 ec25
qemu-arm -B "$guest_base" "$daemon" >"$WWANCTL_ROOT/wwanctl.log" 2>&1 &
simroot_track daemon $!
simroot_wait_object gsm.modem0 60
simroot_bus -t 10 call gsm.modem0 get_id_info >/dev/null
simroot_sleep "$settle"
pid=$(simroot_pid daemon)
[[ -r /proc/$pid/smaps_rollup ]] || { echo "measure-armhf.sh: the daemon is gone" >&2; exit 1; }
rss=$(proc_kb "/proc/$pid/status" VmRSS)
dirty_all=$(proc_kb "/proc/$pid/smaps_rollup" Private_Dirty)
dirty_guest=$(dirty_between "$pid" "$guest_base" "$guest_base + 0x100000000")
((dirty_guest > 0)) || { echo "measure-armhf.sh: no mapping at the guest base $guest_base" >&2; exit 1; }
state=$(simroot_bus call gsm.modem0 info | awk -F'"' '$2 == "state" { print $4; exit }')
status=0
simroot_stop daemon || status=$?
((status == 0)) || echo "measure-armhf.sh: wwanctl exited with status $status on SIGTERM" >&2
simroot_cleanup

build_type=$(awk -F= '/^CMAKE_BUILD_TYPE:/ { print $2 }' "$armhf/CMakeCache.txt")
echo "wwanctl for armhf, $armhf ($build_type); $(qemu-arm --version | head -n 1)"
echo "host: $(awk -F': *' '/^model name/ { print $2; exit }' /proc/cpuinfo), Linux $(uname -r)"
echo
printf '%-48s %10s\n' "file size, with debug info (bytes)" "$size_unstripped"
printf '%-48s %10s\n' "file size, stripped (bytes)" "$size_stripped"
printf '%-48s %10s\n' "  text / data / bss (bytes)" "$text / $data / $bss"
printf '%-48s %s\n' "  shared libraries" "$needed"
echo
echo "one simulated EC25, gsm.modem0 live (state $state), after ${settle} s:"
printf '%-48s %10s\n' "Private_Dirty, guest address space (kB)" "$dirty_guest"
printf '%-48s %10s\n' "Private_Dirty, qemu-arm process (kB)" "$dirty_all"
printf '%-48s %10s\n' "VmRSS, qemu-arm process (kB)" "$rss"
