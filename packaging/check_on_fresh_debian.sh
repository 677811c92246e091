#!/usr/bin/env bash
# Installs a built package on a fresh, minimal Debian 12 made with debootstrap, as a user would
# (`apt install ./file.deb`), and runs both programs there: proof that Depends pulls in everything.
# Needs root, debootstrap and the Debian archive; takes a few minutes, so it is not part of ./test.sh.
#   packaging/check_on_fresh_debian.sh build/velmora-dedup_<version>_amd64.deb
set -euo pipefail
deb=$(realpath "$1")
[[ $(id -u) == 0 ]] || { echo "run as root: debootstrap and chroot need it" >&2; exit 2; }
command -v debootstrap >/dev/null || { echo "apt-get install debootstrap first" >&2; exit 2; }
version=$(dpkg-deb -f "$deb" Version)

root=$(mktemp -d /tmp/fresh-debian.XXXXXX)
chmod 755 "$root"  # apt in there downloads as its own user, who must reach its lists
cleanup() {
    # Whatever still runs inside the scratch system ends before it is removed.
    local pid
    for pid in /proc/[0-9]*; do
        [[ $(readlink "$pid/root" 2>/dev/null) == "$root"* ]] && kill "${pid#/proc/}" 2>/dev/null
    done
    sleep 1
    awk -v root="$root" 'index($2, root) == 1 {print $2}' /proc/mounts | sort -r | xargs -r -n1 umount
    rm -rf "$root"
}
trap cleanup EXIT

echo "Making a minimal Debian 12 in $root..."
debootstrap --variant=minbase bookworm "$root" http://deb.debian.org/debian >"$root.log" 2>&1 ||
    { tail -20 "$root.log"; echo "debootstrap failed; its log is $root.log" >&2; exit 1; }
rm -f "$root.log"
cp /etc/resolv.conf "$root/etc/resolv.conf"
cp "$deb" "$root/tmp/"

chroot "$root" /bin/bash -euo pipefail -c "
    export DEBIAN_FRONTEND=noninteractive HOME=/root
    apt-get update -qq
    apt-get install -y -qq ./tmp/$(basename "$deb") >/dev/null
    test \"\$(dedup --version)\" = 'dedup $version'
    test \"\$(env -u DISPLAY velmora-dedup --version)\" = 'VELMORA.dedup $version'
    mkdir -p /tmp/photos && head -c 200000 /dev/urandom >/tmp/photos/a.jpg && cp /tmp/photos/a.jpg /tmp/photos/b.jpg
    dedup scan /tmp/photos | tail -1
    # The window on a real X server: the display plugin and the rest come from Depends alone.
    apt-get install -y -qq --no-install-recommends xvfb xauth >/dev/null
    set +e
    timeout 10 xvfb-run -a velmora-dedup
    status=\$?
    set -e
    test \$status = 124 || { echo \"velmora-dedup ended with \$status instead of showing its window\"; exit 1; }
"
echo "velmora-dedup $version installs and runs on a fresh Debian 12"
