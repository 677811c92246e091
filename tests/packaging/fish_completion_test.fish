#!/usr/bin/env fish
# The fish completion as fish runs it: `complete -C` says what fish would offer on a line.
#   fish_completion_test.fish COMPLETION_FILE
source $argv[1]
set -g failures 0

# check "what it proves" LINE +OFFERED -NOT_OFFERED...
function check
    set -l what $argv[1]
    set -l line $argv[2]
    set -l offered (complete -C"$line" | string replace -r '\t.*' '')
    for want in $argv[3..-1]
        set -l word (string sub -s 2 -- $want)
        set -l wanted 0
        string match -q -- '+*' $want; and set wanted 1
        set -l found 0
        contains -- $word $offered; and set found 1
        if test $wanted != $found
            echo "FAIL: $what: '$line' expected $want; offered: $offered"
            set failures (math $failures + 1)
        end
    end
end

set -l scratch (mktemp -d)
mkdir "$scratch/Pictures 2024" "$scratch/journal"
cd $scratch

check "every command at the start" "dedup " +scan +reclaim +journal +true-size +backup-disk +across
check "no files where dedup takes none" "dedup " -journal/
check "the options of dedup itself" "dedup --v" +--version
check "the options of the command typed" "dedup reclaim --d" +--dry-run
check "no other command's options" "dedup reclaim --" ---depth
check "the commands below a command" "dedup journal " +verify +recover +restore -scan
check "the options of a command two deep" "dedup journal verify -" +--json
check "an option's accepted values" "dedup reclaim --strategy " +auto +in-place +clone -journal/
check "an argument's accepted values" "dedup backup-disk " +add +remove +list
check "an argument's values only in its place" "dedup backup-disk add " -add -remove +journal/
check "no file names where only values go" "dedup backup-disk " -journal/
check "folder names for a command's folders" "dedup scan Pic" "+Pictures 2024/"
check "file names for an option's value" "dedup scan --csv jo" +journal/
check "a folder argument is no command" "dedup scan journal " -verify

cd /
rm -rf $scratch
test $failures = 0; and echo "fish completes every command, option and value checked"
exit (test $failures = 0; and echo 0; or echo 1)
