#!/usr/bin/env bash
# Installs every package the project needs and builds it. Safe to run again.
set -euo pipefail
cd "$(dirname "$0")"

packages=(
  build-essential cmake ninja-build pkg-config
  libsqlite3-dev libssl-dev nlohmann-json3-dev libcli11-dev libfmt-dev libmimalloc-dev
  libacl1-dev libblkid-dev libbtrfsutil-dev libglib2.0-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  btrfs-progs xfsprogs e2fsprogs util-linux attr acl libcap2-bin
  qt6-base-dev qt6-base-dev-tools qt6-svg-dev qt6-qpa-plugins dbus xvfb desktop-file-utils appstream
  dpkg-dev lintian groff-base man-db librsvg2-bin zsh fish
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# ccache, where a developer has it, makes rebuilds in several work trees cheap; CI does without.
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}"
cmake --build build
