#!/usr/bin/env bash
# Runs every test. Tests that loop-mount Btrfs and XFS images need root; without it they skip and say why.
set -euo pipefail
cd "$(dirname "$0")"
[ -d build ] || { echo "build/ is missing: run ./setup.sh first" >&2; exit 1; }
cmake --build build
ctest --test-dir build --output-on-failure "$@"
