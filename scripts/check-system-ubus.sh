#!/usr/bin/env bash
# Checks that the daemon builds against the system's libubox/libubus, without
# their sources: the in-tree libraries, installed as a stand-in system prefix,
# play the system's part.
#
#  1. The in-tree headers are what the system's are: C (they compile as C),
#     without linkage guards in libubox/*.h, and declaring only names listed in
#     platform/system-names.txt. Our own helpers live in platform/wwan.
#  2. C++ code includes the libubox headers only through wwan/ubox.h.
#  3. The daemon, the bus CLI and the broker are configured with
#     WWANCTL_SYSTEM_UBUS=ON against the stand-in prefix (static C-linkage
#     libraries and the installed headers, nothing else of the in-tree layer)
#     and built; the stand-in exports every function the headers declare under
#     its C name.
#
# What this cannot see: structure layouts and behaviour of the real libraries.
# Builds go to build/sysubus; set CCACHE=0 to build without ccache.
set -euo pipefail
cd "$(dirname "$0")/.."

out=build/sysubus
prefix=$PWD/$out/prefix
jobs=${JOBS:-2}
flags=(-G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DCMAKE_C_FLAGS_DEBUG=-O0
	-DWWANCTL_TESTS=OFF -DWWANCTL_BENCH=OFF)
if [ "${CCACHE:-1}" != 0 ] && command -v ccache >/dev/null; then
	flags+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
fail() {
	echo "check-system-ubus: $*" >&2
	exit 1
}

# The stand-in: the in-tree libraries and their headers, installed.
cmake -S . -B "$out/standin" "${flags[@]}" >/dev/null
ninja -C "$out/standin" -j "$jobs" ubox ubus blobmsg_json >/dev/null
rm -rf "$prefix"
cmake --install "$out/standin" --component ubus_standin --prefix "$prefix" >/dev/null

# 1. The headers.
ubox_headers=("$prefix"/include/libubox/*.h)
headers=("${ubox_headers[@]}" "$prefix"/include/libubus.h "$prefix"/include/ubusmsg.h "$prefix"/include/ubus_common.h)
if grep -l '__cplusplus\|extern "C"' "${ubox_headers[@]}"; then
	fail "the libubox headers above carry C++ linkage guards; C++ includes them through wwan/ubox.h"
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
for h in "${headers[@]}"; do
	echo "#include <${h#"$prefix"/include/}>"
done >"$tmp/all.c"
gcc -std=gnu11 -Wall -Wextra -Werror -fsyntax-only -aux-info "$tmp/protos" -I"$prefix/include" \
	"$tmp/all.c" || fail "the installed headers do not compile as C"
grep -F "$prefix/include/" "$tmp/protos" >"$tmp/own" || true
sed -E 's/^.*[ *]([A-Za-z_][A-Za-z0-9_]*) \(.*/\1/' "$tmp/own" >"$tmp/names"
grep -hoE '^#[[:space:]]*define[[:space:]]+[A-Za-z_][A-Za-z0-9_]*' "${headers[@]}" | awk '{print $NF}' |
	grep -v '_H$' >>"$tmp/names" || true
grep -hoE '^(struct|enum) [A-Za-z_0-9]+ \{' "${headers[@]}" | awk '{print $2}' >>"$tmp/names" || true
grep -hoE '^typedef .*' "${headers[@]}" | sed -E 's/^typedef [^(]*\(\*([A-Za-z_0-9]+)\).*/\1/' >>"$tmp/names" || true
grep -v '^#' platform/system-names.txt | sort -u >"$tmp/known"
sort -u "$tmp/names" >"$tmp/declared"
unknown=$(comm -23 "$tmp/declared" "$tmp/known")
if [ -n "$unknown" ]; then
	fail "the in-tree headers declare names the system's headers do not (see platform/system-names.txt):
$unknown"
fi

# 2. The includes.
if grep -rnE --include='*.cpp' --include='*.h' '^#[[:space:]]*include[[:space:]]*[<"]libubox/' \
	src tools tests bench fuzz platform | grep -v '^platform/libubox/include/\|^platform/libubus/include/\|^platform/wwan/include/wwan/ubox.h:'; then
	fail "the includes above bypass wwan/ubox.h"
fi

# The functions the headers declare (not the inline ones) are exported under
# their C names.
grep -v 'static ' "$tmp/own" | sed -E 's/^.*[ *]([A-Za-z_][A-Za-z0-9_]*) \(.*/\1/' | sort -u >"$tmp/extern"
nm --defined-only -g "$prefix"/lib/*.a | awk 'NF == 3 && $2 == "T" {print $3}' | sort -u >"$tmp/exported"
missing=$(comm -23 "$tmp/extern" "$tmp/exported")
[ -z "$missing" ] || fail "declared but not exported with C linkage: $missing"

# 3. The system build.
cmake -S . -B "$out/system" "${flags[@]}" -DWWANCTL_SYSTEM_UBUS=ON \
	-DWWANCTL_UBUS_INCLUDE_DIR="$prefix/include" -DWWANCTL_UBOX_INCLUDE_DIR="$prefix/include" \
	-DWWANCTL_UBOX_LIBRARY="$prefix/lib/libubox.a" -DWWANCTL_UBUS_LIBRARY="$prefix/lib/libubus.a" \
	-DWWANCTL_BLOBMSG_JSON_LIBRARY="$prefix/lib/libblobmsg_json.a" >/dev/null
ninja -C "$out/system" -j "$jobs" wwanctl wwan-bus wwan-busd
echo "check-system-ubus: the daemon, wwan-bus and wwan-busd build against the system-style libubox/libubus"
