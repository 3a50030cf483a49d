#!/usr/bin/env bash
# build.sh release|asan: configures and builds one of the two configurations.
#   release  optimised with debug info, the daemon as shipped   -> build/release
#   asan     debug with AddressSanitizer and UBSan, for tests  -> build/asan
set -euo pipefail
cd "$(dirname "$0")/.."

kind=${1:-release}
case "$kind" in
release) flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
asan) flags=(-DCMAKE_BUILD_TYPE=Debug -DWWANCTL_SANITIZE=ON) ;;
*) echo "usage: $0 release|asan" >&2; exit 2 ;;
esac

cmake -S . -B "build/$kind" -G Ninja "${flags[@]}" >/dev/null
ninja -C "build/$kind"
