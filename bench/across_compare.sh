#!/usr/bin/env bash
# Times `dedup across` on two loop-mounted volumes (an XFS and a Btrfs) holding a generated tree
# and a partly changed copy of it, against the duplicate finders installed here run over both
# volumes. Prints seconds and peak memory; checks nothing is deleted (every tool only looks).
#
#   bench/across_compare.sh [--scale N] [--dir DIR]     (root: loop mounts, dropped caches)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
repo="$(dirname "$here")"
scale=1
dir=/var/tmp/dedup-across-bench
while [ $# -gt 0 ]; do
  case "$1" in
    --scale) scale="$2"; shift 2 ;;
    --dir) dir="$2"; shift 2 ;;
    *) echo "usage: bench/across_compare.sh [--scale N] [--dir DIR]" >&2; exit 2 ;;
  esac
done
[ "$(id -u)" -eq 0 ] || { echo "across_compare.sh: needs root to loop-mount two images" >&2; exit 1; }
dedup="${DEDUP:-$repo/build/dedup}"
make_dataset="$repo/build/bench/make_dataset"
[ -x "$dedup" ] && [ -x "$make_dataset" ] || { echo "across_compare.sh: build first (./setup.sh)" >&2; exit 1; }

mkdir -p "$dir"
mounted=()
cleanup() { for m in "${mounted[@]}"; do umount "$m" 2>/dev/null || umount -l "$m"; done; }
trap cleanup EXIT
trap 'exit 130' INT TERM
for kind in xfs btrfs; do
  image="$dir/$kind.img" mnt="$dir/$kind"
  mkdir -p "$mnt"
  rm -f "$image"
  truncate -s 12G "$image"
  if [ "$kind" = xfs ]; then mkfs.xfs -q -f "$image"; else mkfs.btrfs -q -f "$image"; fi
  mount -o loop "$image" "$mnt"
  mounted+=("$mnt")
done
"$make_dataset" --scale "$scale" "$dir/xfs/tree" >/dev/null
# A real copy, byte by byte, then a part of it changed: every 50th file rewritten, some removed.
cp -a --reflink=never "$dir/xfs/tree" "$dir/btrfs/tree"
n=0
while IFS= read -r -d '' f; do
  n=$((n + 1))
  if [ $((n % 50)) -eq 0 ]; then printf 'changed %d\n' "$n" >>"$f"; fi
  if [ $((n % 97)) -eq 0 ]; then rm -f -- "$f"; fi
done < <(find "$dir/btrfs/tree" -type f -print0)
files=$(find "$dir/xfs/tree" "$dir/btrfs/tree" -type f | wc -l)
echo "files on both volumes: $files"

export DEDUP_DATA_DIR="$dir/data"
drop() { sync; echo 3 >/proc/sys/vm/drop_caches; }
run() {  # name condition command...
  local name="$1" condition="$2"; shift 2
  [ "$condition" = cold ] && drop
  /usr/bin/time -f '%e %M' -o "$dir/time" "$@" >"$dir/$name.out" 2>/dev/null || true
  read -r seconds kb <"$dir/time"
  printf '%-28s %-5s %8.2f s %8d kB  %6d bytes/file\n' "$name" "$condition" "$seconds" "$kb" $((kb * 1024 / files))
}
roots=("$dir/xfs/tree" "$dir/btrfs/tree")
# rdfind and rmlint like to leave files where they are started.
cd "$dir"
for condition in cold warm; do
  rm -rf "$DEDUP_DATA_DIR"
  run "dedup across --no-cache" "$condition" "$dedup" across --no-cache --min-size 1 "${roots[@]}"
  run "dedup across --folders" "$condition" "$dedup" across --no-cache --folders --min-size 1 "${roots[@]}"
  rm -rf "$DEDUP_DATA_DIR"
  "$dedup" across --min-size 1 "${roots[@]}" >/dev/null
  run "dedup across (cached)" "$condition" "$dedup" across --min-size 1 "${roots[@]}"
  command -v jdupes >/dev/null && run "jdupes -r" "$condition" jdupes -r -q "${roots[@]}"
  command -v rdfind >/dev/null && run "rdfind" "$condition" rdfind -outputname "$dir/rdfind.txt" "${roots[@]}"
  command -v rmlint >/dev/null && run "rmlint" "$condition" rmlint -o fdupes:"$dir/rmlint.txt" "${roots[@]}"
done
