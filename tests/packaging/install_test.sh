#!/usr/bin/env bash
# `cmake --install` into a prefix chosen at install time, with a space in it: every file lands where
# a Linux desktop looks, and the unit and autostart entry name the dedup installed there.
#   install_test.sh BUILD_DIR VERSION
set -uo pipefail
build=$1 version=$2
source "$(dirname "$0")/installed_tree.sh"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix="$scratch/my programs"

cmake --install "$build" --prefix "$prefix" >"$scratch/install.log" 2>&1 || { cat "$scratch/install.log"; exit 1; }
check_installed_tree "" "$prefix" "$version"

# A prefix the unit and the autostart entry cannot name is refused, saying why.
if cmake --install "$build" --prefix "$scratch/100%" >"$scratch/refused.log" 2>&1; then
    fail "an install into a path with % succeeded"
fi
grep -q "Choose another prefix" "$scratch/refused.log" || fail "the refused install did not say why: $(cat "$scratch/refused.log")"
[[ -e "$scratch/100%" ]] && fail "the refused install copied files first: $(find "$scratch/100%" -type f | head -3)"

((failures == 0)) && echo "installed tree complete and valid"
exit $((failures == 0 ? 0 : 1))
