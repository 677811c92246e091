#!/usr/bin/env bash
# Gives back the space of the duplicates in one generated tree with `dedup reclaim` and with other
# tools that share blocks (duperemove, jdupes -B), in one run, on Btrfs and on XFS, and checks what
# each one kept: the bytes of every file, and every metadata field a user could miss.
#
#   sudo bench/reclaim_compare.sh [--shape home|mixed] [--scale N] [--dir DIR] [--fs "btrfs xfs"]
#                                 [--tools "LIST"] [--min-size BYTES] [--holders N]
#
# Every tool gets a volume of its own, formatted afresh, holding the same tree copied in with
# `cp -a --reflink=never` (so no two files share a block at the start). While the tools run,
# several hundred other processes hold files open, as on a desktop: a reclaim that reads the list
# of every process's open files pays for each of them. Around the timed run:
#   sync, used bytes (df), a checksum of every file and a record of its metadata;
#   the page cache dropped, so every tool starts from the same cold cache;
#   the tool, under /usr/bin/time;
#   sync, used bytes again, checksums and metadata again, compared field by field.
# Root is needed: the volumes are loop-mounted images, the caches are dropped, and the tree is
# given owners other than root.
set -euo pipefail

readonly all_tools="dedup dedup-clone duperemove jdupes"
readonly default_tools="dedup dedup-clone jdupes"
# The goal: a reclaim takes at most this share of jdupes -rB's time on the same tree.
readonly goal_ratio=0.5
readonly all_fs="btrfs xfs"
# Bump when the metadata given to the tree (decorate below) changes, so an old tree is not reused.
readonly decoration_version=1
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
# shellcheck source=common.sh
. "$here/common.sh"
repo="$(dirname "$here")"

usage() {
  cat <<EOF
usage: sudo bench/reclaim_compare.sh [--shape S] [--scale N] [--dir DIR] [--fs "LIST"] [--tools "LIST"]
                                    [--min-size BYTES] [--holders N]
  --shape S         home: a home folder (default; scale 1 is ~100,000 files and ~4.6 GB, mostly
                    small); mixed: edge cases, photos and links (scale 1 is ~60,000 files, ~2.7 GB)
  --scale N         size of the generated tree (default 0.25: ~25,000 files, ~1.1 GB of the home
                    shape, a few minutes per tool on two cores)
  --dir DIR         where the tree, the volumes and the results go; not on tmpfs
                    (default /var/tmp/dedup-reclaim-bench)
  --fs LIST         file systems to run on, out of: $all_fs (default: both)
  --tools LIST      out of: $all_tools (default: $default_tools)
                    dedup-clone is dedup reclaim --strategy clone
  --min-size BYTES  smallest file dedup looks at (default 1, as the peers: every non-empty file)
  --holders N       other processes holding files open while the tools run (default 400, 32
                    files each; 0 for none)
Needs build/dedup and build/bench/make_dataset: run ./setup.sh first.
EOF
}

die() { echo "reclaim_compare.sh: $*" >&2; exit 1; }
say() { echo "reclaim_compare.sh: $*" >&2; }

shape=home
scale=0.25
dir=/var/tmp/dedup-reclaim-bench
fs_list="$all_fs"
tools="$default_tools"
min_size=1
holders=400
while [ $# -gt 0 ]; do
  case "$1" in
    --shape) [ $# -ge 2 ] || die "--shape needs home or mixed"; shape="$2"; shift 2 ;;
    --shape=*) shape="${1#*=}"; shift ;;
    --holders) [ $# -ge 2 ] || die "--holders needs a value"; holders="$2"; shift 2 ;;
    --holders=*) holders="${1#*=}"; shift ;;
    --scale) [ $# -ge 2 ] || die "--scale needs a value"; scale="$2"; shift 2 ;;
    --scale=*) scale="${1#*=}"; shift ;;
    --dir) [ $# -ge 2 ] || die "--dir needs a value"; dir="$2"; shift 2 ;;
    --dir=*) dir="${1#*=}"; shift ;;
    --fs) [ $# -ge 2 ] || die "--fs needs a value"; fs_list="$2"; shift 2 ;;
    --fs=*) fs_list="${1#*=}"; shift ;;
    --tools) [ $# -ge 2 ] || die "--tools needs a value"; tools="$2"; shift 2 ;;
    --tools=*) tools="${1#*=}"; shift ;;
    --min-size) [ $# -ge 2 ] || die "--min-size needs a value"; min_size="$2"; shift 2 ;;
    --min-size=*) min_size="${1#*=}"; shift ;;
    -h|--help) usage; exit 0 ;;
    *) usage >&2; die "unknown argument: $1" ;;
  esac
done

[[ "$scale" =~ ^([0-9]+\.?[0-9]*|\.[0-9]+)$ ]] || die "--scale must be a positive number, not '$scale'"
scale="$(LC_ALL=C awk -v s="$scale" 'BEGIN { printf "%g", s }')"
[ "$scale" != 0 ] || die "--scale must be above 0"
[[ "$min_size" =~ ^[0-9]+$ ]] || die "--min-size must be a number of bytes"
[[ "$holders" =~ ^[0-9]+$ ]] || die "--holders must be a number of processes"
case "$shape" in home|mixed) ;; *) die "--shape is home or mixed, not '$shape'" ;; esac

read -r -a tool_list <<<"$tools"
[ ${#tool_list[@]} -gt 0 ] || die "--tools is empty"
for t in "${tool_list[@]}"; do
  [[ " $all_tools " == *" $t "* ]] || die "unknown tool '$t' (known: $all_tools)"
done
read -r -a fs_names <<<"$fs_list"
[ ${#fs_names[@]} -gt 0 ] || die "--fs is empty"
for f in "${fs_names[@]}"; do
  [[ " $all_fs " == *" $f "* ]] || die "unknown file system '$f' (known: $all_fs)"
done
wants() { [[ " ${tool_list[*]} " == *" $1 "* ]]; }

[ "$(id -u)" -eq 0 ] || die "run as root: the volumes are loop-mounted, the page cache is dropped and files are given other owners"

# ---- What must be there ----------------------------------------------------------------------------

make_dataset="${MAKE_DATASET:-$repo/build/bench/make_dataset}"
[ -x "$make_dataset" ] || die "$make_dataset is missing: run ./setup.sh first"
[ "$make_dataset" -nt "$here/make_dataset.cc" ] || die "$make_dataset is older than bench/make_dataset.cc: run cmake --build build"
dedup=""
if wants dedup || wants dedup-clone; then
  dedup="$(find_dedup)"
fi

# Package for each command the script calls beyond coreutils.
declare -A package_of=(
  [duperemove]=duperemove [jdupes]=jdupes [/usr/bin/time]=time [jq]=jq
  [getfattr]=attr [setfattr]=attr [getfacl]=acl [setfacl]=acl [lsattr]=e2fsprogs
  [mkfs.btrfs]=btrfs-progs [mkfs.xfs]=xfsprogs [losetup]=util-linux
)
missing=()
for c in "${!package_of[@]}"; do
  case "$c" in
    duperemove|jdupes) wants "$c" || continue ;;
    mkfs.btrfs) [[ " ${fs_names[*]} " == *" btrfs "* ]] || continue ;;
    mkfs.xfs) [[ " ${fs_names[*]} " == *" xfs "* ]] || continue ;;
  esac
  command -v "$c" >/dev/null || missing+=("${package_of[$c]}")
done
if [ ${#missing[@]} -gt 0 ]; then
  mapfile -t missing < <(printf '%s\n' "${missing[@]}" | sort -u)
  say "installing ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

existing="$dir"
until [ -d "$existing" ]; do existing="$(dirname "$existing")"; done
case "$(stat -f -c %T "$existing")" in
  tmpfs|ramfs) die "$dir is in memory (tmpfs); choose a folder on a disk with --dir" ;;
esac
mkdir -p "$dir"
dir="$(cd "$dir" && pwd -P)"

# ---- The tree --------------------------------------------------------------------------------------
# Generated once into DIR/tree and kept while the scale, the generator's source and the decorations
# are unchanged. It stays on DIR's own disk; only copies of it go onto the volumes.

tree="$dir/tree"
stamp="$dir/stamp"
summary="$dir/summary.txt"
want_stamp="shape=$shape scale=$scale generator=$(sha256sum "$here/make_dataset.cc" | cut -c1-16) decorations=$decoration_version"

# Gives a fifth of the files (every fifth name in byte order, so the same ones on every run) one of
# eight kinds of metadata a careless reclaim would lose: user extended attributes, an ACL, other
# owners, set-user-ID and set-group-ID bits, a read-only mode, old dates, or all of them at once.
# Photos, copies and hard-linked files are among them, since the pick ignores what a file is.
# Folders get an ACL of their own (with a default ACL), an attribute and old dates, set last so
# that nothing done to their files moves them again.
decorate() {
  local root="$1" i=0 kind path
  while IFS= read -r -d '' path; do
    if [ $((i % 5)) -eq 0 ]; then
      kind=$(((i / 5) % 8))
      case "$kind" in
        0) setfattr -n user.origin -v "camera $i" "$path"
           setfattr -n user.xdg.tags -v "holiday,family" "$path" ;;
        1) setfacl -m u:nobody:rw-,g:users:r-- "$path" ;;
        2) chown 1234:1234 "$path"; chmod 0640 "$path" ;;
        3) chown 1000:100 "$path"; chmod 04755 "$path" ;;
        4) chgrp 100 "$path"; chmod 02750 "$path" ;;
        5) chown 65534:65534 "$path"; chmod 0400 "$path" ;;
        6) touch -m -d '2001-02-03 04:05:06.123456789' "$path"
           touch -a -d '2002-03-04 05:06:07.987654321' "$path" ;;
        7) chown 1000:1000 "$path"; chmod 0600 "$path"
           setfattr -n user.comment -v "all at once $i" "$path"
           setfacl -m u:1234:r-- "$path"
           touch -d '1999-12-31 23:59:59.5' "$path" ;;
      esac
    fi
    i=$((i + 1))
  done < <(cd "$root" && find . -type f -print0 | LC_ALL=C sort -z | sed -z "s|^\.|$root|")
  i=0
  while IFS= read -r -d '' path; do
    if [ $((i % 7)) -eq 1 ]; then
      setfattr -n user.folder-note -v "folder $i" "$path"
      setfacl -m u:nobody:r-x -m d:u:nobody:r-x "$path"
      touch -d '2010-06-07 08:09:10.111111111' "$path"
    fi
    i=$((i + 1))
  done < <(cd "$root" && find . -mindepth 1 -type d -print0 | LC_ALL=C sort -rz | sed -z "s|^\.|$root|")
}

decorate_noisily() {
  say "giving a fifth of the files other owners, modes, attributes, ACLs and dates"
  decorate "$1"
}
ensure_tree "$dir" "$want_stamp" decorate_noisily --shape "$shape" --scale "$scale"
# The records below are lines of tab-separated fields ending in the path.
if find "$tree" \( -name $'*\n*' -o -name $'*\t*' -o -name '*\\*' \) -print -quit | grep -q .; then
  die "a name in $tree holds a tab, newline or backslash; the records cannot hold it"
fi

summary_value() { sed -n "s/^$1: //p" "$summary"; }
expected="$(summary_value "expected duplicate bytes")"
[ -n "$expected" ] || die "$summary does not hold the expected figures; remove $stamp and run again"
tree_bytes="$(du -sb "$tree" | cut -f1)"

# ---- Scratch space and clean-up ---------------------------------------------------------------------
# Everything a tool writes besides the tree (dedup's data folder and journal, duperemove's and
# jdupes' working files) stays on DIR's disk, outside the volume, so df counts the tree only.

work="$(mktemp -d "$dir/run.XXXXXX")"
# Moved to DIR/last-reclaim-details at the end, so that it always goes with the last report.
details="$work/details"
mkdir -p "$details"
mount_point="$work/mnt"
mkdir -p "$mount_point"
loop_device=""

detach() {
  if mountpoint -q "$mount_point"; then umount "$mount_point" 2>/dev/null || umount -l "$mount_point"; fi
  if [ -n "$loop_device" ]; then losetup -d "$loop_device" 2>/dev/null || true; loop_device=""; fi
}
# ---- Other programs holding files open ------------------------------------------------------------
# A desktop runs hundreds of processes with thousands of open files. Each holder is a `sleep` that
# inherits 32 descriptors on files of its own folder, outside the tree, so that no tool has a
# reason to leave a copy alone because of them; only a reclaim that reads every process's list
# of open files pays for them.
holder_pids=()
start_holders() {
  [ "$holders" -gt 0 ] || return 0
  local held="$work/held" i j fd
  mkdir -p "$held"
  for ((i = 0; i < 256; i++)); do echo "held $i" >"$held/f$i"; done
  for ((i = 0; i < holders; i++)); do
    (
      for ((j = 0; j < 32; j++)); do exec {fd}<"$held/f$(((i * 7 + j) % 256))"; done
      exec sleep infinity
    ) &
    holder_pids+=("$!")
  done
  say "$holders processes hold 32 files open each"
}
stop_holders() {
  local pid
  for pid in "${holder_pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${holder_pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  holder_pids=()
}
# Processes and open descriptors on the whole machine, for the report.
machine_load() {
  local processes=0 fds=0 p n
  for p in /proc/[0-9]*; do
    n="$(ls "$p/fd" 2>/dev/null | wc -l)" || n=0
    processes=$((processes + 1)); fds=$((fds + n))
  done
  echo "$processes processes with $fds open descriptors"
}

cleanup() {
  stop_holders
  detach
  rm -rf -- "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# A volume a little over twice the tree: room for the copy and for a clone strategy's temporary
# files, never less than 2 GiB (smaller Btrfs volumes mix data and metadata).
volume_bytes=$((tree_bytes * 2 + (1 << 30)))
[ "$volume_bytes" -ge $((2 << 30)) ] || volume_bytes=$((2 << 30))
# Whole MiB: a loop device ignores a last partial sector.
volume_bytes=$(((volume_bytes + (1 << 20) - 1) >> 20 << 20))

fresh_volume() {
  local fs="$1" image="$work/$1.img"
  detach
  rm -f -- "$image"
  truncate -s "$volume_bytes" "$image"
  loop_device="$(losetup --find --show "$image")"
  case "$fs" in
    btrfs) mkfs.btrfs -q -f "$loop_device" >/dev/null 2>&1 ;;
    xfs) mkfs.xfs -q -f -m reflink=1 "$loop_device" ;;
  esac
  mount "$loop_device" "$mount_point"
}

used_bytes() {
  sync
  [ "$1" != btrfs ] || btrfs filesystem sync "$mount_point" >/dev/null
  df --output=used -B1 "$mount_point" | tail -n 1 | tr -d ' '
}

drop_caches() { sync; echo 3 >/proc/sys/vm/drop_caches; }

# ---- The record of a tree ---------------------------------------------------------------------------
# One line per fact: "field<TAB>path<TAB>value", from the usual tools rather than from our own
# code. Paths are relative to the tree; "." is the tree's own folder.
#   type, inode, links, mode (with set-ID and sticky bits), uid, gid, size, atime, mtime, ctime,
#   btime (birth, from statx; 0 where the file system has none), with nanoseconds: stat;
#   xattrs: every user, trusted and security attribute with its value (getfattr), except XFS's
#     own copies of the ACL (trusted.SGI_ACL_*), which are the next field;
#   acl: the entries of every access and default ACL beyond the mode (getfacl);
#   flags: the inode flags (lsattr) of files and folders;
#   target of a symbolic link (find) and content, the md5sum of every regular file.
# Reading a file, a link or a folder moves its atime under relatime whenever the atime is not newer
# than its mtime and ctime, which is the case for every copy a clone strategy has just made. So the
# reading of the record must never be what changes an atime: before the tool the tree is read
# first and stat comes after; after the tool, stat comes first, on the list of paths made before
# (a walk would read the folders before stat sees them), and the reading last.

stat_lines() {
  { xargs -0 -r stat --printf '%F\t%i\t%h\t%a\t%u\t%g\t%s\t%.9X\t%.9Y\t%.9Z\t%.9W\t%n\n' 2>/dev/null || true; } |
    awk -F '\t' 'BEGIN { split("type inode links mode uid gid size atime mtime ctime btime", name, " ") }
      { path = $12; if (path != ".") sub(/^\.\//, "", path)
        for (i = 1; i <= 11; i++) printf "%s\t%s\t%s\n", name[i], path, $i }'
}

# getfattr and getfacl print names with unusual bytes as \ooo.
readonly awk_unescape='function unescape(s,   out, c) {
    out = ""
    while (match(s, /\\[0-7][0-7][0-7]/)) {
      c = substr(s, RSTART + 1, 3)
      out = out substr(s, 1, RSTART - 1) sprintf("%c", substr(c, 1, 1) * 64 + substr(c, 2, 1) * 8 + substr(c, 3, 1))
      s = substr(s, RSTART + 4)
    }
    return out s
  }'

attribute_lines() {
  # -h reads a symbolic link's own attributes (a dangling link would fail otherwise). The exit
  # status of these tools is not trusted (1 for any file without attributes): only what they print.
  { getfattr -R -P -h -d -m '^(user|trusted|security)\.' -e hex . 2>/dev/null || true; } |
    awk "$awk_unescape"'
      function flush() { if (path != "") printf "xattrs\t%s\t%s\n", path, value; path = "" }
      /^# file: / { flush(); path = unescape(substr($0, 9)); sub(/^\.\//, "", path); value = ""; next }
      /^$/ { flush(); next }
      /^trusted\.SGI_ACL_/ { next }
      { value = value (value == "" ? "" : ",") $0 }
      END { flush() }'
  { getfacl -R -P -s . 2>/dev/null || true; } |
    awk "$awk_unescape"'
      function flush() { if (path != "") printf "acl\t%s\t%s\n", path, value; path = "" }
      /^# file: / { flush(); path = unescape(substr($0, 9)); sub(/^\.\//, "", path); value = ""; next }
      /^# / { next }   # owner, group and set-ID flags are in the stat fields
      /^$/ { flush(); next }
      { value = value (value == "" ? "" : ",") $0 }
      END { flush() }'
  find . \( -type f -o -type d \) -print0 | { xargs -0 -r lsattr -d 2>/dev/null || true; } |
    awk '{ flags = $1; path = substr($0, length($1) + 2); if (path != ".") sub(/^\.\//, "", path)
           printf "flags\t%s\t%s\n", path, flags }'
}

reading_lines() {
  find . -type l -printf 'target\t%P\t%l\n'
  find . -type f -print0 | { xargs -0 -r md5sum || true; } |
    awk '{ sum = $1; sub(/^\\/, "", sum); path = substr($0, index($0, "  ") + 2)
           sub(/^\.\//, "", path); printf "content\t%s\t%s\n", path, sum }'
}

# record ROOT OUT before|after: OUT gets the lines, OUT.paths the paths (NUL-separated). After the
# tool, BEFORE.paths (the third argument) is the list to stat first.
record() {
  local root="$1" out="$2" phase="$3" known="${4:-}"
  (
    cd "$root"
    if [ "$phase" = before ]; then
      reading_lines
      find . -print0 >"$out.paths"
      stat_lines <"$out.paths"
      attribute_lines
    else
      stat_lines <"$known"
      find . -print0 >"$out.paths"
      # Paths the tool made: stat'ed late, but their times are not compared with anything.
      comm -z -13 <(sort -z "$known") <(sort -z "$out.paths") | stat_lines
      attribute_lines
      reading_lines
    fi
  ) >"$out"
}

# Compares two records. Prints one line per field "field files folders" (entries whose value
# differs; a file that lost or gained its only ACL or attribute counts), then "missing N" and
# "new N" (paths in only one record). Up to five example paths per field go to $3.
readonly fields="content inode links type mode uid gid size atime mtime ctime btime xattrs acl flags target"
compare() {
  awk -F '\t' -v fields="$fields" -v examples="$3" '
    NR == FNR { before[$1, $2] = $3; if ($1 == "type") { kind[$2] = $3; paths[$2] = 1 } next }
    { after[$1, $2] = $3; if ($1 == "type") { seen[$2] = 1; if (!($2 in paths)) added++ } }
    END {
      n = split(fields, f, " ")
      for (p in paths) if (!(p in seen)) missing++
      for (i = 1; i <= n; i++) { files[f[i]] = 0; folders[f[i]] = 0 }
      for (p in paths) {
        if (!(p in seen)) continue
        for (i = 1; i <= n; i++) {
          k = f[i]
          b = ((k, p) in before) ? before[k, p] : ""
          a = ((k, p) in after) ? after[k, p] : ""
          if (a "" == b "") continue   # as strings: two times a few nanoseconds apart are equal as numbers
          if (kind[p] == "directory") folders[k]++; else files[k]++
          if (shown[k]++ < 5) printf "%s\t%s\t%s -> %s\n", k, p, b, a > examples
        }
      }
      for (i = 1; i <= n; i++) printf "%s %d %d\n", f[i], files[f[i]], folders[f[i]]
      printf "missing %d\nnew %d\n", missing, added
    }' "$1" "$2"
}

# What the tree holds that a tool could lose, counted on a fresh copy's record.
decoration_summary() {
  awk -F '\t' '
    $1 == "type" { kind[$2] = $3 }
    $1 == "xattrs" && $3 ~ /(^|,)user\./ { x[$2] = 1 }
    $1 == "acl" && $3 != "" { a[$2] = 1 }
    $1 == "mode" && length($3) == 4 && substr($3, 1, 1) != "0" { s[$2] = 1 }
    $1 == "uid" && $3 != "0" { o[$2] = 1 }
    $1 == "links" && $3 > 1 { h[$2] = 1 }
    END {
      for (p in kind) if (kind[p] ~ /regular/) {
        files++; xf += (p in x); af += (p in a); sf += (p in s); of += (p in o); hf += (p in h)
      }
      printf "%d files: %d with user attributes, %d with an ACL, %d set-user/group-ID, %d not owned by root, %d with more than one name\n", files, xf, af, sf, of, hf
    }' "$1"
}

# The duplicate bytes in a record, by file size: over every set of identical non-empty files,
# (units - 1) x size, where the names of one inode are one unit; and the same counting only the
# units that dedup may replace when run by user UID: those the user owns that have one name
# (dedup leaves other users' files and hard-linked files alone, whoever runs it). The kept copy
# may be any unit, so a set frees min(units - 1, such units) x size.
duplicate_bytes() {
  awk -F '\t' -v uid="$2" '
    $1 == "content" { sum[$2] = $3 }
    $1 == "size" { size[$2] = $3 }
    $1 == "inode" { inode[$2] = $3 }
    $1 == "uid" { owner[$2] = $3 }
    $1 == "links" { links[$2] = $3 }
    END {
      for (p in sum) {
        if (size[p] == 0) continue
        key = sum[p] " " size[p]
        if (!((key, inode[p]) in unit)) {
          unit[key, inode[p]] = 1; units[key]++; bytes[key] = size[p]
          if (owner[p] == uid && links[p] == 1) own[key]++
        }
      }
      for (k in units) {
        all += (units[k] - 1) * bytes[k]
        n = own[k] + 0; if (n > units[k] - 1) n = units[k] - 1
        mine += n * bytes[k]
      }
      printf "%.0f %.0f\n", all, mine
    }' "$1"
}

# ---- Running one tool -------------------------------------------------------------------------------
#  - dedup: reclaim --min-size BYTES --json; the default strategy (auto: in place on Btrfs and XFS),
#    and dedup-clone with --strategy clone (a clone given the copy's metadata, then exchanged with
#    it). Its data folder (digest cache, journal) is new for every run, so nothing is cached.
#  - duperemove: -d submits the duplicate extents to the kernel, -r recurses, -q keeps it quiet.
#    No --hashfile: its hashes stay in memory, its default. Block size and dedupe options are its
#    defaults (128 KiB blocks).
#  - jdupes: -r recurses, -B dedupes with the kernel's FIDEDUPERANGE, -q no progress. Empty files
#    are left out, symlinks not followed and hard links of one file not matched (no -z, -s, -H).
# All of them are run from a scratch folder on DIR's disk.
set_command() {
  local tool="$1"
  case "$tool" in
    dedup) cmd=("$dedup" reclaim --min-size "$min_size" --json "$tree_on_volume") ;;
    dedup-clone) cmd=("$dedup" reclaim --strategy clone --min-size "$min_size" --json "$tree_on_volume") ;;
    duperemove) cmd=(duperemove -dr -q "$tree_on_volume") ;;
    jdupes) cmd=(jdupes -rBq "$tree_on_volume") ;;
  esac
}

label_of() {
  case "$1" in
    dedup-clone) echo "dedup (clone)" ;;
    *) echo "$1" ;;
  esac
}

declare -A own_bytes=()   # per file system: the duplicate bytes dedup's rules allow (duplicate_bytes)
rows=()    # "fs|label|secs|kib|freed|content changed|metadata summary|status"
notes=()
add_note() { notes+=("$1"); }

# Turns the compare output into the table's short form and the per-field lines for below it.
metadata_summary() {
  awk '$1 == "content" || $1 == "missing" || $1 == "new" { next }
       ($2 + $3) > 0 { s = s (s == "" ? "" : ", ") $1 " " $2 (($3 > 0) ? "+" $3 "d" : "") }
       END { print (s == "" ? "none" : s) }' "$1"
}

run_tool() {
  local fs="$1" tool="$2" base="$work/$1.$2" label secs kib status before after
  label="$(label_of "$tool")"
  say "$fs: $label: fresh volume, copying the tree"
  fresh_volume "$fs"
  tree_on_volume="$mount_point/tree"
  cp -a --reflink=never "$tree" "$tree_on_volume"
  sync
  record "$tree_on_volume" "$base.before" before
  if [ "$tool" = "${tool_list[0]}" ]; then
    echo "$fs: $(decoration_summary "$base.before")" >>"$work/decorations"
    local all mine
    read -r all mine < <(duplicate_bytes "$base.before" "$(id -u)")
    echo "$fs: $all duplicate bytes by size; $mine of them in copies root owns that have one name" >>"$work/decorations"
    own_bytes[$fs]="$mine"
  fi
  before="$(used_bytes "$fs")"
  set_command "$tool"
  local data="$work/data.$fs.$tool"
  mkdir -p "$data" "$work/cwd"
  drop_caches
  say "$fs: $label: running ${cmd[*]}"
  status=0
  (cd "$work/cwd" && DEDUP_DATA_DIR="$data" /usr/bin/time -f '%e %M' -o "$base.time" "${cmd[@]}" >"$base.stdout" 2>"$base.stderr") || status=$?
  secs="-" kib=0
  [ ! -s "$base.time" ] || read -r secs kib < <(tail -n 1 "$base.time") || true
  after="$(used_bytes "$fs")"
  record "$tree_on_volume" "$base.after" after "$base.before.paths"
  compare "$base.before" "$base.after" "$details/$fs.$tool.examples.tsv" >"$base.diff"
  cp "$base.diff" "$details/$fs.$tool.fields.txt"
  cp "$base.diff" "$work/diff.$fs.$tool"
  cp "$base.stdout" "$details/$fs.$tool.stdout"
  cp "$base.stderr" "$details/$fs.$tool.stderr"

  local content missing added meta
  content="$(awk '$1 == "content" { print $2 + $3 }' "$base.diff")"
  missing="$(awk '$1 == "missing" { print $2 }' "$base.diff")"
  added="$(awk '$1 == "new" { print $2 }' "$base.diff")"
  meta="$(metadata_summary "$base.diff")"
  [ "$missing" -eq 0 ] || add_note "$fs, $label: $missing paths of the tree are gone afterwards."
  [ "$added" -eq 0 ] || add_note "$fs, $label: $added paths appeared in the tree."
  rows+=("$fs|$label|$secs|$kib|$((before - after))|$content|$meta|$status")
  echo "$fs $label: $(awk '$1 == "missing" || $1 == "new" { printf "; %s %s", $1, $2; next }
                          { printf "%s%s %s/%s", (NR > 1 ? "; " : ""), $1, $2, $3 }' "$base.diff")" >>"$work/fields"

  case "$tool" in
    dedup|dedup-clone)
      # Exit 3 means some copies were left alone; why is in the JSON and in the journal.
      DEDUP_DATA_DIR="$data" "$dedup" journal --json >"$details/$fs.$tool.journal.json" 2>/dev/null || true
      local summary
      summary="$(jq -r '"replaced \(.replaced), says it freed \(.freedBytes) bytes"
          + ([.skipped // {} | to_entries[] | "\(.value | length) \(.key)"] | if length > 0 then "; left alone: " + join(", ") else "" end)
          + ([.failed // {} | to_entries[] | "\(.value | length) \(.key)"] | if length > 0 then "; failed: " + join(", ") else "" end)' \
          "$base.stdout" 2>/dev/null || echo "no JSON output (exit $status)")"
      add_note "$fs, $label: exit $status; $summary."
      ;;
    *)
      [ "$status" -eq 0 ] || add_note "$fs, $label: exited with status $status ($(tail -n 1 "$base.stderr"))."
      ;;
  esac
  detach
}

# ---- The run -----------------------------------------------------------------------------------------

start_holders
load_before="$(uptime)"
processes_during="$(machine_load)"
for fs in "${fs_names[@]}"; do
  for t in "${tool_list[@]}"; do run_tool "$fs" "$t"; done
done
load_after="$(uptime)"
stop_holders

# ---- The table --------------------------------------------------------------------------------------

versions() {
  local t
  for t in "${tool_list[@]}"; do
    case "$t" in
      dedup) printf '%s; ' "dedup ($dedup)" ;;
      duperemove) printf '%s; ' "$(duperemove --version 2>&1 | head -n 1)" ;;
      jdupes) printf '%s; ' "$(jdupes -v 2>&1 | head -n 1)" ;;
    esac
  done
}

human() { numfmt --to=iec-i --suffix=B --format='%.1f' -- "$1" 2>/dev/null || echo "$1"; }

report() {
  local fs row rfs label secs kib freed content meta status ref ratio mib pct own
  echo "Tree: $tree copied onto each volume, scale $scale: $(summary_value "regular file names") names," \
    "$(summary_value "files a scan takes") non-empty files, $(summary_value bytes) bytes"
  echo "Expected duplicate bytes (from the generator, by file size): $expected ($(human "$expected"))"
  echo "Machine: $(nproc) cores, kernel $(uname -r). Tools: $(versions | sed 's/; $//')"
  echo "While the tools ran: $processes_during (of them $holders holders started here)"
  echo "Load before: $load_before"
  echo "Load after:  $load_after"
  echo "Metadata given to the tree, as found on the copies:"
  sed 's/^/  /' "$work/decorations"
  for fs in "${fs_names[@]}"; do
    echo
    echo "== $fs =="
    printf '%-14s %8s %8s %8s %14s %7s %7s %8s  %s\n' tool seconds "vs dedup" "peak MiB" "freed (df)" "of exp." "of own" "content" "metadata changed (files, +Nd folders)"
    ref=""
    for row in "${rows[@]}"; do
      IFS='|' read -r rfs label secs _ <<<"$row"
      [ "$rfs" = "$fs" ] && [ "$label" = dedup ] && ref="$secs"
    done
    for row in "${rows[@]}"; do
      IFS='|' read -r rfs label secs kib freed content meta status <<<"$row"
      [ "$rfs" = "$fs" ] || continue
      ratio="-"
      [ -z "$ref" ] || ratio="$(awk -v a="$secs" -v b="$ref" 'BEGIN { if (b > 0 && a ~ /^[0-9.]+$/) printf "%.2f", a / b; else print "-" }')"
      mib="$(awk -v k="$kib" 'BEGIN { printf "%.1f", k / 1024 }')"
      pct="$(awk -v f="$freed" -v e="$expected" 'BEGIN { if (e > 0) printf "%.1f%%", 100 * f / e; else print "-" }')"
      own="$(awk -v f="$freed" -v e="${own_bytes[$fs]:-0}" 'BEGIN { if (e > 0) printf "%.1f%%", 100 * f / e; else print "-" }')"
      printf '%-14s %8s %8s %8s %14s %7s %7s %8s  %s\n' "$label" "$secs" "$ratio" "$mib" "$freed" "$pct" "$own" "$content" "$meta"
    done
  done
  echo
  echo "seconds: elapsed, from a dropped page cache. vs dedup: seconds divided by dedup's (default strategy) on that file system."
  echo "freed (df): used bytes before minus after, each read after sync. of exp.: that divided by the expected duplicate bytes;"
  echo "  of own: divided by the part of them in copies the running user owns that have one name, the only copies dedup replaces."
  echo "content: files whose checksum changed (must be 0). metadata: fields that differ afterwards, with the number"
  echo "  of files (and +Nd folders); fields: $fields."
  echo
  echo "Per field (files/folders changed; missing and new paths):"
  sed 's/^/  /' "$work/fields"
  [ "${#notes[@]}" -eq 0 ] || { echo; printf 'Note: %s\n' "${notes[@]}"; }
  goals
}

# One line per goal and file system, with the measured figure and whether it is met:
#   time: at most $goal_ratio x jdupes -rB's seconds on the same tree, for both strategies;
#   space: 100% of the duplicate bytes its rules allow it to free ("of own");
#   nothing but the blocks: no content and no metadata field changed. Clone and swap puts a new
#   file at the path, so its inode, birth time and ctime (and its folder's ctime) are expected to
#   change; any other field counts.
goals() {
  local fs tool row rfs label secs kib freed content meta status jd ratio verdict extra
  echo
  echo "Goals:"
  for fs in "${fs_names[@]}"; do
    jd=""
    for row in "${rows[@]}"; do
      IFS='|' read -r rfs label secs _ <<<"$row"
      [ "$rfs" = "$fs" ] && [ "$label" = jdupes ] && jd="$secs"
    done
    for tool in dedup dedup-clone; do
      wants "$tool" || continue
      for row in "${rows[@]}"; do
        IFS='|' read -r rfs label secs kib freed content meta status <<<"$row"
        [ "$rfs" = "$fs" ] && [ "$label" = "$(label_of "$tool")" ] || continue
        if [ -n "$jd" ]; then
          read -r ratio verdict < <(awk -v a="$secs" -v b="$jd" -v g="$goal_ratio" \
            'BEGIN { if (a ~ /^[0-9.]+$/ && b > 0) { r = a / b; printf "%.2f %s\n", r, (r <= g ? "met" : "NOT met") } else print "- unknown" }')
          printf '  %-6s %-14s time: %s s against jdupes -rB %s s = %s (goal at most %s): %s\n' \
            "$fs" "$label" "$secs" "$jd" "$ratio" "$goal_ratio" "$verdict"
        else
          printf '  %-6s %-14s time: %s s; jdupes not run, no ratio\n' "$fs" "$label" "$secs"
        fi
        awk -v f="$freed" -v e="${own_bytes[$fs]:-0}" -v fs="$fs" -v l="$label" 'BEGIN {
          if (e <= 0) { printf "  %-6s %-14s space: nothing to free\n", fs, l; exit }
          p = 100 * f / e; printf "  %-6s %-14s space: freed %.1f%% of what it may free (goal 100%%): %s\n", fs, l, p, (p >= 99.5 ? "met" : "NOT met") }'
        if [ "$tool" = dedup-clone ]; then
          extra="$(awk '$1 == "inode" || $1 == "btime" || $1 == "ctime" || $1 == "missing" || $1 == "new" { next }
                        ($2 + $3) > 0 { s = s (s == "" ? "" : ", ") $1 " " $2 (($3 > 0) ? "+" $3 "d" : "") }
                        END { print (s == "" ? "none" : s) }' "$work/diff.$fs.$tool")"
          printf '  %-6s %-14s kept: content changed in %s files; beyond inode, birth time and ctime: %s: %s\n' \
            "$fs" "$label" "$content" "$extra" "$([ "$content" = 0 ] && [ "$extra" = none ] && echo met || echo "NOT met")"
        else
          printf '  %-6s %-14s kept: content changed in %s files; metadata changed: %s: %s\n' \
            "$fs" "$label" "$content" "$meta" "$([ "$content" = 0 ] && [ "$meta" = none ] && echo met || echo "NOT met")"
        fi
      done
    done
  done
}

report | tee "$dir/last-reclaim-results.txt"
rm -rf -- "$dir/last-reclaim-details"
mv "$details" "$dir/last-reclaim-details"
say "results also in $dir/last-reclaim-results.txt; tool output, journals and example paths per changed field in $dir/last-reclaim-details"
