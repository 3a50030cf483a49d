#!/usr/bin/env bash
# build.sh release|asan|armhf: configures and builds one configuration.
#   release  optimised with debug info, the daemon as shipped   -> build/release
#   asan     debug with AddressSanitizer and UBSan, for tests  -> build/asan
#   armhf    the release configuration cross-built for ARMv7   -> build/armhf
#            (Debian's arm-linux-gnueabihf toolchain, tests under qemu-arm;
#            scripts/deps.sh armhf installs what it needs)
set -euo pipefail
cd "$(dirname "$0")/.."

kind=${1:-release}
case "$kind" in
release) flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
asan) flags=(-DCMAKE_BUILD_TYPE=Debug -DWWANCTL_SANITIZE=ON) ;;
armhf) flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/armhf.cmake") ;;
*) echo "usage: $0 release|asan|armhf" >&2; exit 2 ;;
esac

cmake -S . -B "build/$kind" -G Ninja "${flags[@]}" >/dev/null
ninja -C "build/$kind"
