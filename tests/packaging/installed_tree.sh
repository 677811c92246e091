# Checks shared by the install and the package tests; sourced. Each failed check adds to
# $failures and says what is wrong.
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# check_installed_tree ROOT PREFIX VERSION: the files were copied under ROOT (empty when installed
# in place) and will run from PREFIX.
check_installed_tree() {
    local root=$1 prefix=$2 version=$3
    local tree=$root$prefix
    local file
    for file in bin/dedup bin/velmora-dedup \
        share/applications/org.velmora.dedup.desktop \
        share/metainfo/org.velmora.dedup.metainfo.xml \
        share/icons/hicolor/scalable/apps/org.velmora.dedup.svg \
        share/icons/hicolor/48x48/apps/org.velmora.dedup.png \
        share/icons/hicolor/256x256/apps/org.velmora.dedup.png \
        share/man/man1/dedup.1.gz share/man/man1/velmora-dedup.1.gz \
        share/doc/velmora-dedup/copyright share/doc/velmora-dedup/changelog.gz \
        share/bash-completion/completions/dedup \
        share/zsh/vendor-completions/_dedup \
        share/fish/vendor_completions.d/dedup.fish \
        lib/systemd/user/dedup-auto.service \
        share/velmora-dedup/velmora-dedup-auto.desktop; do
        [[ -f $tree/$file ]] || fail "$file is not installed under $tree"
    done
    # Nothing may start for every user at login unasked.
    local everyone=$tree/etc/xdg/autostart
    [[ -n $root ]] && everyone="$everyone $root/etc/xdg/autostart"
    [[ -n $(find $everyone -name '*dedup*' 2>/dev/null) ]] && fail "an autostart entry is installed for every user"

    # Both programs print the version, and need no display for it.
    local said
    said=$(env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM "$tree/bin/dedup" --version 2>&1)
    [[ $said == "dedup $version" ]] || fail "dedup --version says '$said', not 'dedup $version'"
    said=$(env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM "$tree/bin/velmora-dedup" --version 2>&1)
    [[ $said == "VELMORA.dedup $version" ]] || fail "velmora-dedup --version says '$said', not 'VELMORA.dedup $version'"

    # The PNG icons are the sizes their folders say.
    local size
    for size in 16 48 256; do
        file "$tree/share/icons/hicolor/${size}x${size}/apps/org.velmora.dedup.png" | grep -q "$size x $size" ||
            fail "the ${size}x${size} icon is not $size pixels square"
    done

    # The desktop's own validators, on the files as installed.
    desktop-file-validate "$tree/share/applications/org.velmora.dedup.desktop" || fail "the desktop entry is not valid"
    desktop-file-validate "$tree/share/velmora-dedup/velmora-dedup-auto.desktop" || fail "the autostart entry is not valid"
    appstreamcli validate --no-net --pedantic "$tree/share/metainfo/org.velmora.dedup.metainfo.xml" >/dev/null ||
        fail "the metainfo is not valid"
    grep -q "<release version=\"$version\"" "$tree/share/metainfo/org.velmora.dedup.metainfo.xml" ||
        fail "the metainfo has no release $version"
    local newest
    newest=$(grep -o '<release version="[^"]*"' "$tree/share/metainfo/org.velmora.dedup.metainfo.xml" | head -1)
    [[ $newest == "<release version=\"$version\"" ]] || fail "the newest release in the metainfo is $newest, not $version"

    # The unit and the autostart entry start the dedup installed here. systemd reads a quoted
    # first word as the shell does; the desktop entry's Exec is read with its own escapes undone.
    local line
    line=$(grep '^ExecStart=' "$tree/lib/systemd/user/dedup-auto.service")
    eval "set -- ${line#ExecStart=}"
    [[ $1 == "$prefix/bin/dedup" && -x $root$1 ]] || fail "the unit starts '$1', not $prefix/bin/dedup"
    line=$(grep '^Exec=' "$tree/share/velmora-dedup/velmora-dedup-auto.desktop")
    line=${line#Exec=}
    line=${line//\\\\/\\}
    eval "set -- $line"
    [[ $1 == sh && $2 == -c ]] || fail "the autostart entry does not start with sh -c: $line"
    local started
    started=$(HOME=/home/someone bash -c 'exec() { printf "%s\n" "$@"; }; '"$3")
    [[ $started == "$prefix/bin/dedup"$'\n'auto$'\n'--backup-disks$'\n'/home/someone/Pictures ]] ||
        fail "the autostart entry would run: $started"
    [[ -x $root$prefix/bin/dedup ]] || fail "the autostart entry's dedup is not there"
}
