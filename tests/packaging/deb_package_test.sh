#!/usr/bin/env bash
# The Debian package as CPack builds it from this tree: its control fields name the libraries the
# programs need at run time, and unpacked into a scratch root it holds every file, in place, and
# both programs run from there.
#   deb_package_test.sh BUILD_DIR VERSION
set -uo pipefail
build=$1 version=$2
source "$(dirname "$0")/installed_tree.sh"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

(cd "$scratch" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$scratch/out") >"$scratch/cpack.log" 2>&1 ||
    { cat "$scratch/cpack.log"; exit 1; }
shopt -s nullglob
debs=("$scratch"/out/velmora-dedup_*.deb)
((${#debs[@]} == 1)) || { echo "FAIL: cpack made ${#debs[@]} packages"; cat "$scratch/cpack.log"; exit 1; }
deb=${debs[0]}
echo "package: $(basename "$deb"), $(stat -c %s "$deb") bytes"

[[ $(dpkg-deb -f "$deb" Package) == velmora-dedup ]] || fail "the package is not named velmora-dedup"
[[ $(dpkg-deb -f "$deb" Version) == "$version" ]] || fail "the package's version is not $version"
[[ $(dpkg-deb -f "$deb" Architecture) == "$(dpkg --print-architecture)" ]] || fail "the package is not for this machine"
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
# What the two programs link, and the Qt plugins they load: without any of these they do not start.
for needed in libc6 libstdc++6 libsqlite3-0 libssl3 libbtrfsutil1 libacl1 libblkid1 libglib2.0-0 \
    libfmt9 libmimalloc2.0 libqt6core6 libqt6gui6 libqt6widgets6 libqt6dbus6 qt6-qpa-plugins libqt6svg6; do
    [[ ", $depends," == *", $needed "* || ", $depends," == *", $needed,"* ]] || fail "Depends does not name $needed"
done
# Build tools are never needed to run it.
for tool in btrfs-progs cmake libcli11-dev qt6-base-dev; do
    [[ ", $depends," == *", $tool"[\ ,]* ]] && fail "Depends names $tool"
done

dpkg-deb -c "$deb" | awk '{print $6}' | grep -v -e '^\./usr/' -e '^\./$' && fail "files outside /usr"
dpkg-deb -c "$deb" | awk '$2 != "root/root"' | grep . && fail "files not owned by root"

# Debian's own checks of a package: a copyright and changelog, compressed man pages, description.
lintian --fail-on error,warning --tag-display-limit 0 "$deb" >"$scratch/lintian.log" 2>&1 ||
    fail "lintian: $(grep -v 'root privileges' "$scratch/lintian.log")"

dpkg-deb -x "$deb" "$scratch/root" || fail "the package does not unpack"
check_installed_tree "$scratch/root" /usr "$version"
# As a software centre reads it: the metainfo, the desktop entry it launches and the icon together.
appstreamcli validate-tree --no-net "$scratch/root" >"$scratch/tree.log" 2>&1 ||
    fail "the package's AppStream data does not hold together: $(cat "$scratch/tree.log")"
# Stripped: the debug information stays in the build, not in every user's /usr/bin.
file "$scratch/root/usr/bin/dedup" "$scratch/root/usr/bin/velmora-dedup" | grep -q 'not stripped' &&
    fail "the programs are not stripped"
# The page man shows, read from the package.
man --warnings -l "$scratch/root/usr/share/man/man1/dedup.1.gz" 2>"$scratch/man.err" | grep -q 'dedup reclaim' ||
    fail "man cannot show the packaged page"
[[ -s $scratch/man.err ]] && fail "man warns about the packaged page: $(cat "$scratch/man.err")"

((failures == 0)) && echo "package complete, its dependencies named, both programs run from it"
exit $((failures == 0 ? 0 : 1))
