#!/usr/bin/env bash
# The bash completion as bash runs it: COMP_WORDS as typed, then what _dedup offers.
#   bash_completion_test.sh COMPLETION_FILE
set -uo pipefail
source "$1"
failures=0

# complete WORD... : sets COMPREPLY for the line, the cursor on the last word.
complete_line() {
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _dedup
}
# check "what it proves" WORD... :: +OFFERED -NOT_OFFERED...
check() {
    local what=$1; shift
    local line=()
    while [[ $1 != :: ]]; do line+=("$1"); shift; done
    shift
    complete_line "${line[@]}"
    local want offered
    for want in "$@"; do
        offered=0
        [[ " ${COMPREPLY[*]} " == *" ${want:1} "* ]] && offered=1
        if [[ ($want == +* && $offered == 0) || ($want == -* && $offered == 1) ]]; then
            echo "FAIL: $what: '${line[*]}' expected $want; offered: ${COMPREPLY[*]}"
            failures=$((failures + 1))
        fi
    done
}

check "every command at the start" dedup "" :: +scan +reclaim +journal +true-size +holders +show +auto +backup-disk +across +trash +exclude +include +exclusions
check "a command from its first letters" dedup jo :: +journal
check "only commands that start so" dedup jo :: -scan -reclaim
check "the options of dedup itself" dedup --v :: +--version
check "the options of the command typed" dedup reclaim --d :: +--dry-run
check "no other command's options" dedup reclaim -- :: ---depth ---folders
check "the commands below a command" dedup journal "" :: +verify +recover +restore
check "the options of a command two deep" dedup journal verify - :: +--json +--help
check "an option's accepted values" dedup reclaim --strategy "" :: +auto +in-place +clone
check "an option's value after =" dedup reclaim --strategy = cl :: +clone
check "an argument's accepted values" dedup backup-disk "" :: +add +remove +list
check "a folder argument is no command" dedup scan journal "" :: -verify -recover

# Folder arguments complete file names, and an option's value is not taken for a command.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/Pictures 2024" "$scratch/journal"
cd "$scratch" || exit 1
check "folder names for a command's folders" dedup scan Pic :: '+Pictures 2024'
check "file names for an option's value" dedup scan --csv jo :: +journal
check "options after an option's value" dedup scan --min-size 100 --j :: +--json
check "an option's value is not taken for the argument" dedup trash --keep kept jo :: +journal

((failures == 0)) && echo "bash completes every command, option and value checked"
exit $((failures == 0 ? 0 : 1))
