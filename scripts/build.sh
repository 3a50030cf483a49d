#!/usr/bin/env bash
# build.sh release|asan|armhf [TARGET...]: configures and builds one configuration
# (only the named targets when given).
#   release  optimised with debug info, the daemon as shipped   -> build/release
#   asan     debug with AddressSanitizer and UBSan, for tests  -> build/asan
#   armhf    the release configuration cross-built for ARMv7   -> build/armhf
#            (Debian's arm-linux-gnueabihf toolchain, tests under qemu-arm
#            with the host tools of build/release; scripts/deps.sh armhf
#            installs what it needs)
set -euo pipefail
cd "$(dirname "$0")/.."

kind=${1:-release}
shift || true
case "$kind" in
release) flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
asan) flags=(-DCMAKE_BUILD_TYPE=Debug -DWWANCTL_SANITIZE=ON) ;;
armhf)
    # The tests run the broker and the simulated modem of the native release
    # build (qemu-arm hands an x86 program to the kernel as it is).
    flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/armhf.cmake"
        -DWWANCTL_HOST_TOOLS="$PWD/build/release")
    ;;
*) echo "usage: $0 release|asan|armhf [TARGET...]" >&2; exit 2 ;;
esac

cmake -S . -B "build/$kind" -G Ninja "${flags[@]}" >/dev/null
ninja -C "build/$kind" "$@"
