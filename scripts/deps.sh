#!/usr/bin/env bash
# deps.sh [armhf]: installs the Debian 12 packages the build and the tests
# need, if missing; with armhf also the ARMv7 cross toolchain, the armhf
# libraries (multiarch) and qemu-user for scripts/build.sh armhf.
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config libjson-c-dev libgtest-dev libgmock-dev socat clang libclang-rt-14-dev shellcheck)
armhf=0
case "${1:-}" in
"") ;;
armhf)
    armhf=1
    packages+=(crossbuild-essential-armhf libjson-c-dev:armhf libgtest-dev:armhf libgmock-dev:armhf libstdc++6:armhf
        qemu-user)
    ;;
*) echo "usage: $0 [armhf]" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "need root or sudo to install: ${missing[*]}" >&2; exit 1; }
    sudo="sudo"
fi
echo "Installing: ${missing[*]}"
if ((armhf)) && ! dpkg --print-foreign-architectures | grep -qx armhf; then
    $sudo dpkg --add-architecture armhf
fi
# A mirror caught mid-sync fails one index; the install below says whether
# what is needed was found anyway.
$sudo apt-get update -qq || echo "apt-get update reported errors; installing anyway" >&2
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
