#include "tarnctl/completion.h"

#include <cctype>
#include <sstream>
#include <string_view>
#include <vector>

namespace tarnctl {
namespace {

// What a word of the command line may be.
struct Value {
    bool isTaken = false;  // the option takes a value at all
    bool isFile = false;
    bool isDirectory = false;
    std::string choices;  // with blanks between them
};

struct Entry {
    std::string name;       // with its dashes; empty: a word without an option
    std::string shortName;  // "-c"; empty where it has none
    std::string meaning;
    Value value;
    bool isRepeated = false;
};

struct Command {
    std::string name;
    std::string meaning;
    std::vector<Entry> entries;
};

Value ValueOf(const CLI::Option& option) {
    Value value;
    const std::string type = option.get_positional()
                                 ? option.get_name(true, false) + "|" + option.get_type_name()
                                 : option.get_type_name();
    value.isTaken = option.get_type_size() != 0;
    std::istringstream words(type);
    for (std::string word; std::getline(words, word, '|');) {
        value.isFile = value.isFile || word == "FILE" || word == "PATH";
        value.isDirectory = value.isDirectory || word == "DIR";
        if (!word.empty() && std::islower(static_cast<unsigned char>(word.front())) != 0) {
            value.choices += (value.choices.empty() ? "" : " ") + word;
        }
    }
    return value;
}

Command CommandOf(const CLI::App& app) {
    Command command{app.get_name(), app.get_description(), {}};
    for (const CLI::Option* const option : app.get_options({})) {
        const std::string name = option->get_positional() || option->get_lnames().empty()
                                     ? std::string()
                                     : "--" + option->get_lnames().front();
        const std::string shortName = name.empty() || option->get_snames().empty()
                                          ? std::string()
                                          : "-" + option->get_snames().front();
        command.entries.push_back({name, shortName, option->get_description(), ValueOf(*option),
                                   option->get_items_expected_max() > 1});
    }
    return command;
}

std::vector<Command> CommandsOf(const CLI::App& app) {
    std::vector<Command> commands;
    std::string names;
    for (const CLI::App* const command : app.get_subcommands({})) {
        commands.push_back(CommandOf(*command));
        names += (names.empty() ? "" : " ") + command->get_name();
    }
    for (Command& command : commands) {
        for (Entry& entry : command.entries) {
            // The word that follows "help" is a sub-command.
            if (command.name == "help" && entry.name.empty()) {
                entry.value.choices = names;
            }
        }
    }
    return commands;
}

std::string NamesOf(const std::vector<Entry>& entries) {
    std::string names;
    for (const Entry& entry : entries) {
        if (!entry.name.empty()) {
            names += (names.empty() ? "" : " ") + entry.name;
        }
    }
    return names;
}

// The text between single quotes, for any of the three shells.
std::string Quoted(std::string_view text) {
    std::string quoted = "'";
    for (const char letter : text) {
        quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    }
    return quoted + "'";
}

// ---- bash

std::string BashReply(const Value& value, const std::string& words) {
    std::string reply;
    if (value.isFile || value.isDirectory) {
        reply = "compopt -o filenames; mapfile -t COMPREPLY < <(compgen ";
        reply += value.isDirectory ? "-d" : "-f";
        reply += " -- \"$current\")";
    } else if (!words.empty()) {
        reply = "mapfile -t COMPREPLY < <(compgen -W " + Quoted(words) + " -- \"$current\")";
    } else {
        reply = ":";
    }
    return reply;
}

std::string Bash(const std::vector<Command>& commands, const std::vector<Entry>& top) {
    std::ostringstream text;
    std::string names;
    text << "# Completion of tarnctl(1) for bash, made by \"tarnctl completion bash\".\n\n"
            "_tarnctl() {\n"
            "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
            "    local command=''\n"
            "    ((COMP_CWORD < 2)) || command=${COMP_WORDS[1]}\n"
            "    COMPREPLY=()\n"
            "    case $command:$previous in\n";
    for (const Command& command : commands) {
        names += command.name + " ";
        for (const Entry& entry : command.entries) {
            if (!entry.name.empty() && entry.value.isTaken) {
                text << "        " << command.name << ":" << entry.name
                     << (entry.shortName.empty() ? ""
                                                 : " | " + command.name + ":" + entry.shortName)
                     << ") " << BashReply(entry.value, entry.value.choices) << "; return ;;\n";
            }
        }
    }
    text << "    esac\n    case $command:$current in\n";
    for (const Command& command : commands) {
        const std::string reply = BashReply({}, NamesOf(command.entries));
        text << "        " << command.name << ":-*) " << reply << " ;;\n";
        for (const Entry& entry : command.entries) {
            if (entry.name.empty()) {
                text << "        " << command.name << ":*) "
                     << BashReply(entry.value, entry.value.choices) << " ;;\n";
            }
        }
        text << "        " << command.name << ":*) " << reply << " ;;\n";
    }
    text << "        :*) " << BashReply({}, names + NamesOf(top)) << " ;;\n"
         << "    esac\n}\n\ncomplete -F _tarnctl tarnctl\n";
    return text.str();
}

// ---- zsh

// Within an entry of _arguments a bracket or a colon would end the text.
std::string ZshText(std::string_view text) {
    std::string safe;
    for (const char letter : text) {
        safe += letter == '[' || letter == ']' || letter == ':' || letter == '\\'
                    ? std::string("\\") + letter
                    : std::string(1, letter);
    }
    return safe;
}

std::string ZshAction(const Value& value) {
    if (value.isDirectory) {
        return ":value:_files -/";
    }
    if (value.isFile) {
        return ":value:_files";
    }
    return ":value:" + (value.choices.empty() ? " " : "(" + value.choices + ")");
}

// One argument of _arguments. Of two names for one option only one is offered, and an option
// that may be repeated is offered again.
std::string ZshEntry(const Entry& entry) {
    if (entry.name.empty()) {
        return Quoted("*" + ZshAction(entry.value));
    }
    const std::string rest =
        "[" + ZshText(entry.meaning) + "]" + (entry.value.isTaken ? ZshAction(entry.value) : "");
    const std::string star = entry.isRepeated ? "*" : "";
    if (entry.shortName.empty()) {
        return Quoted(star + entry.name + rest);
    }
    const std::string names = entry.shortName + " " + entry.name;
    return Quoted(entry.isRepeated ? star : "(" + names + ")") + "{" + entry.shortName + "," +
           entry.name + "}" + Quoted(rest);
}

std::string Zsh(const std::vector<Command>& commands, const std::vector<Entry>& top) {
    std::ostringstream text;
    text << "#compdef tarnctl\n"
            "# Completion of tarnctl(1) for zsh, made by \"tarnctl completion zsh\".\n\n"
            "_tarnctl() {\n"
            "    local -a commands\n"
            "    commands=(\n";
    for (const Command& command : commands) {
        text << "        " << Quoted(ZshText(command.name) + ":" + ZshText(command.meaning))
             << "\n";
    }
    text << "    )\n"
            "    if ((CURRENT == 2)); then\n"
            "        _describe 'sub-command' commands\n"
            "        compadd -- "
         << NamesOf(top)
         << "\n"
            "        return\n"
            "    fi\n"
            "    local command=$words[2]\n"
            "    shift words\n"
            "    ((CURRENT--))\n"
            "    case $command in\n";
    for (const Command& command : commands) {
        text << "        " << command.name << ")\n            _arguments";
        for (const Entry& entry : command.entries) {
            text << " \\\n                " << ZshEntry(entry);
        }
        text << "\n            ;;\n";
    }
    text << "    esac\n}\n\n_tarnctl \"$@\"\n";
    return text.str();
}

// ---- fish

std::string FishEntry(const std::string& condition, const Entry& entry) {
    std::string line = "complete -c tarnctl -n " + Quoted(condition);
    if (!entry.name.empty()) {
        line += entry.shortName.empty() ? "" : " -s " + entry.shortName.substr(1);
        line += " -l " + entry.name.substr(2) + " -d " + Quoted(entry.meaning);
    }
    if (entry.value.isFile || entry.value.isDirectory) {
        line += entry.value.isDirectory ? " -x -a '(__fish_complete_directories)'" : " -F";
    } else if (!entry.value.choices.empty()) {
        line += " -x -a " + Quoted(entry.value.choices);
    } else if (entry.value.isTaken) {
        line += " -x";
    }
    if (!entry.name.empty() && entry.value.isFile) {
        line += " -r";
    }
    return line + "\n";
}

std::string Fish(const std::vector<Command>& commands, const std::vector<Entry>& top) {
    std::string text =
        "# Completion of tarnctl(1) for fish, made by \"tarnctl completion fish\".\n\n"
        "complete -c tarnctl -f\n";
    for (const Entry& entry : top) {
        if (!entry.name.empty()) {
            text += FishEntry("__fish_use_subcommand", entry);
        }
    }
    for (const Command& command : commands) {
        text += "complete -c tarnctl -n '__fish_use_subcommand' -a " + command.name + " -d " +
                Quoted(command.meaning) + "\n";
        for (const Entry& entry : command.entries) {
            text += FishEntry("__fish_seen_subcommand_from " + command.name, entry);
        }
    }
    return text;
}

}  // namespace

std::string CompletionScript(const CLI::App& app, const std::string& shell) {
    const std::vector<Command> commands = CommandsOf(app);
    const std::vector<Entry> top = CommandOf(app).entries;
    if (shell == "bash") {
        return Bash(commands, top);
    }
    if (shell == "zsh") {
        return Zsh(commands, top);
    }
    return shell == "fish" ? Fish(commands, top) : "";
}

}  // namespace tarnctl
