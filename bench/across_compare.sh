#!/usr/bin/env bash
# Times `dedup across` on two loop-mounted volumes (an XFS and a Btrfs) holding a generated tree
# and a partly changed copy of it, against jdupes, rdfind and rmlint run over both volumes, each
# from a cold and from a warm page cache; checks that every tool finds the same identical files
# across the two volumes, and prints each goal with its ratio. Every tool only looks.
#
#   sudo bench/across_compare.sh [--scale N] [--dir DIR] [--repeat N]
#
# The images are kept in DIR and reused while the scale and the generator are unchanged. Each
# timed run is made --repeat times (default 3) and the fastest kept, for every tool alike: on a
# shared machine one run can take twice as long as the next for reasons of its own.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
repo="$(dirname "$here")"
scale=1
dir=/var/tmp/dedup-across-bench
repeat=3
die() { echo "across_compare.sh: $*" >&2; exit 1; }
say() { echo "across_compare.sh: $*" >&2; }
while [ $# -gt 0 ]; do
  case "$1" in
    --scale) scale="$2"; shift 2 ;;
    --dir) dir="$2"; shift 2 ;;
    --repeat) repeat="$2"; shift 2 ;;
    *) echo "usage: bench/across_compare.sh [--scale N] [--dir DIR] [--repeat N]" >&2; exit 2 ;;
  esac
done
[[ "$repeat" =~ ^[1-9][0-9]*$ ]] || die "--repeat takes a whole number of runs"
[ "$(id -u)" -eq 0 ] || die "needs root to loop-mount two images and to drop the page cache"
source "$here/common.sh"
dedup="$(find_dedup)"
make_dataset="${MAKE_DATASET:-$repo/build/bench/make_dataset}"
[ -x "$make_dataset" ] || die "$make_dataset is missing: run ./setup.sh first"
missing=()
for t in jdupes rdfind rmlint jq; do command -v "$t" >/dev/null || missing+=("$t"); done
[ -x /usr/bin/time ] || missing+=(time)
if [ ${#missing[@]} -gt 0 ]; then
  say "installing ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# ---- The two volumes ------------------------------------------------------------------------------
mkdir -p "$dir"
work="$(mktemp -d "$dir/run.XXXXXX")"
mounted=()
cleanup() {
  local m
  for m in "${mounted[@]}"; do umount "$m" 2>/dev/null || umount -l "$m"; done
  rm -rf -- "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
left="$dir/xfs" right="$dir/btrfs"
# Each image on a loop device that reads its file with direct I/O: the page cache then holds a
# volume's files once, as it would those of a real disk, and not a second time as the image's own
# pages, which at the largest scale filled the memory and made part of every warm run read the disk.
mount_image() {  # KIND MOUNT_POINT
  mkdir -p "$2"
  local device
  device="$(losetup --find --show --direct-io=on "$dir/$1.img")"
  if ! mount "$device" "$2"; then
    losetup -d "$device"
    die "cannot mount $dir/$1.img"
  fi
  # Detached while mounted, the device goes away with the unmount.
  losetup -d "$device"
  mounted+=("$2")
}
# A copy, byte for byte, then a part of it changed: every 50th file appended to, every 97th removed.
change_copy() {
  local n=0 f
  while IFS= read -r -d '' f; do
    n=$((n + 1))
    if [ $((n % 50)) -eq 0 ]; then printf 'changed %d\n' "$n" >>"$f"; fi
    if [ $((n % 97)) -eq 0 ]; then rm -f -- "$f"; fi
  done < <(find "$1" -type f -print0 | sort -z)
}
want_stamp="scale=$scale generator=$(sha256sum "$here/make_dataset.cc" | cut -c1-16) changes=50/97"
if [ -f "$dir/stamp" ] && [ "$(cat "$dir/stamp")" = "$want_stamp" ] && [ -f "$dir/xfs.img" ] && [ -f "$dir/btrfs.img" ]; then
  say "reusing the volumes in $dir ($want_stamp)"
  mount_image xfs "$left"
  mount_image btrfs "$right"
else
  say "making the volumes in $dir ($want_stamp)"
  rm -f "$dir/stamp"
  for kind in xfs btrfs; do
    rm -f "$dir/$kind.img"
    truncate -s 12G "$dir/$kind.img"
    if [ "$kind" = xfs ]; then mkfs.xfs -q -f "$dir/$kind.img"; else mkfs.btrfs -q -f "$dir/$kind.img"; fi
  done
  mount_image xfs "$left"
  mount_image btrfs "$right"
  "$make_dataset" --scale "$scale" "$left/tree" >/dev/null
  cp -a --reflink=never "$left/tree" "$right/tree"
  change_copy "$right/tree"
  sync
  echo "$want_stamp" >"$dir/stamp"
fi
roots=("$left/tree" "$right/tree")
# Each file by its inode, to compare the tools' sets whatever name of a hard-linked file they list.
find "${roots[@]}" -type f -printf '%D:%i\t%p\n' >"$work/inodes.tsv"
files=$(wc -l <"$work/inodes.tsv")

# ---- Running the tools ----------------------------------------------------------------------------
export DEDUP_DATA_DIR="$work/data"
load_before="$(cut -d ' ' -f 1-3 /proc/loadavg)"
drop_caches() { sync; echo 3 >/proc/sys/vm/drop_caches; }
declare -A seconds kib cpu sys
run() {  # NAME CONDITION COMMAND...: warm runs once untimed first; the fastest of $repeat kept
  local name="$1" condition="$2"
  shift 2
  local out="$work/$name.$condition.out" s k r
  [ "$condition" = cold ] || "$@" >/dev/null 2>&1 || true
  seconds["$name.$condition"]="-" kib["$name.$condition"]=0 cpu["$name.$condition"]="-" sys["$name.$condition"]="-"
  for ((r = 0; r < repeat; r++)); do
    [ "$condition" = warm ] || drop_caches
    /usr/bin/time -f '%e %M %U %S' -o "$work/time" "$@" >"$out" 2>"$work/stderr" || true
    local u sy
    read -r s k u sy < <(tail -n 1 "$work/time")
    if ! [[ "$s" =~ ^[0-9.]+$ ]]; then say "$name failed: $(tail -n 2 "$work/stderr")"; continue; fi
    if [ "${seconds[$name.$condition]}" = "-" ] || awk -v a="$s" -v b="${seconds[$name.$condition]}" 'BEGIN { exit !(a < b) }'; then
      seconds["$name.$condition"]="$s" kib["$name.$condition"]="$k"
      cpu["$name.$condition"]="$(awk -v u="$u" -v s="$sy" 'BEGIN { printf "%.2f", u + s }')" sys["$name.$condition"]="$sy"
    fi
  done
}
# rdfind and rmlint write their lists where they are told, but are started here all the same.
cd "$work"
for condition in cold warm; do
  rm -rf "$DEDUP_DATA_DIR"
  run across "$condition" "$dedup" across --no-cache --min-size 1 --json "${roots[@]}"
  run folders "$condition" "$dedup" across --no-cache --folders --min-size 1 --json "${roots[@]}"
  # The digest cache filled by one search, then a second search timed.
  rm -rf "$DEDUP_DATA_DIR"
  "$dedup" across --min-size 1 "${roots[@]}" >/dev/null
  run cached "$condition" "$dedup" across --min-size 1 --json "${roots[@]}"
  run jdupes "$condition" jdupes -r -q "${roots[@]}"
  run rdfind "$condition" rdfind -dryrun true -outputname "$work/rdfind.$condition.txt" -minsize 1 \
    -followsymlinks false -removeidentinode true "${roots[@]}"
  run rmlint "$condition" rmlint -T df -o json:"$work/rmlint.$condition.json" --hidden --no-followlinks \
    --no-hardlinked --size 1 "${roots[@]}"
done

# ---- What each found ------------------------------------------------------------------------------
# Each tool's list as lines "set<TAB>path".
sets_of() {
  case "$1" in
    across) jq -r '.files | to_entries[] | .key as $k | .value.files[] | "\($k)\t\(.)"' "$work/across.warm.out" ;;
    jdupes) awk '/^$/ { set++; next } { printf "%d\t%s\n", set, $0 }' "$work/jdupes.warm.out" ;;
    rdfind) awk '/^#/ { next }
                 { id = $2 < 0 ? -$2 : $2; path = $0
                   for (i = 0; i < 7; i++) sub(/^[^ ]+ /, "", path)
                   printf "%s\t%s\n", id, path }' "$work/rdfind.warm.txt" ;;
    rmlint) jq -r '.[] | select(.type? == "duplicate_file") | "\(.checksum)\t\(.path)"' "$work/rmlint.warm.json" ;;
  esac
}
# The sets that hold files on both volumes, each as its sorted inodes on one line, sorted.
across_sets() {
  sets_of "$1" | awk -F '\t' -v a="$left/" -v b="$right/" '
    NR == FNR { inode[$2] = $1; next }
    { key = ($2 in inode) ? inode[$2] : "?" $2
      if (index($2, a) == 1) onA[$1] = 1
      if (index($2, b) == 1) onB[$1] = 1
      if (!(($1, key) in seen)) { seen[$1, key] = 1; members[$1] = members[$1] SUBSEP key } }
    END { for (s in members) if ((s in onA) && (s in onB)) {
            n = split(substr(members[s], 2), keys, SUBSEP)
            for (i = 1; i <= n; i++) printf "%s\t%s\n", s, keys[i] } }' "$work/inodes.tsv" - |
    LC_ALL=C sort -t "$(printf '\t')" -k1,1 -k2,2 |
    awk -F '\t' 'NR == 1 || $1 "" != set "" { if (NR > 1) print line; set = $1; line = $2; next } { line = line " " $2 }
                 END { if (NR > 0) print line }' | LC_ALL=C sort
}
across_sets across >"$work/sets.across"
for tool in jdupes rdfind rmlint; do across_sets "$tool" >"$work/sets.$tool"; done

# ---- The report -----------------------------------------------------------------------------------
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a ~ /^[0-9.]+$/ && b ~ /^[0-9.]+$/ && b > 0) printf "%.2f", a / b; else print "-" }'; }
echo "Across disks: $files files on an XFS and a Btrfs volume (scale $scale: a tree and a partly changed copy)"
echo "Machine: $(nproc) cores, load average $load_before before and $(cut -d ' ' -f 1-3 /proc/loadavg) after; fastest of $repeat runs each"
echo "Versions: $(jdupes -v 2>/dev/null | head -n 1); $(rdfind -v 2>/dev/null | head -n 1); $(rmlint --version 2>&1 | head -n 1)"
echo
printf '%-36s %-5s %8s %8s %9s %7s  %s\n' tool cache seconds "cpu s" "peak MiB" B/file "sets across the volumes"
for condition in cold warm; do
  for name in across folders cached jdupes rdfind rmlint; do
    case "$name" in
      across) label="dedup across --no-cache" ;;
      folders) label="dedup across --no-cache --folders" ;;
      cached) label="dedup across (2nd search, cached)" ;;
      *) label="$name" ;;
    esac
    k="${kib[$name.$condition]}"
    found=""
    if [ "$condition" = warm ] && [ -f "$work/sets.$name" ]; then found="$(wc -l <"$work/sets.$name")"; fi
    printf '%-36s %-5s %8s %8s %9s %7s  %s\n' "$label" "$condition" "${seconds[$name.$condition]}" "${cpu[$name.$condition]}" \
      "$(awk -v k="$k" 'BEGIN { printf "%.1f", k / 1024 }')" "$(awk -v k="$k" -v f="$files" 'BEGIN { printf "%.0f", k * 1024 / f }')" "$found"
  done
done
echo
echo "Goals (ratio = dedup's seconds / the other's):"
goal() {  # TEXT RATIO LIMIT
  local verdict="NOT MET"
  awk -v r="$2" -v l="$3" 'BEGIN { exit !(r ~ /^[0-9.]+$/ && r <= l) }' && verdict="met"
  printf '  %-58s %6s  limit %-5s %s\n' "$1" "$2" "$3" "$verdict"
}
for condition in cold warm; do
  best="" best_name=""
  for name in jdupes rdfind rmlint; do
    s="${seconds[$name.$condition]}"
    [[ "$s" =~ ^[0-9.]+$ ]] || continue
    if [ -z "$best" ] || awk -v a="$s" -v b="$best" 'BEGIN { exit !(a < b) }'; then best="$s" best_name="$name"; fi
  done
  goal "dedup across vs the fastest peer ($best_name), $condition" "$(ratio "${seconds[across.$condition]}" "$best")" 0.50
  goal "--folders vs without, $condition" "$(ratio "${seconds[folders.$condition]}" "${seconds[across.$condition]}")" 1.10
  # Processor time, which the other programs on a shared machine disturb far less than the clock.
  goal "--folders vs without, $condition, processor time" "$(ratio "${cpu[folders.$condition]}" "${cpu[across.$condition]}")" 1.10
done
# What no search that gives each set its SHA-256 can do without, warm: digesting one copy of each
# set, here at OpenSSL's own speed, in processor seconds; half the fastest peer's time on this
# machine's cores allows that many times its seconds in all. The peers digest with faster, weaker
# hashes.
one_copy="$(jq '[.files[].size] | add // 0' "$work/across.warm.out")"
sha_rate="$(openssl speed -seconds 1 -bytes 262144 -evp sha256 2>/dev/null | awk '/^sha256/ { sub(/k$/, "", $2); print $2 * 1000 }')"
if [[ "$sha_rate" =~ ^[0-9.]+$ ]] && [ -n "$best" ]; then
  printf '  %-58s %s\n' "processor seconds, warm:" \
    "$(awk -v b="$one_copy" -v r="$sha_rate" 'BEGIN { printf "%.2f", b / r }') SHA-256 of one copy of each set ($(awk -v b="$one_copy" 'BEGIN { printf "%.0f", b / 1e6 }') MB at $(awk -v r="$sha_rate" 'BEGIN { printf "%.0f", r / 1e6 }') MB/s)"
  printf '  %-58s %s\n' "" "${cpu[across.warm]} dedup across in all, of which the kernel's listing and reading $(awk -v k="${sys[across.warm]}" 'BEGIN { printf "%.2f", k }')"
  printf '  %-58s %s\n' "" "$(awk -v s="$best" -v n="$(nproc)" 'BEGIN { printf "%.2f", s / 2 * n }') half of $best_name's time on all $(nproc) cores"
fi
echo "  memory per file (dedup across --no-cache, warm)               $(awk -v k="${kib[across.warm]}" -v f="$files" 'BEGIN { printf "%.0f", k * 1024 / f }') bytes"
for tool in jdupes rdfind rmlint; do
  if cmp -s "$work/sets.across" "$work/sets.$tool"; then
    verdict="yes ($(wc -l <"$work/sets.across") sets)"
  else
    verdict="no: $(comm -3 "$work/sets.across" "$work/sets.$tool" | wc -l) sets differ"
    cp "$work/sets.across" "$work/sets.$tool" "$dir/"
  fi
  printf '  %-58s %s\n' "same identical files across the volumes as $tool" "$verdict"
done
