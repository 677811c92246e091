#include "reference.h"

#include <sstream>
#include <stdexcept>

#include "exit_codes.h"

namespace dedup::cli {

namespace {

std::vector<std::string> splitChoices(const std::string& list) {
    std::vector<std::string> choices;
    std::stringstream stream(list);
    for (std::string choice; std::getline(stream, choice, ',');) {
        if (!choice.empty()) choices.push_back(choice);
    }
    return choices;
}

// CLI11 names a value "TEXT", "INT:INT in [1 - 256]" or "TEXT:{auto,in-place,clone}": the head is
// the value's kind, a braced tail the accepted values.
void readTypeName(const std::string& typeName, std::string& value, std::vector<std::string>& choices,
                  std::string& range) {
    value = typeName.substr(0, typeName.find(':'));
    // "[1 - 256]" reads "From 1 to 256"; a bound as large as the type's own says nothing.
    const auto from = typeName.find(" in [");
    const auto to = typeName.find(" - ", from);
    const auto end = typeName.find(']', to);
    if (from != std::string::npos && to != std::string::npos && end != std::string::npos) {
        const std::string low = typeName.substr(from + 5, to - from - 5);
        const std::string high = typeName.substr(to + 3, end - to - 3);
        range = high.size() > 12 ? "At least " + low : "From " + low + " to " + high;
    }
    const auto open = typeName.find('{');
    const auto close = typeName.find('}', open == std::string::npos ? 0 : open);
    if (open != std::string::npos && close != std::string::npos) {
        choices = splitChoices(typeName.substr(open + 1, close - open - 1));
    }
}

CommandEntry describe(const CLI::App& app, std::vector<std::string> path) {
    CommandEntry entry;
    entry.path = std::move(path);
    entry.description = app.get_description();
    // A second name is said where the first is described, so the page and the completions' hints
    // show it without a section of its own.
    for (const auto& alias : app.get_aliases()) entry.description += "; also called " + alias;
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_positional()) {
            ArgumentEntry argument;
            argument.name = option->get_name(true, false);
            std::string ignored, noRange;
            readTypeName(option->get_type_name(), ignored, argument.choices, noRange);
            argument.description = option->get_description();
            argument.required = option->get_required();
            argument.many = option->get_expected_max() > 1;
            entry.arguments.push_back(std::move(argument));
            continue;
        }
        OptionEntry named;
        for (const auto& name : option->get_lnames()) named.names.push_back("--" + name);
        for (const auto& name : option->get_snames()) named.names.push_back("-" + name);
        if (named.names.empty()) continue;
        if (option->get_type_size_max() > 0) {
            readTypeName(option->get_type_name(), named.value, named.choices, named.range);
        }
        named.fallback = option->get_default_str();
        named.description = option->get_description();
        entry.options.push_back(std::move(named));
    }
    for (const CLI::App* sub : app.get_subcommands({})) {
        auto subPath = entry.path;
        subPath.push_back(sub->get_name());
        entry.subcommands.push_back(describe(*sub, std::move(subPath)));
    }
    return entry;
}

template <typename Visit>
void forEachCommand(const CommandEntry& entry, const Visit& visit) {
    visit(entry);
    for (const auto& sub : entry.subcommands) forEachCommand(sub, visit);
}

std::string joined(const std::vector<std::string>& words, const std::string& separator = " ") {
    std::string text;
    for (const auto& word : words) text += (text.empty() ? "" : separator) + word;
    return text;
}

std::vector<std::string> valuedNames(const CommandEntry& command) {
    std::vector<std::string> names;
    for (const auto& option : command.options) {
        if (!option.value.empty()) names.insert(names.end(), option.names.begin(), option.names.end());
    }
    return names;
}

std::vector<std::string> optionNames(const CommandEntry& command) {
    std::vector<std::string> names;
    for (const auto& option : command.options) names.insert(names.end(), option.names.begin(), option.names.end());
    return names;
}

std::vector<std::string> subcommandNames(const CommandEntry& command) {
    std::vector<std::string> names;
    for (const auto& sub : command.subcommands) names.push_back(sub.path.back());
    return names;
}

// What the n-th word that is neither a command nor an option may be: "@files", or its choices.
std::vector<std::string> argumentWords(const ArgumentEntry& argument) {
    return argument.choices.empty() ? std::vector<std::string>{"@files"} : argument.choices;
}

// ---- roff ----

std::string roff(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\') {
            out += "\\e";
        } else if (c == '-') {
            out += "\\-";
        } else {
            out += c;
        }
    }
    // A line starting with . or ' would be read as a request.
    if (!out.empty() && (out.front() == '.' || out.front() == '\'')) out.insert(0, "\\&");
    return out;
}

std::string sentence(std::string text) {
    if (!text.empty() && text.back() != '.') text += '.';
    return text;
}

std::string optionHead(const OptionEntry& option) {
    std::string head;
    for (const auto& name : option.names) head += (head.empty() ? "" : ", ") + ("\\fB" + roff(name) + "\\fR");
    if (!option.choices.empty()) {
        head += " \\fI" + roff(joined(option.choices, "|")) + "\\fR";
    } else if (!option.value.empty()) {
        head += " \\fI" + roff(option.value) + "\\fR";
    }
    return head;
}

std::string optionsRoff(const std::vector<OptionEntry>& options, bool withHelp) {
    std::string out;
    for (const auto& option : options) {
        // Every command takes --help; the page says so once instead of under each command.
        if (!withHelp && option.names.front() == "--help") continue;
        out += ".TP\n" + optionHead(option) + "\n" + roff(sentence(option.description));
        if (!option.range.empty()) out += " " + roff(option.range) + ".";
        if (!option.fallback.empty()) out += " Default: " + roff(option.fallback) + ".";
        out += "\n";
    }
    return out;
}

std::string synopsis(const CommandEntry& command) {
    std::string line = "\\fBdedup " + roff(joined(command.path)) + "\\fR";
    if (!command.options.empty()) line += " [\\fIoptions\\fR]";
    for (const auto& argument : command.arguments) {
        std::string word = "\\fI" + roff(argument.name) + "\\fR" + (argument.many ? "..." : "");
        line += " " + (argument.required ? word : "[" + word + "]");
    }
    return line;
}

std::string commandsRoff(const CommandEntry& root) {
    std::string out;
    forEachCommand(root, [&out](const CommandEntry& command) {
        if (command.path.empty()) return;
        out += ".SS \"" + joined(command.path) + "\"\n" + synopsis(command) + "\n.PP\n" +
               roff(sentence(command.description)) + "\n";
        if (!command.subcommands.empty()) {
            out += "Its commands: " + roff(joined(subcommandNames(command), ", ")) + ".\n";
        }
        for (const auto& argument : command.arguments) {
            out += ".TP\n\\fI" + roff(argument.name) + "\\fR" + (argument.many ? "..." : "") + "\n" +
                   roff(sentence(argument.description));
            if (!argument.choices.empty()) out += " One of: " + roff(joined(argument.choices, ", ")) + ".";
            out += "\n";
        }
        out += optionsRoff(command.options, false);
    });
    return out;
}

// ---- shells ----

// A word list as one single-quoted shell word; every shell here reads '\'' as a quote.
std::string quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string heading(const std::string& shell) {
    return "# " + shell +
           " completion for dedup: its commands, their options and the values they accept.\n"
           "# Written at build time from the command's own definitions.\n\n";
}

std::string pathKey(const CommandEntry& command) { return joined(command.path); }

// The rows of the table every completion reads: (key, words). Keys are "<path>|commands",
// "<path>|options", "<path>|valued", "<path>|<option>" (its choices) and "<path>|argumentN".
std::vector<std::pair<std::string, std::vector<std::string>>> tableRows(const CommandEntry& root) {
    std::vector<std::pair<std::string, std::vector<std::string>>> rows;
    forEachCommand(root, [&rows](const CommandEntry& command) {
        const std::string key = pathKey(command);
        if (!command.subcommands.empty()) rows.push_back({key + "|commands", subcommandNames(command)});
        rows.push_back({key + "|options", optionNames(command)});
        if (auto valued = valuedNames(command); !valued.empty()) rows.push_back({key + "|valued", valued});
        for (const auto& option : command.options) {
            if (option.choices.empty()) continue;
            for (const auto& name : option.names) rows.push_back({key + "|" + name, option.choices});
        }
        for (std::size_t i = 0; i < command.arguments.size(); ++i) {
            const auto words = argumentWords(command.arguments[i]);
            rows.push_back({key + "|argument" + std::to_string(i), words});
            if (command.arguments[i].many) rows.push_back({key + "|argument-rest", words});
        }
    });
    return rows;
}

}  // namespace

CommandEntry describeCommandLine(const CLI::App& app) { return describe(app, {}); }

void fillIn(std::string& page, const std::string& marker, const std::string& text) {
    const auto at = page.find(marker);
    if (at == std::string::npos) throw std::runtime_error("the man page has no " + marker);
    page.replace(at, marker.size(), text);
}

std::string manPage(const CommandEntry& root, std::string page) {
    fillIn(page, "@OPTIONS@", optionsRoff(root.options, true));
    fillIn(page, "@COMMANDS@", commandsRoff(root));
    std::string exits;
    for (const auto& exit : kExitCodeMeanings) {
        exits += ".TP\n.B " + std::to_string(exit.code) + "\n" + roff(exit.meaning) + "\n";
    }
    fillIn(page, "@EXIT_STATUS@", exits);
    return page;
}

std::string bashCompletion(const CommandEntry& root) {
    std::string out = heading("bash") +
        "_dedup_table() {\n    case \"$1\" in\n";
    for (const auto& [key, words] : tableRows(root)) {
        out += "        " + quoted(key) + ") REPLY=" + quoted(joined(words)) + " ;;\n";
    }
    out += R"SHELL(        *) REPLY="" ;;
    esac
}

_dedup() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev="" cmdpath="" word i arguments=0 REPLY
    ((COMP_CWORD > 1)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
    # "--strategy=cl" reaches us as "--strategy" "=" "cl".
    [[ $prev == "=" && COMP_CWORD -gt 2 ]] && prev=${COMP_WORDS[COMP_CWORD - 2]}
    [[ $cur == "=" ]] && cur=""

    # Walk the words before the cursor: the commands chosen so far, skipping options' values.
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == -* ]]; then
            _dedup_table "$cmdpath|valued"
            if [[ $word != *=* && " $REPLY " == *" $word "* ]]; then
                ((i++))
                [[ ${COMP_WORDS[i]} == "=" ]] && ((i++))
            fi
            continue
        fi
        _dedup_table "$cmdpath|commands"
        if ((arguments == 0)) && [[ " $REPLY " == *" $word "* ]]; then
            cmdpath=${cmdpath:+$cmdpath }$word
        else
            ((arguments++))
        fi
    done

    COMPREPLY=()
    _dedup_table "$cmdpath|valued"
    if [[ $prev == -* && " $REPLY " == *" $prev "* ]]; then
        _dedup_table "$cmdpath|$prev"
        if [[ -n $REPLY ]]; then
            mapfile -t COMPREPLY < <(compgen -W "$REPLY" -- "$cur")
        else
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        fi
        return 0
    fi
    if [[ $cur == -* ]]; then
        _dedup_table "$cmdpath|options"
        mapfile -t COMPREPLY < <(compgen -W "$REPLY" -- "$cur")
        return 0
    fi
    local words=""
    if ((arguments == 0)); then
        _dedup_table "$cmdpath|commands"
        words=$REPLY
    fi
    _dedup_table "$cmdpath|argument$arguments"
    [[ -z $REPLY ]] && _dedup_table "$cmdpath|argument-rest"
    if [[ $REPLY == "@files" ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur"; compgen -f -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "$words $REPLY" -- "$cur")
    fi
    return 0
}

complete -F _dedup dedup
)SHELL";
    return out;
}

std::string zshCompletion(const CommandEntry& root) {
    std::string out =
        "#compdef dedup\n" + heading("zsh") +
        "_dedup_table() {\n  case $1 in\n";
    auto row = [&out](const std::string& key, const std::vector<std::string>& words) {
        out += "    " + quoted(key) + ") reply=(";
        for (const auto& word : words) out += " " + quoted(word);
        out += " ) ;;\n";
    };
    for (const auto& [key, words] : tableRows(root)) row(key, words);
    // zsh shows a description beside each command and option.
    forEachCommand(root, [&row](const CommandEntry& command) {
        std::vector<std::string> described;
        for (const auto& sub : command.subcommands) {
            described.push_back(sub.path.back() + ":" + sub.description);
        }
        if (!described.empty()) row(pathKey(command) + "|described-commands", described);
        described.clear();
        for (const auto& option : command.options) {
            for (const auto& name : option.names) described.push_back(name + ":" + option.description);
        }
        row(pathKey(command) + "|described-options", described);
    });
    out += R"SHELL(    *) reply=() ;;
  esac
}

_dedup() {
  local cmdpath="" word prev="" i arguments=0
  local -a reply listed
  (( CURRENT > 2 )) && prev=${words[CURRENT-1]}
  for (( i = 2; i < CURRENT; i++ )); do
    word=${words[i]}
    if [[ $word == -* ]]; then
      _dedup_table "$cmdpath|valued"
      [[ $word != *=* ]] && (( ${reply[(Ie)$word]} )) && (( i++ ))
      continue
    fi
    _dedup_table "$cmdpath|commands"
    if (( arguments == 0 && ${reply[(Ie)$word]} )); then
      cmdpath=${cmdpath:+$cmdpath }$word
    else
      (( arguments++ ))
    fi
  done

  _dedup_table "$cmdpath|valued"
  if [[ $prev == -* ]] && (( ${reply[(Ie)$prev]} )); then
    _dedup_table "$cmdpath|$prev"
    if (( $#reply )); then compadd -a reply; else _files; fi
    return
  fi
  if [[ $PREFIX == -* ]]; then
    _dedup_table "$cmdpath|described-options"
    listed=("${reply[@]}")
    _describe -t options option listed
    return
  fi
  if (( arguments == 0 )); then
    _dedup_table "$cmdpath|described-commands"
    listed=("${reply[@]}")
    (( $#listed )) && _describe -t commands command listed
  fi
  _dedup_table "$cmdpath|argument$arguments"
  (( $#reply )) || _dedup_table "$cmdpath|argument-rest"
  if [[ $reply == @files ]]; then
    _files
  elif (( $#reply )); then
    compadd -a reply
  fi
}

_dedup "$@"
)SHELL";
    return out;
}

std::string fishCompletion(const CommandEntry& root) {
    std::string out = heading("fish") +
        "function __dedup_table\n    switch $argv[1]\n";
    for (const auto& [key, words] : tableRows(root)) {
        out += "        case " + quoted(key) + "\n            printf '%s\\n'";
        for (const auto& word : words) out += " " + quoted(word);
        out += "\n";
    }
    out += R"SHELL(    end
end

# The commands chosen so far on the line being completed, as "journal verify", and on the next line
# how many arguments follow them.
function __dedup_state
    set -l cmdpath
    set -l skip 0
    set -l arguments 0
    for word in (commandline -opc)[2..-1]
        if test $skip = 1
            set skip 0
            continue
        end
        if string match -q -- '-*' $word
            contains -- $word (__dedup_table "$cmdpath|valued"); and set skip 1
            continue
        end
        if test $arguments = 0; and contains -- $word (__dedup_table "$cmdpath|commands")
            set cmdpath $cmdpath $word
        else
            set arguments (math $arguments + 1)
        end
    end
    echo "$cmdpath"
    echo $arguments
end

# __dedup_at PATH...: the line is at that command. __dedup_argument N PATH...: and at its N-th argument.
function __dedup_at
    set -l state (__dedup_state)
    test "$state[1]" = "$argv"
end

function __dedup_argument
    set -l state (__dedup_state)
    test "$state[1]" = "$argv[2..-1]"; and test "$state[2]" = $argv[1]
end

# No file names unless a command takes them.
complete -c dedup -f
)SHELL";
    forEachCommand(root, [&out](const CommandEntry& command) {
        const std::string at = " -n " + quoted("__dedup_at " + pathKey(command));
        for (const auto& sub : command.subcommands) {
            out += "complete -c dedup" + at + " -a " + quoted(sub.path.back()) + " -d " + quoted(sub.description) + "\n";
        }
        for (const auto& option : command.options) {
            out += "complete -c dedup" + at;
            for (const auto& name : option.names) {
                out += name.rfind("--", 0) == 0 ? " -l " + quoted(name.substr(2)) : " -s " + quoted(name.substr(1));
            }
            if (!option.choices.empty()) {
                out += " -x -a " + quoted(joined(option.choices));
            } else if (!option.value.empty()) {
                out += " -r -F";
            }
            out += " -d " + quoted(option.description) + "\n";
        }
        for (std::size_t i = 0; i < command.arguments.size(); ++i) {
            const auto& argument = command.arguments[i];
            // An argument's values in its own place only; a list of folders from its place on.
            const std::string place =
                argument.many ? at : " -n " + quoted("__dedup_argument " + std::to_string(i) + " " + pathKey(command));
            out += "complete -c dedup" + place +
                   (argument.choices.empty() ? std::string(" -F") : " -a " + quoted(joined(argument.choices))) + "\n";
        }
    });
    return out;
}

}  // namespace dedup::cli
