#!/usr/bin/env bash
# Builds everything and runs the daemon's main job.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
scripts/build.sh release

# The driver analysis: every registered driver and what each one supports.
build/release/src/wwanctl -D -a
