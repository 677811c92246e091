#!/usr/bin/env bash
# The dedup man page: groff and man read it without a warning, and it has a section for every
# command the program lists in its help (below the top level too) and every exit code.
#   man_page_test.sh MAN_PAGE DEDUP
set -uo pipefail
page=$1 dedup=$2
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

warnings=$(groff -man -ww -z "$page" 2>&1)
[[ -z $warnings ]] || fail "groff warns: $warnings"
warnings=$(man --warnings -l "$page" 2>&1 >/dev/null)
[[ -z $warnings ]] || fail "man warns: $warnings"
shown=$(MANWIDTH=100 man -l "$page" 2>/dev/null)

# The commands as the parser knows them, from each command's --help.
commands_of() {  # commands_of WORD...: the subcommands `dedup WORD... --help` lists
    "$dedup" "$@" --help | awk '/^Subcommands:/ {listing = 1; next} listing && /^  [a-z]/ {sub(/,$/, "", $1); print $1} listing && /^$/ {listing = 0}'
}
checked=0
while read -r command; do
    [[ -n $command ]] || continue
    grep -q "^\.SS \"$command\"$" "$page" || fail "no section for dedup $command"
    checked=$((checked + 1))
    while read -r sub; do
        [[ -n $sub ]] || continue
        grep -q "^\.SS \"$command $sub\"$" "$page" || fail "no section for dedup $command $sub"
        checked=$((checked + 1))
    done < <(commands_of "$command")
done < <(commands_of)
((checked >= 10)) || fail "only $checked commands found in dedup --help"

# Every option of a command, as --help lists it, is in its section (--help itself is said once).
for option in $("$dedup" reclaim --help | grep -o -- '--[a-z][a-z-]*' | grep -vx -- --help | sort -u); do
    awk '/^\.SS "reclaim"$/ {inside = 1; next} /^\.S[SH] / {inside = 0} inside' "$page" |
        grep -q -- "${option//-/\\\\-}" || fail "dedup reclaim's $option is not in its section"
done

exits=$(awk '/^\.SH "EXIT STATUS"/ {inside = 1; next} /^\.SH / {inside = 0} inside && /^\.B [0-9]+$/ {print $2}' "$page" | tr '\n' ' ')
[[ $exits == "0 1 2 3 130 " ]] || fail "EXIT STATUS lists '$exits', not 0 1 2 3 130"
[[ $shown == *"VELMORA.dedup $("$dedup" --version | cut -d' ' -f2)"* ]] || fail "the page does not show the version"

((failures == 0)) && echo "man page reads cleanly and covers $checked commands"
exit $((failures == 0 ? 0 : 1))
