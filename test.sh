#!/usr/bin/env bash
# Runs every test. Tests that loop-mount Btrfs and XFS images need root; without it they skip and say why.
set -euo pipefail
cd "$(dirname "$0")"
[ -d build ] || { echo "build/ is missing: run ./setup.sh first" >&2; exit 1; }
cmake --build build
# A test that hangs (a lost wake-up, a mount that never lets go) fails after ten minutes instead of
# stalling the run.
ctest --test-dir build --output-on-failure --timeout 600 "$@"
