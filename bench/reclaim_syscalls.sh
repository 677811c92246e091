#!/usr/bin/env bash
# Counts the system calls of one `dedup reclaim` with strace -c -f, on a fresh loop-mounted Btrfs
# holding PAIRS pairs of identical files, for each strategy. Shows what the list of every process's
# open files costs a reclaim (in place needs none; clone and swap only where a lease cannot tell),
# and how many journal syncs it waits for.
#
#   sudo bench/reclaim_syscalls.sh [--pairs N] [--dedup BINARY]
set -euo pipefail

pairs=200
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
dedup="$(dirname "$here")/build/dedup"
while [ $# -gt 0 ]; do
  case "$1" in
    --pairs) pairs="$2"; shift 2 ;;
    --dedup) dedup="$2"; shift 2 ;;
    *) echo "usage: sudo $0 [--pairs N] [--dedup BINARY]" >&2; exit 2 ;;
  esac
done
[ "$(id -u)" = 0 ] || { echo "reclaim_syscalls.sh: needs root (loop mounts)" >&2; exit 1; }
command -v strace >/dev/null || { echo "reclaim_syscalls.sh: needs strace" >&2; exit 1; }

work="$(mktemp -d /var/tmp/dedup-syscalls.XXXXXX)"
mounted=""
cleanup() {
  [ -z "$mounted" ] || umount "$mounted"
  rm -rf -- "$work"
}
trap cleanup EXIT

truncate -s 1G "$work/image"
mkfs.btrfs -q "$work/image" 2>/dev/null
mkdir "$work/mnt"
mount -o loop "$work/image" "$work/mnt"
mounted="$work/mnt"
export DEDUP_DATA_DIR="$work/data"

for strategy in in-place clone; do
  rm -rf -- "$work/mnt/tree" "$work/data"
  mkdir -p "$work/mnt/tree"
  for i in $(seq 1 "$pairs"); do
    head -c 20000 /dev/urandom >"$work/mnt/tree/a$i"
    cp --reflink=never "$work/mnt/tree/a$i" "$work/mnt/tree/b$i"
  done
  sync
  echo "== $strategy, $pairs pairs, $(ls /proc | grep -c '^[0-9]') processes on the machine"
  strace -c -f -o "$work/strace.txt" "$dedup" reclaim --no-cache --min-size 1 --strategy "$strategy" "$work/mnt/tree" | tail -1
  awk '$NF ~ /^(total|openat|readlinkat|newfstatat|statx|getdents64|fdatasync)$/ {printf "    %-11s %8d calls\n", $NF, $4}' "$work/strace.txt"
done
