# Sourced by the benchmark scripts. Needs `say`, `die`, `repo` and `make_dataset` from the caller.

# The dedup binary to time: $DEDUP, else the build's. Dies when there is none.
find_dedup() {
  if [ -n "${DEDUP:-}" ]; then
    [ -x "$DEDUP" ] || die "DEDUP=$DEDUP is not an executable file"
    echo "$DEDUP"
    return
  fi
  local candidate
  for candidate in "$repo/build/dedup" "$repo/build/cli/dedup"; do
    if [ -x "$candidate" ]; then echo "$candidate"; return; fi
  done
  die "build/dedup is missing: run ./setup.sh first (or leave dedup out with --tools)"
}

# The generated tree, made once and kept while it would come out byte for byte the same.
#
#   ensure_tree DIR WANT_STAMP AFTER [MAKE_DATASET ARGUMENTS...]
#
# Makes DIR/tree and DIR/summary.txt (what the generator printed) unless DIR/stamp already says
# WANT_STAMP. AFTER names a function run on the new tree before it is stamped, or is empty. Only a
# tree this script made (the stamp is written before the tree) is ever removed.
ensure_tree() {
  local dir="$1" want="$2" after="$3"
  shift 3
  local tree="$dir/tree" stamp="$dir/stamp" summary="$dir/summary.txt"
  if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ] && [ -d "$tree" ] && [ -f "$summary" ]; then
    say "reusing the tree in $tree ($want)"
    return
  fi
  if [ -e "$tree" ]; then
    [ -f "$stamp" ] || die "$tree exists but was not made by this script; remove it or choose another --dir"
    say "removing the old tree ($(cat "$stamp"))"
    rm -rf -- "$tree"
  fi
  echo "incomplete" >"$stamp"
  say "generating the tree in $tree ($want)"
  "$make_dataset" "$@" "$tree" >"$summary.new"
  [ -z "$after" ] || "$after" "$tree"
  mv "$summary.new" "$summary"
  echo "$want" >"$stamp"
}
