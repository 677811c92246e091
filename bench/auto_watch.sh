#!/usr/bin/env bash
# What `dedup auto` costs while it waits, and how soon after the quiet period a new duplicate
# becomes a clone.
#
#   sudo bench/auto_watch.sh [--scale N] [--quiet SECONDS] [--trials N] [--idle SECONDS] [--dir DIR]
#
# Generates the benchmark tree (bench/make_dataset; scale 1.7 is about 100,000 files) on a
# loop-mounted Btrfs image, starts `dedup auto --anytime` on it, waits for the first pass to end,
# then
#   1. measures the CPU time the process uses over an idle window (nothing changes in the tree);
#   2. copies a file into the tree `--trials` times and measures, for each copy, the seconds from
#      the end of the quiet period (the copy's last write plus --quiet) until its blocks are shared.
# The timer ticks every min(quiet / 2, 30) seconds, so the second figure lies between 0 and that
# interval plus the time the pass itself takes.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
repo="$(dirname "$here")"
# shellcheck source=common.sh
. "$here/common.sh"
scale=1.7
quiet=120
trials=3
idle=120
dir=/var/tmp/dedup-auto-bench
while [ $# -gt 0 ]; do
  case "$1" in
    --scale) scale="$2"; shift 2 ;;
    --quiet) quiet="$2"; shift 2 ;;
    --trials) trials="$2"; shift 2 ;;
    --idle) idle="$2"; shift 2 ;;
    --dir) dir="$2"; shift 2 ;;
    -h|--help) sed -n '2,14p' "$0"; exit 0 ;;
    *) echo "auto_watch.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done

die() { echo "auto_watch.sh: $*" >&2; exit 1; }
say() { echo "auto_watch.sh: $*" >&2; }
[ "$(id -u)" -eq 0 ] || die "needs root to loop-mount an image"
dedup="$(find_dedup)"
make_dataset="${MAKE_DATASET:-$repo/build/bench/make_dataset}"
[ -x "$make_dataset" ] || die "$make_dataset is missing: run ./setup.sh first"
command -v filefrag >/dev/null || apt-get install -y -qq e2fsprogs >/dev/null

mkdir -p "$dir"
mount_point="$dir/btrfs"
image="$dir/btrfs.img"
pid=""
cleanup() {
  if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  if mountpoint -q "$mount_point"; then umount "$mount_point" 2>/dev/null || umount -l "$mount_point"; fi
  rm -f "$image"
  rm -rf "$dir/data"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

rm -f "$image"
truncate -s 16G "$image"
mkfs.btrfs -q -f "$image"
mkdir -p "$mount_point"
mount -o loop "$image" "$mount_point"
say "generating the tree at scale $scale"
"$make_dataset" --scale "$scale" "$mount_point/tree" >"$dir/dataset.txt"
files=$(find "$mount_point/tree" -type f | wc -l)
folders=$(find "$mount_point/tree" -type d | wc -l)
say "$files files in $folders folders"

# Clock ticks of user and system time the process has used so far.
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
hz=$(getconf CLK_TCK)

rm -rf "$dir/data"
export DEDUP_DATA_DIR="$dir/data"
log="$dir/auto.log"
"$dedup" auto --anytime --min-size 1 --quiet-period "$quiet" "$mount_point/tree" >"$log" 2>&1 &
pid=$!
start=$(date +%s.%N)

# The first pass is over once it has reported the tree's duplicates and the process has then used
# no processor time for ten seconds in a row. Its threads run at idle priority, so on a busy
# machine a pause alone could be starvation, not the end.
until grep -q "files became clones" "$log"; do
  kill -0 "$pid" 2>/dev/null || die "dedup auto ended: $(cat "$log")"
  sleep 1
done
last=-1; still=0
while [ "$still" -lt 10 ]; do
  sleep 1
  now=$(cpu_ticks "$pid")
  if [ "$now" = "$last" ]; then still=$((still + 1)); else still=0; fi
  last=$now
done
first_pass=$(awk -v s="$start" -v e="$(date +%s.%N)" 'BEGIN { printf "%.1f", e - s - 10 }')
first_cpu=$(awk -v t="$last" -v hz="$hz" 'BEGIN { printf "%.2f", t / hz }')
rss_kib=$(awk '/VmRSS/ { print $2 }' "/proc/$pid/status")
say "first pass done in about ${first_pass}s"

before=$(cpu_ticks "$pid")
sleep "$idle"
after=$(cpu_ticks "$pid")
idle_cpu=$(awk -v a="$before" -v b="$after" -v hz="$hz" -v s="$idle" 'BEGIN { printf "%.3f s (%.4f%% of one core)", (b - a) / hz, 100 * (b - a) / hz / s }')

shared() { filefrag -v "$1" 2>/dev/null | grep -q shared; }
source_file=$(find "$mount_point/tree" -type f -size +1M -print -quit)
delays=()
for t in $(seq 1 "$trials"); do
  copy="$mount_point/tree/new-copy-$t.bin"
  cp --reflink=never "$source_file" "$copy"
  written=$(date +%s.%N)
  until shared "$copy"; do sleep 0.1; done
  done_at=$(date +%s.%N)
  delays+=("$(awk -v w="$written" -v d="$done_at" -v q="$quiet" 'BEGIN { printf "%.1f", d - w - q }')")
  say "copy $t: shared $(awk -v w="$written" -v d="$done_at" 'BEGIN { printf "%.1f", d - w }')s after it was written"
done

cat <<EOF

dedup auto on $files files in $folders folders (Btrfs loop image, scale $scale), quiet period ${quiet}s
  load average at the end:   $(cut -d' ' -f1-3 /proc/loadavg)
  first pass:                ~${first_pass}s, ${first_cpu}s of CPU
  resident memory after it:  $((rss_kib / 1024)) MiB ($((rss_kib * 1024 / files)) bytes per file)
  CPU while idle for ${idle}s: $idle_cpu
  seconds from the end of the quiet period to the copy being a clone: ${delays[*]}
    (the timer ticks every $(awk -v q="$quiet" 'BEGIN { printf "%g", (q / 2 < 30 ? q / 2 : 30) }')s)
EOF
echo "--- dedup auto's log"
cat "$log"
echo "--- journal entries by label"
"$dedup" journal | sed -E 's/^[^ ]+  //; s/ {2,}.*$//' | sort | uniq -c | sort -rn
