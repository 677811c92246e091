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
offers() {  # offers "what it proves" WORD... :: EXPECTED...
    local what=$1; shift
    local line=()
    while [[ $1 != :: ]]; do line+=("$1"); shift; done
    shift
    complete_line "${line[@]}"
    local expected
    for expected in "$@"; do
        if [[ " ${COMPREPLY[*]} " != *" $expected "* ]]; then
            echo "FAIL: $what: '${line[*]}' should offer '$expected'; offered: ${COMPREPLY[*]}"
            failures=$((failures + 1))
        fi
    done
}
offers_not() {
    local what=$1; shift
    local line=()
    while [[ $1 != :: ]]; do line+=("$1"); shift; done
    shift
    complete_line "${line[@]}"
    local unexpected
    for unexpected in "$@"; do
        if [[ " ${COMPREPLY[*]} " == *" $unexpected "* ]]; then
            echo "FAIL: $what: '${line[*]}' should not offer '$unexpected'; offered: ${COMPREPLY[*]}"
            failures=$((failures + 1))
        fi
    done
}

offers "every command at the start" dedup "" :: scan reclaim journal true-size holders show auto backup-disk across trash exclude include exclusions
offers "a command from its first letters" dedup jo :: journal
offers_not "only commands that start so" dedup jo :: scan reclaim
offers "the options of dedup itself" dedup --v :: --version
offers "the options of the command typed" dedup reclaim --d :: --dry-run
offers_not "no other command's options" dedup reclaim -- :: --depth --folders
offers "the commands below a command" dedup journal "" :: verify recover restore
offers "the options of a command two deep" dedup journal verify - :: --json --help
offers "an option's accepted values" dedup reclaim --strategy "" :: auto in-place clone
offers "an option's value after =" dedup reclaim --strategy = cl :: clone
offers "an argument's accepted values" dedup backup-disk "" :: add remove list
offers_not "a folder argument is no command" dedup scan journal "" :: verify recover

# Folder arguments complete file names, and an option's value is not taken for a command.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/Pictures 2024" "$scratch/journal"
cd "$scratch" || exit 1
offers "folder names for a command's folders" dedup scan Pic :: "Pictures 2024"
offers "file names for an option's value" dedup scan --csv jo :: journal
offers "options after an option's value" dedup scan --min-size 100 --j :: --json
offers "an option's value is not taken for the argument" dedup trash --keep kept jo :: journal

((failures == 0)) && echo "bash completes every command, option and value checked"
exit $((failures == 0 ? 0 : 1))
