#!/usr/bin/env bash
# Builds everything and runs the daemon against a simulated modem.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
scripts/build.sh release

# The demo: wwanctl serving one simulated Quectel EC25 on a private bus,
# queried with the bus CLI.
scripts/demo.sh build/release
