#!/usr/bin/env bash
# The file managers' folder menus run the action they are named after on the folder chosen, a
# name with spaces and all: each menu's command is run as its file manager would run it, with the
# application from the build on PATH. Usage: folder_menus_test.sh MENUS_DIR APP_DIR
set -euo pipefail
menus=$(realpath "$1")
export PATH="$(realpath "$2"):$PATH"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export DEDUP_DATA_DIR="$work/data"
folder="$work/My Docs"
mkdir -p "$folder"
head -c 200000 /dev/urandom >"$folder/a.pdf"
cp "$folder/a.pdf" "$folder/a copy.pdf"

failures=0
expect() {  # what ran, the action word, its output
    local want
    case $2 in
        find) want="200.0 kB can be reclaimed in 1 groups." ;;
        reclaim) want=" reclaimed; " ;;
        true-size) want="Deleting it frees " ;;
    esac
    if [[ "$3" != *"$want"* ]]; then
        echo "FAIL: $1 answered \"$3\", not \"$want\""
        failures=$((failures + 1))
    fi
}

# The action each menu entry's title promises.
declare -A titled=(["Find Identical Files"]=find ["Reclaim Identical Files"]=reclaim
                   ["What Deleting a Folder Frees"]=true-size)

# Dolphin's service menu and Nemo's actions: the Exec line with the folder for %F.
run_exec_lines() {
    local file=$1 line words action="" output
    count=0
    while IFS= read -r line; do
        if [[ $line == Name=* ]]; then action=${titled[${line#Name=}]:-}; fi
        [[ $line == Exec=* ]] || continue
        read -ra words <<<"${line#Exec=}"
        [[ ${words[-1]} == %F ]] || { echo "FAIL: $file: Exec does not end with %F"; failures=$((failures + 1)); }
        unset 'words[-1]'
        output=$("${words[@]}" "$folder" 2>&1) || true
        expect "$file" "$action" "$output"
        count=$((count + 1))
    done <"$file"
}
dolphin="$menus/velmora-dedup-folder-actions.desktop"
[ -x "$dolphin" ] || { echo "FAIL: Dolphin runs only executable service menus"; failures=$((failures + 1)); }
run_exec_lines "$dolphin"
[ "$count" = 3 ] || { echo "FAIL: Dolphin's menu lacks an action"; failures=$((failures + 1)); }
for action in find reclaim true-size; do
    run_exec_lines "$menus/nemo/velmora-dedup-$action.nemo_action"
    [ "$count" = 1 ] || { echo "FAIL: Nemo's $action action"; failures=$((failures + 1)); }
done

# Nautilus runs a script in the folder shown, with the chosen names as arguments.
for script in "Find Identical Files" "Reclaim Identical Files" "What Deleting a Folder Frees"; do
    output=$(cd "$work" && "$menus/nautilus/$script" "My Docs" 2>&1) || true
    expect "Nautilus script $script" "${titled[$script]}" "$output"
done

# Nothing chosen: the answer asks for a folder.
# (Only the answer's line: Qt 6.4's bus thread sometimes warns about its own types as it ends.)
output=$(cd "$work" && "$menus/nautilus/Find Identical Files" 2>&1 | head -n 1) || true
[ "$output" = "Choose a folder." ] || { echo "FAIL: without a folder: \"$output\""; failures=$((failures + 1)); }

[ "$failures" -eq 0 ] && echo "folder menus: every action ran on the folder chosen"
exit "$failures"
