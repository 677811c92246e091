#!/usr/bin/env bash
# Kills `dedup reclaim` at random moments, and cuts the power under it, while other programs save
# and append to files in the same tree; after each round puts it right with `dedup journal recover`
# and checks every file: its bytes and every metadata field a user could miss, and that no
# temporary file is left. Not a test: it prints what it found, round after round.
#
#   sudo bench/kill_stress.sh [--rounds N] [--power-cuts N] [--fs "btrfs xfs"] [--strategies "in-place clone"] [--dir DIR]
#
# Each file system lives in a loop-mounted image, with the journal on it too (a power cut takes
# both). A round:
#   - copies a pristine tree afresh (groups of identical files with their own modes, owners,
#     dates, extended attributes and ACLs) and syncs it;
#   - starts a saver (writes a new version beside the file and renames it over, as editors do;
#     every other version is identical to another file, so the scan takes it for a copy) and an
#     appender (adds a line to a file that starts as a copy);
#   - starts the reclaim and, once it has announced its first replacement, waits a random time up
#     to the length of its replacing, then either kills it with SIGKILL or cuts the power;
#   - stops the writers, runs `dedup journal recover ROOT`, and compares.
# A power cut: on XFS, `xfs_io -x -c shutdown` (the log is not written out), then unmount and mount
# again. Btrfs has no such call here and device-mapper is missing, so the Btrfs image lives on an
# XFS volume of its own and that outer XFS is shut down: the Btrfs loses every write it had not
# flushed, exactly as a disk losing power would, and its image holds what its flushes made
# durable. The writers sync what they save in power-cut rounds, as careful programs do.
#
# What must hold, and is counted when it does not:
#   content:   every file but the writers' holds its bytes from before the round;
#   metadata:  mode, owner, group, size, modification time, extended attributes and ACL unchanged;
#   writers:   the saved file holds the saver's latest version and the appended one everything
#              appended (after a power cut: one of the versions saved, or the original);
#   leftovers: no temporary file of the engine remains, and the journal has nothing interrupted.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
repo="$(dirname "$here")"
die() { echo "kill_stress.sh: $*" >&2; exit 1; }
say() { echo "kill_stress.sh: $*" >&2; }
# shellcheck source=common.sh
. "$here/common.sh"

rounds=100
power_cuts=10
fs_list="btrfs xfs"
strategies="in-place clone"
dir=/var/tmp/dedup-kill-stress
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds="$2"; shift 2 ;;
    --power-cuts) power_cuts="$2"; shift 2 ;;
    --fs) fs_list="$2"; shift 2 ;;
    --strategies) strategies="$2"; shift 2 ;;
    --dir) dir="$2"; shift 2 ;;
    -h|--help) sed -n '2,30p' "$0"; exit 0 ;;
    *) die "unknown argument: $1" ;;
  esac
done
[[ "$rounds" =~ ^[0-9]+$ && "$power_cuts" =~ ^[0-9]+$ ]] || die "--rounds and --power-cuts are counts"
[ "$(id -u)" -eq 0 ] || die "run as root: the volumes are loop-mounted and files are given other owners"
for tool in mkfs.btrfs mkfs.xfs xfs_io getfattr setfattr setfacl; do
  command -v "$tool" >/dev/null || die "$tool is missing"
done
dedup="$(find_dedup)"

mkdir -p "$dir"
dir="$(cd "$dir" && pwd)"
run="$dir/run"          # writers' state: on the host, so a power cut leaves it readable
mnt="$dir/mnt"          # the volume under test
outer="$dir/outer"      # Btrfs only: the XFS its image lives on
mkdir -p "$run" "$mnt" "$outer"

cleanup() {
  set +e
  [ -e "$run/stop" ] || touch "$run/stop"
  jobs -p | xargs -r kill -9 2>/dev/null
  wait 2>/dev/null
  mountpoint -q "$mnt" && umount "$mnt"
  mountpoint -q "$outer" && umount "$outer"
  rm -f "$dir/xfs.img" "$dir/outer.img"
}
trap cleanup EXIT

# ---- volumes ------------------------------------------------------------------------------------

make_volume() {  # fs
  cleanup; trap cleanup EXIT
  if [ "$1" = xfs ]; then
    truncate -s 1G "$dir/xfs.img"
    mkfs.xfs -q -f -m reflink=1 "$dir/xfs.img"
    mount -o loop "$dir/xfs.img" "$mnt"
  else
    truncate -s 2G "$dir/outer.img"
    mkfs.xfs -q -f "$dir/outer.img"
    mount -o loop "$dir/outer.img" "$outer"
    truncate -s 1G "$outer/btrfs.img"
    mkfs.btrfs -q -f "$outer/btrfs.img" >/dev/null
    mount -o loop "$outer/btrfs.img" "$mnt"
  fi
}

# The power goes: whatever the file system under test had not made durable is lost.
cut_power() {  # fs
  if [ "$1" = xfs ]; then
    xfs_io -x -c shutdown "$mnt"
  else
    xfs_io -x -c shutdown "$outer"
  fi
}

# As after the reboot: the log is replayed on mounting.
remount() {  # fs
  umount "$mnt" 2>/dev/null || umount -l "$mnt"
  if [ "$1" = xfs ]; then
    mount -o loop "$dir/xfs.img" "$mnt"
  else
    umount "$outer" 2>/dev/null || { sleep 1; umount "$outer"; }
    mount -o loop "$dir/outer.img" "$outer"
    mount -o loop "$outer/btrfs.img" "$mnt"
  fi
}

# ---- the tree -----------------------------------------------------------------------------------

readonly saved_name=report.odt appended_name=events.log
make_template() {
  local t="$mnt/template" g c f size
  rm -rf "$t"
  mkdir -p "$t"
  for g in $(seq 0 29); do
    size=$(( (RANDOM % 48 + 2) * 8192 + RANDOM % 4096 ))
    head -c "$size" /dev/urandom >"$run/content"
    for c in 0 1 2; do
      f="$t/d$((g % 5))/file$g-$c.jpg"
      mkdir -p "$(dirname "$f")"
      cp "$run/content" "$f"
      chmod "$(( c == 1 ? 600 : 644 ))" "$f"
      (( g % 3 == 0 && c > 0 )) && chown 1000:1000 "$f"
      setfattr -n user.tag -v "group $g copy $c" "$f"
      (( c == 2 )) && setfacl -m u:4321:r "$f"
      touch -d "@$(( 1500000000 + g * 1000 + c )).$(( RANDOM * 1000 + c ))" "$f"
    done
  done
  head -c 300000 /dev/urandom >"$t/twin.odt"
  cp "$t/twin.odt" "$t/$saved_name"
  head -c 200000 /dev/urandom >"$t/twin.log"
  cp "$t/twin.log" "$t/$appended_name"
  sync
}

# Every file but the writers', with bytes and metadata, one line each (plus its attributes).
manifest() {  # root
  (
    cd "$1"
    find . -type f ! -name "$saved_name" ! -name "$appended_name" ! -name '.~saving' -printf '%p %m %U:%G %s %T@\n' | sort
    find . -type f ! -name "$saved_name" ! -name "$appended_name" ! -name '.~saving' -print0 | sort -z | xargs -0 sha256sum
    find . -type f ! -name "$saved_name" ! -name "$appended_name" ! -name '.~saving' -print0 | sort -z |
      xargs -0 getfattr -h -d -m - --absolute-names 2>/dev/null | grep -v '^trusted.SGI_ACL'
  )
}

# ---- the writers --------------------------------------------------------------------------------

version_of() {  # k: the saver's k-th version (0 is the original)
  cat "$mnt/tree/twin.odt"
  (( $1 % 2 == 1 )) && echo "saved $1"
  return 0
}

saver() {  # durable
  local f="$mnt/tree/$saved_name" tmp="$mnt/tree/.~saving" k=0
  echo 0 >"$run/saved"
  sleep "0.0$((RANDOM % 10))"
  while [ ! -e "$run/stop" ]; do
    k=$((k + 1))
    { version_of "$k" >"$tmp"; } 2>/dev/null || return 0
    [ "$1" = 1 ] && { sync "$tmp" 2>/dev/null || return 0; }
    mv -f "$tmp" "$f" 2>/dev/null || return 0
    echo "$k" >"$run/saved"
    sleep "0.0$((RANDOM % 3))"
  done
}

appender() {  # durable
  local f="$mnt/tree/$appended_name" k=0
  echo 0 >"$run/appended"
  sleep "0.$((RANDOM % 3))"
  while [ ! -e "$run/stop" ]; do
    k=$((k + 1))
    { echo "line $k" >>"$f"; } 2>/dev/null || return 0
    [ "$1" = 1 ] && { sync "$f" 2>/dev/null || return 0; }
    echo "$k" >"$run/appended"
    sleep "0.0$((RANDOM % 5))"
  done
}

appended_content() {  # k
  cat "$mnt/tree/twin.log"
  local i
  for ((i = 1; i <= $1; i++)); do echo "line $i"; done
}

# ---- one round ----------------------------------------------------------------------------------

journal_size() { stat -c %s "$mnt/data/journal.jsonl" 2>/dev/null || echo 0; }

# Returns once the reclaim has announced its first replacement (the journal grew past `size`), or
# has ended: the scan before it changes nothing worth killing.
wait_for_replacing() {  # pid size
  while kill -0 "$1" 2>/dev/null && [ "$(journal_size)" -le "$2" ]; do sleep 0.002; done
}

declare -A count
bump() { count[$1]=$(( ${count[$1]:-0} + 1 )); }

# What a round that did not hold leaves to look at: the outputs, the manifests and the journal.
keep_evidence() {  # name
  local into="$dir/evidence/$1"
  mkdir -p "$into"
  cp "$run/reclaim.out" "$run/recover.out" "$run/again.out" "$run/before" "$into/" 2>/dev/null || true
  manifest "$mnt/tree" >"$into/after" 2>/dev/null || true
  find "$mnt/tree" -name '.*.dedup-*' >"$into/temporaries" 2>/dev/null || true
  cp "$mnt/data/journal.jsonl" "$into/" 2>/dev/null || true
}

round() {  # fs strategy mode(kill|power) max_delay_ms
  local fs="$1" strategy="$2" mode="$3" max="$4" durable=0 pid saver_pid appender_pid k ok status=137
  [ "$mode" = power ] && durable=1
  rm -rf "$mnt/tree" "$run/stop"
  cp -a --reflink=never "$mnt/template" "$mnt/tree"
  sync
  manifest "$mnt/tree" >"$run/before"

  saver "$durable" & saver_pid=$!
  appender "$durable" & appender_pid=$!
  local size
  size="$(journal_size)"
  DEDUP_DATA_DIR="$mnt/data" "$dedup" reclaim --min-size 1 --no-cache --strategy "$strategy" "$mnt/tree" \
    >"$run/reclaim.out" 2>&1 &
  pid=$!
  wait_for_replacing "$pid" "$size"
  sleep "$(awk -v ms=$(( RANDOM % max )) 'BEGIN { printf "%.3f", ms / 1000 }')"
  if [ "$mode" = power ]; then
    cut_power "$fs"
    kill -9 "$pid" "$saver_pid" "$appender_pid" 2>/dev/null || true
    wait "$pid" "$saver_pid" "$appender_pid" 2>/dev/null || true
    remount "$fs"
  else
    kill -9 "$pid" 2>/dev/null || true
    status=0
    wait "$pid" 2>/dev/null || status=$?
    # 137: the kill landed; anything else: the reclaim had ended by itself.
    if [ "$status" = 137 ]; then
      bump "$fs $strategy kill killed a live reclaim"
    else
      bump "$fs $strategy kill reclaim ended by itself, exit $status"
    fi
    touch "$run/stop"
    wait "$saver_pid" "$appender_pid" 2>/dev/null || true
  fi

  DEDUP_DATA_DIR="$mnt/data" "$dedup" journal recover "$mnt/tree" >"$run/recover.out" 2>&1 || true
  if grep -q "are left from an interrupted reclaim; the Journal" "$run/recover.out"; then
    bump "$fs $strategy $mode mid-run"
    # A reclaim that ended by itself must have closed every entry it opened.
    [ "$mode" = kill ] && [ "$status" != 137 ] && keep_evidence "$fs-$strategy-ended-open-${count[$fs $strategy $mode rounds]:-0}"
  fi
  grep -q "the journal did not know" "$run/recover.out" && bump "$fs $strategy $mode unknown leftovers"
  DEDUP_DATA_DIR="$mnt/data" "$dedup" journal recover >"$run/again.out" 2>&1 || true
  if ! grep -q "Nothing was left" "$run/again.out"; then
    bump "$fs $strategy $mode journal still open"
    keep_evidence "$fs-$strategy-$mode-open-${count[$fs $strategy $mode journal still open]}"
  fi

  ok=1
  manifest "$mnt/tree" >"$run/after"
  if ! diff -q "$run/before" "$run/after" >/dev/null; then
    ok=0
    if diff <(grep -E '^[0-9a-f]{64} ' "$run/before") <(grep -E '^[0-9a-f]{64} ' "$run/after") >/dev/null; then
      bump "$fs $strategy $mode metadata changed"
    else
      bump "$fs $strategy $mode CONTENT CHANGED"
    fi
    keep_evidence "$fs-$strategy-$mode-changed-${count[$fs $strategy $mode rounds]:-0}"
  fi
  if [ -n "$(find "$mnt/tree" -name '.*.dedup-*' -print -quit)" ]; then
    ok=0; bump "$fs $strategy $mode temporaries left"
    keep_evidence "$fs-$strategy-$mode-leftover-${count[$fs $strategy $mode rounds]:-0}"
  fi
  # The writers' files: exactly their last write, or after a power cut any write they made.
  k="$(cat "$run/saved")"
  if [ "$mode" = power ]; then
    local i found=0
    for ((i = 0; i <= k; i++)); do
      cmp -s <(version_of "$i") "$mnt/tree/$saved_name" && { found=1; break; }
    done
    [ "$found" = 1 ] || { ok=0; bump "$fs $strategy $mode saved file wrong"; }
    cmp -s <(cat "$mnt/tree/twin.log") <(head -c 200000 "$mnt/tree/$appended_name") ||
      { ok=0; bump "$fs $strategy $mode appended file wrong"; }
  else
    cmp -s <(version_of "$k") "$mnt/tree/$saved_name" || { ok=0; bump "$fs $strategy $mode saved file wrong"; }
    cmp -s <(appended_content "$(cat "$run/appended")") "$mnt/tree/$appended_name" ||
      { ok=0; bump "$fs $strategy $mode appended file wrong"; }
  fi
  [ "$ok" = 1 ] && bump "$fs $strategy $mode held"
  bump "$fs $strategy $mode rounds"
}

# ---- main ---------------------------------------------------------------------------------------

for fs in $fs_list; do
  for strategy in $strategies; do
    say "$fs, $strategy: making the volume"
    make_volume "$fs"
    make_template
    # How long the replacing takes here, from the first entry to the end: kills fall anywhere in it.
    cp -a --reflink=never "$mnt/template" "$mnt/tree"
    sync
    size="$(journal_size)"
    DEDUP_DATA_DIR="$mnt/data" "$dedup" reclaim --min-size 1 --no-cache --strategy "$strategy" "$mnt/tree" >/dev/null &
    pid=$!
    wait_for_replacing "$pid" "$size"
    start=$(date +%s%N)
    wait "$pid" || true
    max=$(( ($(date +%s%N) - start) / 1000000 + 1 ))
    say "$fs, $strategy: replacing takes $max ms; $rounds kills and $power_cuts power cuts"
    for ((r = 1; r <= rounds; r++)); do round "$fs" "$strategy" kill "$max"; done
    for ((r = 1; r <= power_cuts; r++)); do round "$fs" "$strategy" power "$max"; done
    for key in "${!count[@]}"; do
      if [[ "$key" == "$fs $strategy "* ]]; then printf '%-60s %s\n' "$key" "${count[$key]}"; fi
    done | sort
  done
done
