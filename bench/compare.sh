#!/usr/bin/env bash
# Times `dedup scan` and other duplicate finders on one generated tree, in one run, and checks that
# they all find the same duplicate bytes.
#
#   bench/compare.sh [--shape mixed|home] [--scale N] [--dir DIR] [--tools "dedup jdupes ..."] [--threads N] [--reflink]
#
# Every tool only looks for duplicates: nothing is deleted or linked. Each is timed twice: with a
# warm page cache (a first, untimed run reads the tree into memory) and, when run as root, right
# after the kernel dropped its caches. dedup also gets a second scan of the unchanged tree that
# reuses the digest cache of its first one and, on the home shape, a scan after one folder of
# small files was rewritten; duperemove gets its rescan from its hash file. The home shape ends
# with the speed goals, each with its measured ratio and whether it holds.
#
# Settings are made equivalent where the tools allow it (see set_command): every regular file of
# one byte or more, hidden files included, symbolic links never followed, hard links to one file
# never counted as copies of each other. What still differs is printed under the table.
set -euo pipefail

readonly all_tools="listing dedup jdupes rmlint fdupes rdfind duperemove"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
# shellcheck source=common.sh
. "$here/common.sh"
repo="$(dirname "$here")"

usage() {
  cat <<EOF
usage: bench/compare.sh [--shape mixed|home] [--scale N] [--dir DIR] [--volume xfs|btrfs|none] [--tools "LIST"] [--threads N] [--reflink]
  --shape S      mixed: edge cases (default); home: a home folder, ~100,000 files and ~4.6 GB at
                 scale 1, on btrfs with clones, timed against the speed goals
  --scale N      size of the generated tree; 1 is ~60,000 files and ~2.7 GB (default 1)
  --dir DIR      where the tree and the results go; not on tmpfs (default /var/tmp/dedup-bench)
  --volume KIND  make the tree on a loop-mounted xfs or btrfs image in DIR, or none
                 (default xfs; btrfs for the home shape)
  --tools LIST   which tools to run, out of: $all_tools
                 (default: all but listing and duperemove; for the home shape
                 "listing dedup jdupes rdfind duperemove")
  --threads N    passed to dedup as --threads N
  --reflink      generate the tree with block-sharing clones where the file system allows it
                 (always on for the home shape)
Needs build/dedup and build/bench/make_dataset: run ./setup.sh first.
EOF
}

die() { echo "compare.sh: $*" >&2; exit 1; }
say() { echo "compare.sh: $*" >&2; }

scale=1
shape=mixed
dir=""
volume=""
volume_size=12G
unmount_at_exit=""
tools=""
threads=""
reflink=0
while [ $# -gt 0 ]; do
  case "$1" in
    --scale) [ $# -ge 2 ] || die "--scale needs a value"; scale="$2"; shift 2 ;;
    --scale=*) scale="${1#*=}"; shift ;;
    --shape) [ $# -ge 2 ] || die "--shape needs mixed or home"; shape="$2"; shift 2 ;;
    --shape=*) shape="${1#*=}"; shift ;;
    --dir) [ $# -ge 2 ] || die "--dir needs a value"; dir="$2"; shift 2 ;;
    --volume) [ $# -ge 2 ] || die "--volume needs xfs, btrfs or none"; volume="$2"; shift 2 ;;
    --volume=*) volume="${1#*=}"; shift ;;
    --dir=*) dir="${1#*=}"; shift ;;
    --tools) [ $# -ge 2 ] || die "--tools needs a value"; tools="$2"; shift 2 ;;
    --tools=*) tools="${1#*=}"; shift ;;
    --threads) [ $# -ge 2 ] || die "--threads needs a value"; threads="$2"; shift 2 ;;
    --threads=*) threads="${1#*=}"; shift ;;
    --reflink) reflink=1; shift ;;
    -h|--help) usage; exit 0 ;;
    *) usage >&2; die "unknown argument: $1" ;;
  esac
done

case "$shape" in
  mixed)
    [ -n "$dir" ] || dir=/var/tmp/dedup-bench
    [ -n "$volume" ] || volume=xfs
    [ -n "$tools" ] || tools="dedup jdupes rmlint fdupes rdfind" ;;
  home)
    [ -n "$dir" ] || dir=/var/tmp/dedup-bench-home
    [ -n "$volume" ] || volume=btrfs
    [ -n "$tools" ] || tools="listing dedup jdupes rdfind duperemove"
    reflink=1 ;;
  *) die "--shape is mixed or home, not '$shape'" ;;
esac

[[ "$scale" =~ ^([0-9]+\.?[0-9]*|\.[0-9]+)$ ]] || die "--scale must be a positive number, not '$scale'"
[ -z "$threads" ] || [[ "$threads" =~ ^[1-9][0-9]*$ ]] || die "--threads must be a positive integer"
# One spelling per scale, so that "0.050" reuses the tree made for "0.05".
scale="$(LC_ALL=C awk -v s="$scale" 'BEGIN { printf "%g", s }')"
[ "$scale" != 0 ] || die "--scale must be above 0"

read -r -a tool_list <<<"$tools"
[ ${#tool_list[@]} -gt 0 ] || die "--tools is empty"
for t in "${tool_list[@]}"; do
  [[ " $all_tools " == *" $t "* ]] || die "unknown tool '$t' (known: $all_tools)"
done
wants() { [[ " ${tool_list[*]} " == *" $1 "* ]]; }

# ---- What must be there ----------------------------------------------------------------------------

make_dataset="${MAKE_DATASET:-$repo/build/bench/make_dataset}"
[ -x "$make_dataset" ] || die "$make_dataset is missing: run ./setup.sh first"
# The stamp below trusts the generator to match its source.
[ "$make_dataset" -nt "$here/make_dataset.cc" ] || die "$make_dataset is older than bench/make_dataset.cc: run cmake --build build"
dedup=""
if wants dedup; then
  dedup="$(find_dedup)"
fi

missing=()
for t in "${tool_list[@]}"; do
  [ "$t" = dedup ] || [ "$t" = listing ] || command -v "$t" >/dev/null || missing+=("$t")
done
[ -x /usr/bin/time ] || missing+=(time)
command -v jq >/dev/null || missing+=(jq)
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || die "missing ${missing[*]}, and not root to install them"
    sudo_cmd=(sudo)
  fi
  say "installing ${missing[*]}"
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# On tmpfs the page cache is the data itself: a cold run would measure nothing. Asked of the
# nearest folder that exists, so that nothing is created in memory before refusing.
existing="$dir"
until [ -d "$existing" ]; do existing="$(dirname "$existing")"; done
case "$(stat -f -c %T "$existing")" in
  tmpfs|ramfs) die "$dir is in memory (tmpfs); choose a folder on a disk with --dir" ;;
esac
mkdir -p "$dir"
dir="$(cd "$dir" && pwd -P)"

# The tree lives on a loop-mounted volume of a file system that can share blocks, as our users'
# do: there every volume has an identifier, so the digest cache works (the root file system of a
# virtual machine may have none), and the image keeps the tree between runs.
if [ "$volume" != none ]; then
  [ "$(id -u)" -eq 0 ] || die "--volume $volume needs root to loop-mount an image (or use --volume none)"
  image="$dir/$volume.img"
  mount_point="$dir/$volume"
  mkdir -p "$mount_point"
  if ! mountpoint -q "$mount_point"; then
    if [ ! -f "$image" ]; then
      truncate -s "$volume_size" "$image"
      case "$volume" in
        xfs) mkfs.xfs -q -f -m reflink=1 "$image" ;;
        btrfs) mkfs.btrfs -q -f "$image" ;;
      esac
    fi
    mount -o loop "$image" "$mount_point"
    unmount_at_exit="$mount_point"
  fi
  dir="$mount_point"
fi
# For the report only; stat calls ext4 "ext2/ext3". The last line is the mount on top.
fs_type="$(findmnt -n -o FSTYPE -T "$dir" 2>/dev/null | tail -n 1)"
[ -n "$fs_type" ] || fs_type="$(stat -f -c %T "$dir")"

# ---- The tree --------------------------------------------------------------------------------------
# Made once and kept: the stamp names the scale, the clone option and the generator's source, so a
# tree is reused only when it would come out byte for byte the same.

tree="$dir/tree"
stamp="$dir/stamp"
summary="$dir/summary.txt"
want_stamp="shape=$shape scale=$scale reflink=$reflink generator=$(sha256sum "$here/make_dataset.cc" | cut -c1-16)"
gen_args=(--shape "$shape" --scale "$scale")
[ "$reflink" -eq 0 ] || gen_args+=(--reflink)
ensure_tree "$dir" "$want_stamp" "" "${gen_args[@]}"
sed 's/^/  /' "$summary" >&2

summary_value() { sed -n "s/^$1: //p" "$summary"; }
expected="$(summary_value "expected duplicate bytes")"
expected_apart="$(summary_value "expected duplicate bytes, clones counted apart")"
candidates="$(summary_value "files a scan takes")"
if [ -z "$expected" ] || [ -z "$candidates" ]; then
  die "$summary does not hold the expected figures; remove $stamp and run again"
fi

# ---- Scratch space -----------------------------------------------------------------------------------
# Beside the tree, on the same disk, so dedup's digest database is written where a user's would be.

work="$(mktemp -d "$dir/run.XXXXXX")"
cleanup() {
  rm -rf -- "$work"
  if [ -n "${unmount_at_exit:-}" ]; then umount "$unmount_at_exit" 2>/dev/null || umount -l "$unmount_at_exit"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Which inode each path is, to count the copies a tool lists once per file (see figures).
find "$tree" -type f -printf '%i\t%p\n' >"$work/inodes.tsv"

can_drop=0
if [ "$(id -u)" -eq 0 ] && { sync; echo 3 >/proc/sys/vm/drop_caches; } 2>/dev/null; then can_drop=1; fi
drop_caches() { sync; echo 3 >/proc/sys/vm/drop_caches; }

# ---- Running one tool -------------------------------------------------------------------------------

# Fills cmd (and out, the file the duplicate list lands in) for one tool.
#  - jdupes: -r recurse; -q no progress; -S prints the size above every set. Empty files are left
#    out unless -z; symlinked folders are not entered without -s, and symlinks to files are not
#    taken; hard links to one file are not matched with each other (-H would). -Q (skip the
#    byte-for-byte check) is not used: it trades correctness for speed.
#  - fdupes: -r; -n leaves empty files out (fdupes takes them by default); -q; -S as above.
#    Symlinked folders are not entered without -s; hard links are not matched without -H.
#  - rmlint: -T df only duplicate files (no other kinds of lint); -o json:FILE is the only output
#    (no shell script, no summary); --hidden because rmlint skips hidden files by default;
#    --no-followlinks ignores symlinks entirely (by default it would see them as small files);
#    --no-hardlinked keeps one name per hard-linked file; --size 1 is its default, spelled out.
#  - rdfind: -dryrun true never touches a file; -outputname puts results.txt in our scratch folder;
#    -minsize 1, -followsymlinks false and -removeidentinode true (one name per inode) are its
#    defaults, spelled out.
#  - dedup: scan --min-size 1 --json, --threads N when asked.
#  - duperemove: -r without -d only finds duplicate extents; --hashfile keeps what it read, so its
#    second run over one hash file is its rescan. It lists extents, not files: no figure is taken.
#  - listing: find -printf '%s %i', the size and inode of every entry: the floor of any scan.
set_command() {
  local tool="$1" base="$2"
  out="$base.out"
  case "$tool" in
    listing) cmd=(find "$tree" -printf '%s %i\n') ;;
    duperemove) cmd=(duperemove -r "--hashfile=$hashfile" "$tree") ;;
    dedup)
      cmd=("$dedup" scan --min-size 1 --json)
      [ -z "$threads" ] || cmd+=(--threads "$threads")
      # A full check reads every extent map again instead of trusting what the cache kept.
      [[ "$base" != *.full ]] || cmd+=(--full-check)
      cmd+=("$tree") ;;
    jdupes) cmd=(jdupes -r -q -S "$tree") ;;
    fdupes) cmd=(fdupes -r -n -q -S "$tree") ;;
    rmlint)
      out="$base.json"
      cmd=(rmlint -T df -o "json:$out" --hidden --no-followlinks --no-hardlinked --size 1 "$tree") ;;
    rdfind)
      out="$base.txt"
      cmd=(rdfind -dryrun true -outputname "$out" -minsize 1 -followsymlinks false -removeidentinode true "$tree") ;;
  esac
}

# Runs cmd under /usr/bin/time from the scratch folder (rmlint and rdfind like to leave files in
# the current folder). Sets secs, kib and status; stdout goes to $base.stdout unless the tool
# writes its list there.
timed() {
  local base="$1" stdout="$1.stdout"
  [ "$out" = "$base.out" ] && stdout="$out"
  status=0
  (cd "$work" && /usr/bin/time -f '%e %M' -o "$base.time" "${cmd[@]}" >"$stdout" 2>"$base.stderr") || status=$?
  # time writes "Command exited with non-zero status N" above its line when the tool failed, and
  # nothing at all when it could not start the tool.
  secs="-" kib=0
  [ ! -s "$base.time" ] || read -r secs kib < <(tail -n 1 "$base.time") || true
}

# Turns a tool's list into lines "set<TAB>size<TAB>path".
to_sets() {
  local tool="$1" file="$2"
  case "$tool" in
    jdupes|fdupes)
      awk '/^[0-9]+ bytes? +each:$/ { set++; size = $1; next }
           /^$/ { next }
           { printf "%d\t%s\t%s\n", set, size, $0 }' "$file" ;;
    rmlint)
      jq -r '.[] | select(.type? == "duplicate_file") | [.checksum, .size, .path] | @tsv' "$file" ;;
    rdfind)
      awk '/^#/ { next }
           { id = $2 < 0 ? -$2 : $2; size = $4; path = $0
             # The name is everything after the seventh field, spaces included.
             for (i = 0; i < 7; i++) sub(/^[^ ]+ /, "", path)
             printf "%s\t%s\t%s\n", id, size, path }' "$file" ;;
  esac
}

# Prints "listed once_per_inode unknown" for a sets file: the duplicate bytes as the tool lists
# them (sum over sets of (n-1)*size) and with the names of one inode counted once, plus how many
# listed paths are not in the tree (they would make the second figure unreliable).
figures() {
  awk -F '\t' 'NR == FNR { inode[$2] = $1; next }
    { size[$1] = $2; n[$1]++
      key = ($3 in inode) ? inode[$3] : "?" $3
      if (!($3 in inode)) unknown++
      if (!(($1, key) in seen)) { seen[$1, key] = 1; u[$1]++ } }
    END { for (s in n) { listed += (n[s] - 1) * size[s]; once += (u[s] - 1) * size[s] }
          printf "%.0f %.0f %d\n", listed, once, unknown }' "$work/inodes.tsv" "$1"
}

# dedup reports what replacing the copies would free (its reclaimableBytes, counted in blocks where
# the file system tells them); by_size is the plain count, (units - 1) * size, where files sharing
# all their blocks form one unit, as the generator counts.
dedup_figures() {
  jq -r '[
      ([.groups[].reclaimableBytes] | add // 0),
      ([.groups[] | (.files[0].status.size) as $size
         | ([.files[] | if (.clones != null and .clones.privateSize == 0)
                        then "clone \(.status.device) \(.clones.cloneID)" else "file \(.path)" end]
            | unique | length) as $units
         | ($units - 1) * $size] | add // 0),
      (.filesSeen // 0), (.cancelled // false)
    ] | map(tostring) | join(" ")' "$1"
}

# ---- Results ----------------------------------------------------------------------------------------

rows=()   # "label|condition|secs|kib|dup bytes|dup bytes once per inode, or ref|files" per timed run
declare -A once_of=()
notes=()
dedup_ref=""
dedup_by_size=""

add_note() { [[ " ${notes[*]-} " == *" $1 "* ]] || notes+=("$1"); }

# A row for a command timed by the caller (secs, kib and status already set).
measure_row_only() {
  [ "$status" -eq 0 ] || add_note "$1 exited with status $status."
  rows+=("$1|$2|$secs|$kib|-|-|$candidates")
}

# One timed run of a tool under a condition; label tells the table row apart.
measure() {
  local tool="$1" condition="$2" label="$3" base="$4"
  set_command "$tool" "$base"
  [ "$condition" = warm ] || drop_caches
  sync
  say "$condition: $label"
  timed "$base"
  if [ "$tool" = dedup ]; then
    local reclaim by_size seen cancelled
    if ! read -r reclaim by_size seen cancelled < <(dedup_figures "$out" 2>/dev/null); then
      rows+=("$label|$condition|$secs|$kib|failed (exit $status)|-|-")
      sed 's/^/    /' "$base.stderr" | tail -n 5 >&2
      return 0
    fi
    [ "$cancelled" = false ] || add_note "dedup reported its scan as cancelled."
    [ "$status" -eq 0 ] || add_note "dedup exited with status $status although its output was complete."
    if [ -z "$dedup_ref" ]; then
      # The first complete dedup scan is what every other figure is held against, its later
      # scans included: a second scan must find what the first found.
      dedup_ref="$reclaim"
      dedup_by_size="$by_size"
      rows+=("$label|$condition|$secs|$kib|$reclaim|ref|$seen")
    else
      rows+=("$label|$condition|$secs|$kib|$reclaim|$reclaim|$seen")
    fi
    return 0
  fi
  if [ "$tool" = listing ] || [ "$tool" = duperemove ] || [ "$tool" = reading ]; then
    [ "$status" -eq 0 ] || add_note "$label exited with status $status."
    rows+=("$label|$condition|$secs|$kib|-|-|$candidates")
    return 0
  fi
  # An empty list is a valid answer from jdupes and fdupes; rmlint and rdfind always write a file.
  if [ "$status" -ne 0 ] || [ ! -f "$out" ]; then
    rows+=("$label|$condition|$secs|$kib|failed (exit $status)|-|-")
    sed 's/^/    /' "$base.stderr" | tail -n 5 >&2
    return 0
  fi
  to_sets "$tool" "$out" >"$base.sets"
  local listed once unknown
  read -r listed once unknown < <(figures "$base.sets")
  [ "$unknown" -eq 0 ] || add_note "$tool listed $unknown paths that are not in the tree; its per-inode figure is unreliable."
  rows+=("$label|$condition|$secs|$kib|$listed|$once|$candidates")
}

# The home shape's folder that a program rewrote: every file saved anew under its name (a new
# inode, new times, the same bytes), as editors and build tools save. The bytes stay, so every
# expected figure stays; cp --reflink=never, or Btrfs would share the blocks behind our back.
readonly rewritten="$tree/Projects/build cache"
rewrite_folder() {
  local f
  for f in "$rewritten"/*; do
    cp --reflink=never --preserve=mode "$f" "$f.rewritten" && mv -f "$f.rewritten" "$f"
  done
  sync
}

run_condition() {
  local condition="$1" t
  for t in "${tool_list[@]}"; do
    if [ "$condition" = warm ] && [ "$t" = duperemove ]; then
      hashfile="$work/duperemove.warmup.hash"
    fi
    if [ "$condition" = warm ]; then
      # The untimed run brings the tree into the page cache; for dedup it gets a digest database
      # of its own, so the timed run that follows is still a first scan.
      set_command "$t" "$work/$t.warmup"
      say "warm: $t (untimed run to fill the page cache)"
      if [ "$t" = dedup ]; then
        DEDUP_DATA_DIR="$(mktemp -d "$work/data.XXXXXX")"
        export DEDUP_DATA_DIR
      fi
      timed "$work/$t.warmup"
      unset DEDUP_DATA_DIR
    fi
    if [ "$t" = dedup ]; then
      DEDUP_DATA_DIR="$(mktemp -d "$work/data.XXXXXX")"
      export DEDUP_DATA_DIR
      measure dedup "$condition" dedup "$work/dedup.$condition.1"
      measure dedup "$condition" "dedup, 2nd scan" "$work/dedup.$condition.2"
      if [ "$has_full_check" -eq 1 ]; then
        measure dedup "$condition" "dedup, full check" "$work/dedup.$condition.full"
      fi
      if [ "$shape" = home ] && [ -d "$rewritten" ]; then
        say "$condition: rewriting $(find "$rewritten" -type f | wc -l) files in $rewritten"
        rewrite_folder
        measure dedup "$condition" "dedup, after change" "$work/dedup.$condition.3"
        # What the scan after the change could not help reading: the rewritten files themselves.
        cmd=(find "$rewritten" -type f -exec cat {} +)
        out="$work/reading.$condition.out"
        [ "$condition" = warm ] || drop_caches
        say "$condition: reading the rewritten files"
        timed "$work/reading.$condition"
        measure_row_only "reading the change" "$condition"
      fi
      unset DEDUP_DATA_DIR
    elif [ "$t" = duperemove ]; then
      hashfile="$work/duperemove.$condition.hash"
      measure duperemove "$condition" duperemove "$work/duperemove.$condition.1"
      measure duperemove "$condition" "duperemove, rescan" "$work/duperemove.$condition.2"
    else
      measure "$t" "$condition" "$t" "$work/$t.$condition"
    fi
  done
}

hashfile=""
has_full_check=0
if wants dedup && "$dedup" scan --help 2>/dev/null | grep -q -- --full-check; then has_full_check=1; fi

sync
run_condition warm
if [ "$can_drop" -eq 1 ]; then
  run_condition cold
else
  add_note "No cold-cache runs: dropping the page cache needs root (echo 3 > /proc/sys/vm/drop_caches)."
fi

# ---- The table --------------------------------------------------------------------------------------

versions() {
  local t
  for t in "${tool_list[@]}"; do
    case "$t" in
      dedup) printf '%s; ' "dedup ($dedup)" ;;
      jdupes) printf '%s; ' "$(jdupes -v 2>&1 | head -n 1)" ;;
      fdupes) printf '%s; ' "$(fdupes --version 2>&1 | head -n 1)" ;;
      rdfind) printf '%s; ' "$(rdfind --version 2>&1 | head -n 1 | sed 's/^This is //; s/ version / /')" ;;
      rmlint) printf 'rmlint %s; ' "$(rmlint --version 2>&1 | head -n 1 | sed 's/\x1b\[[0-9;]*m//g; s/^version //; s/ compiled.*//')" ;;
    esac
  done
}

reference="$expected"
reference_name="expected"
if [ -n "$dedup_ref" ]; then
  reference="$dedup_ref"
  reference_name="dedup"
  if [ "$dedup_ref" != "$expected" ]; then
    if [ "$dedup_by_size" = "$expected" ]; then
      add_note "dedup's figure counts freed blocks ($dedup_ref); by file size its groups hold $dedup_by_size, the expected figure."
    else
      add_note "dedup found $dedup_ref duplicate bytes ($dedup_by_size by file size) where $expected were expected."
    fi
  fi
fi

# dedup's first-scan seconds per cache condition, whatever the order of --tools.
declare -A dedup_secs=()
for row in "${rows[@]}"; do
  IFS='|' read -r tool condition secs _ <<<"$row"
  [ "$tool" != dedup ] || dedup_secs[$condition]="$secs"
done

ratio_of() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }'; }

# How a tool's figure compares with the reference, and why when it differs for a known reason.
match_of() {
  local dup="$1" once="$2" by_size="${dedup_by_size:-none}"
  [ "$reference_name" = dedup ] || by_size=none
  if [ "$once" = ref ]; then echo "(reference)"
  elif [ "$dup" = "$reference" ]; then echo "yes"
  elif [ "$dup" = "$by_size" ]; then echo "yes, by size"
  elif [ "$once" = "$reference" ]; then echo "yes, per inode"
  elif [ "$once" = "$by_size" ]; then echo "yes, per inode, by size"
  elif [ "$expected_apart" != "$expected" ] && [ "$dup" = "$expected_apart" ]; then echo "no: clones"
  else echo "no ($((dup - reference)))"
  fi
}

report() {
  local row tool condition secs kib dup once files ratio mib per_file match
  echo "Tree: $tree ($fs_type), scale $scale: $(summary_value "regular file names") names," \
    "$candidates files a scan takes, $(summary_value bytes) bytes"
  echo "Expected duplicate bytes (from the generator): $expected"
  [ "$expected_apart" = "$expected" ] || echo "  with clones counted as copies, as the peers count them: $expected_apart"
  echo "Machine: $(nproc) cores, kernel $(uname -r). Tools: $(versions | sed 's/; $//')"
  echo
  printf '%-26s %-5s %8s %8s %8s %7s %14s  %s\n' tool cache seconds "vs dedup" "peak MiB" "B/file" "dup bytes" "= $reference_name"
  for row in "${rows[@]}"; do
    IFS='|' read -r tool condition secs kib dup once files <<<"$row"
    mib="$(awk -v k="$kib" 'BEGIN { printf "%.1f", k / 1024 }')"
    per_file="-"
    [[ ! "$files" =~ ^[1-9][0-9]*$ ]] || per_file="$(awk -v k="$kib" -v f="$files" 'BEGIN { printf "%.0f", k * 1024 / f }')"
    ratio="-"
    case "$tool" in
      "dedup, 2nd scan"|"dedup, after change"|"dedup, full check") ratio="$(ratio_of "$secs" "${dedup_secs[$condition]:-0}")" ;;
      *) [ -z "${dedup_secs[$condition]:-}" ] || ratio="$(ratio_of "$secs" "${dedup_secs[$condition]}")" ;;
    esac
    match="-"
    if [[ "$dup" =~ ^[0-9]+$ ]]; then
      match="$(match_of "$dup" "$once")"
      case "$match" in
        "yes, per inode"*) add_note "$tool lists hard links of a file beside its real copies (each name counted: $dup); counting each inode once gives $once." ;;
        "no: clones") add_note "$tool counts files that already share all their blocks as copies (the expected figure counted that way is $expected_apart)." ;;
      esac
    fi
    once_of["$tool/$condition"]="$once"
    printf '%-26s %-5s %8s %8s %8s %7s %14s  %s\n' "$tool" "$condition" "$secs" "$ratio" "$mib" "$per_file" "$dup" "$match"
  done
  echo
  echo "vs dedup: seconds divided by dedup's first scan under the same cache; for dedup's 2nd scan, by its 1st."
  echo "B/file: peak resident memory divided by the files a scan takes (dedup's own count for dedup)."
  echo "= $reference_name: yes: equal; per inode: equal once the names of one hard-linked file count once;"
  if [ "$reference_name" = dedup ]; then
    echo "  by size: equal to dedup's groups counted by file size rather than in freed blocks;"
  fi
  echo "  no: clones: counts files that share all their blocks as copies; no (D): off by D bytes."
  if wants dedup || wants rmlint; then
    echo "dedup reads with one thread per core (two for 64 KiB prefixes) unless its disk really spins;" \
      "rmlint hashes on several threads by default; jdupes, fdupes and rdfind read with one."
  fi
  if wants jdupes || wants fdupes; then
    echo "jdupes and fdupes compare candidates byte for byte after hashing; dedup compares the copies of a" \
      "file above 64 KiB byte for byte as it digests them and trusts the digest below; rmlint and rdfind trust the digest."
  fi
  [ "${#notes[@]}" -eq 0 ] || printf 'Note: %s\n' "${notes[@]}"
  [ "$shape" != home ] || goals
}

# The speed goals, each as measured in this run: the ratio, the limit, and whether it holds.
goals() {
  local row tool condition secs kib dup once files
  declare -A t=() mem=() seen=() dupof=()
  for row in "${rows[@]}"; do
    IFS='|' read -r tool condition secs kib dup once files <<<"$row"
    t["$tool/$condition"]="$secs"
    mem["$tool/$condition"]="$kib"
    seen["$tool/$condition"]="$files"
    dupof["$tool/$condition"]="$dup"
  done
  goal() {  # goal TEXT MEASURED REFERENCE LIMIT
    local text="$1" a="$2" b="$3" limit="$4"
    if [[ ! "$a" =~ ^[0-9.]+$ ]] || [[ ! "$b" =~ ^[0-9.]+$ ]]; then
      printf '  %-62s %7s  (not measured)\n' "$text" "-"
      return
    fi
    awk -v text="$text" -v a="$a" -v b="$b" -v limit="$limit" 'BEGIN {
      r = b > 0 ? a / b : 0
      printf "  %-62s %7.2f  limit %.2f  %s\n", text, r, limit, (r <= limit ? "holds" : "NOT MET") }'
  }
  fastest() {  # the fastest peer's first run under a condition
    local c="$1" best="" p v
    for p in jdupes rdfind duperemove rmlint fdupes; do
      v="${t[$p/$c]:-}"
      [[ "$v" =~ ^[0-9.]+$ ]] || continue
      if [ -z "$best" ] || awk -v a="$v" -v b="$best" 'BEGIN { exit !(a < b) }'; then best="$v"; fi
    done
    echo "$best"
  }
  echo
  echo "Goals (ratio = dedup's seconds / the other's):"
  local c
  for c in warm cold; do
    [ -n "${t[dedup/$c]:-}" ] || continue
    goal "2nd scan vs duperemove's rescan, $c" "${t[dedup, 2nd scan/$c]:-}" "${t[duperemove, rescan/$c]:-}" 0.5
    goal "2nd scan vs listing the tree, $c" "${t[dedup, 2nd scan/$c]:-}" "${t[listing/$c]:-}" 2
    local after="${t[dedup, after change/$c]:-}" second="${t[dedup, 2nd scan/$c]:-}" reading="${t[reading the change/$c]:-}"
    local budget=""
    [[ ! "$second" =~ ^[0-9.]+$ && ! "$reading" =~ ^[0-9.]+$ ]] || budget="$(awk -v a="$second" -v b="$reading" 'BEGIN { print a + b }')"
    goal "after a change vs 2nd scan + reading the change, $c" "$after" "$budget" 1
  done
  goal "first scan vs jdupes -r, warm" "${t[dedup/warm]:-}" "${t[jdupes/warm]:-}" 0.5
  goal "first scan vs the fastest peer, cold" "${t[dedup/cold]:-}" "$(fastest cold)" 0.6
  local k="${mem[dedup/warm]:-}" f="${seen[dedup/warm]:-}"
  if [[ "$k" =~ ^[0-9]+$ ]] && [[ "$f" =~ ^[1-9][0-9]*$ ]]; then
    awk -v k="$k" -v f="$f" 'BEGIN { b = k * 1024 / f
      printf "  %-62s %7.0f  limit 800   %s\n", "peak memory per file, bytes (first scan, warm)", b, (b < 800 ? "holds" : "NOT MET") }'
  fi
  local p d
  for p in jdupes rdfind; do
    d="${dupof[$p/warm]:-}"
    [ -n "$d" ] || continue
    printf '  %-62s %s\n' "same duplicate bytes as $p" "$(match_of "$d" "${once_of[$p/warm]:-$d}")"
  done
}

report | tee "$dir/last-results.txt"
say "results also in $dir/last-results.txt"
