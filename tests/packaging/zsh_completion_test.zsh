#!/usr/bin/env zsh
# The zsh completion's own logic, with zsh's completion builtins replaced by stand-ins that
# record what would be offered (they only exist inside a completion widget).
#   zsh_completion_test.zsh COMPLETION_FILE
typeset -a offered words
integer CURRENT failures=0
PREFIX=""
_describe() { local name=${@[-1]} entry; for entry in "${(@P)name}"; do offered+=("${entry%%:*}"); done }
compadd() { [[ $1 == -a ]] && offered+=("${(@P)2}") }
_files() { offered+=("@files") }

words=(dedup "") CURRENT=2
source "$1"

complete_line() { words=("$@"); CURRENT=$#words; PREFIX=${words[-1]}; offered=(); _dedup }
# check "what it proves" WORD... :: +OFFERED -NOT_OFFERED...
check() {
  local what=$1; shift
  local -a line=()
  while [[ $1 != :: ]]; do line+=("$1"); shift; done
  shift
  complete_line "${line[@]}"
  local want
  for want in "$@"; do
    local word=${want:1} wrong=0
    if [[ $want == +* ]]; then
      (( ${offered[(Ie)$word]} )) || wrong=1
    else
      (( ${offered[(Ie)$word]} )) && wrong=1
    fi
    if (( wrong )); then
      print "FAIL: $what: '${line[*]}' expected $want; offered: ${offered[*]}"
      (( failures++ ))
    fi
  done
}

check "every command at the start" dedup "" :: +scan +reclaim +journal +true-size +backup-disk +across
check "no files where dedup takes none" dedup "" :: -@files
check "the options of dedup itself" dedup --v :: +--version
check "the options of the command typed" dedup reclaim --d :: +--dry-run +--strategy ---depth
check "the commands below a command" dedup journal "" :: +verify +recover +restore -scan
check "the options of a command two deep" dedup journal verify - :: +--json
check "an option's accepted values" dedup reclaim --strategy "" :: +auto +in-place +clone -@files
check "an argument's accepted values" dedup backup-disk "" :: +add +remove +list
check "file names for a command's folders" dedup scan "" :: +@files
check "file names for an option's value" dedup scan --csv "" :: +@files -journal
check "a folder argument is no command" dedup scan journal "" :: -verify +@files
check "an option's value is not taken for the argument" dedup trash --keep kept "" :: +@files

(( failures == 0 )) && print "zsh completes every command, option and value checked"
exit $(( failures == 0 ? 0 : 1 ))
