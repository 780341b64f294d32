#include "tarnctl/common/help_text.h"

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

namespace tarnctl {
namespace {

// A row of a list: a term and what it means.
using Row = std::pair<std::string, std::string>;
using Rows = std::vector<Row>;

constexpr size_t kIndent = 2;
constexpr size_t kIndentBelow = 6;    // of a meaning that is on a line of its own
constexpr size_t kLeastMeaning = 30;  // columns without which a meaning gets such a line
constexpr size_t kLongestTerm = 28;   // a longer one has its meaning on the next line
constexpr std::string_view kExamplesLine = "Examples:";

std::string Title(const std::string& title) {
    return "\n" + title + ":\n";
}

// The rows with the meanings in a column, or below the terms where the width does not allow it.
std::string List(const Rows& rows, size_t width, size_t longestTerm) {
    size_t column = 0;
    for (const Row& row : rows) {
        if (row.first.size() <= longestTerm) {
            column = std::max(column, row.first.size());
        }
    }
    column += kIndent + 2;
    const bool isBelow = column + kLeastMeaning > width;
    std::string text;
    for (const auto& [term, meaning] : rows) {
        std::string termLines = Wrapped(term, width, kIndent);
        if (meaning.empty()) {
            text += termLines;
            continue;
        }
        if (isBelow || kIndent + term.size() + 2 > column) {
            text += termLines + Wrapped(meaning, width, isBelow ? kIndentBelow : column);
            continue;
        }
        const std::string lines = Wrapped(meaning, width, column);
        text += std::string(kIndent, ' ') + term +
                std::string(column - kIndent - term.size(), ' ') + lines.substr(column);
    }
    return text;
}

// Divides a footer into its notes and its examples.
std::pair<std::string, Rows> Divided(const std::string& footer) {
    std::string notes;
    Rows examples;
    std::istringstream lines(footer);
    bool isExample = false;
    for (std::string line; std::getline(lines, line);) {
        if (line == kExamplesLine) {
            isExample = true;
            continue;
        }
        if (!isExample) {
            notes += line + "\n";
            continue;
        }
        const size_t begin = line.find_first_not_of(' ');
        if (begin == std::string::npos) {
            continue;
        }
        const size_t end = std::min(line.find("  ", begin), line.size());
        const size_t meaning = line.find_first_not_of(' ', end);
        examples.emplace_back(line.substr(begin, end - begin),
                              meaning == std::string::npos ? "" : line.substr(meaning));
    }
    notes.erase(notes.find_last_not_of('\n') + 1);
    return {notes, examples};
}

// Paragraphs of notes are filled again; a line that begins with a blank stays a line.
std::string Notes(const std::string& notes, size_t width) {
    std::string filled;
    std::istringstream lines(notes);
    for (std::string line; std::getline(lines, line);) {
        const bool isNew =
            filled.empty() || filled.back() == '\n' || line.empty() || line.front() == ' ';
        if (!isNew) {
            filled += ' ';
        } else if (!filled.empty()) {
            filled += '\n';
        }
        filled += line;
    }
    return filled.empty() ? "" : "\n" + Wrapped(filled, width, 0);
}

std::string TermOf(const CLI::Option& option) {
    std::string term =
        option.get_positional() ? option.get_name(true, false) : option.get_name(false, true);
    if (!option.get_positional() && option.get_type_size() != 0 &&
        !option.get_type_name().empty()) {
        term += " " + option.get_type_name();
    }
    return term;
}

std::string MeaningOf(const CLI::Option& option) {
    const std::string& meaning = option.get_description();
    std::string remarks;
    const auto remark = [&remarks](const std::string& text) {
        remarks += (remarks.empty() ? "" : "; ") + text;
    };
    if (option.get_required() && !option.get_positional()) {
        remark("required");
    }
    if (!option.get_default_str().empty()) {
        remark("default " + option.get_default_str());
    }
    for (const CLI::Option* const other : option.get_needs()) {
        remark("only with " + other->get_name());
    }
    return remarks.empty() ? meaning : meaning + " (" + remarks + ")";
}

std::string Usage(const CLI::App& app, const std::string& name, size_t width) {
    std::string usage = "usage: " + name;
    if (!app.get_subcommands({}).empty()) {
        return Wrapped(usage + " SUB-COMMAND [OPTION]...", width, 0);
    }
    for (const CLI::Option* const option : app.get_options({})) {
        if (option->get_required() && !option->get_positional()) {
            usage += " " + TermOf(*option);
        }
    }
    usage += " [OPTION]...";
    for (const CLI::Option* const option : app.get_options({})) {
        if (option->get_positional()) {
            const bool isMany = option->get_expected_max() >= CLI::detail::expected_max_vector_size;
            const std::string word = TermOf(*option) + (isMany ? "..." : "");
            usage += option->get_required() ? " " + word : " [" + word + "]";
        }
    }
    return Wrapped(usage, width, 0);
}

}  // namespace

std::string Wrapped(std::string_view text, size_t width, size_t indent) {
    const size_t room = width > indent + 1 ? width - indent : 1;
    const std::string margin(indent, ' ');
    std::string wrapped;
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        std::string_view rest = line;
        do {
            size_t length = rest.size();
            if (length > room) {
                length = rest.rfind(' ', room);
                // The blanks at the front of a line are its own margin and no place to break.
                const size_t word = std::min(rest.find_first_not_of(' '), rest.size());
                if (length == std::string_view::npos || length <= word) {
                    length = std::min(rest.find(' ', word), rest.size());
                }
            }
            wrapped += length == 0 ? "\n" : margin + std::string(rest.substr(0, length)) + "\n";
            rest.remove_prefix(std::min(rest.size(), length + 1));
        } while (!rest.empty());
    }
    return wrapped;
}

std::string HelpText(const CLI::App& app, const std::string& name, size_t width) {
    const auto [notes, examples] = Divided(app.get_footer());
    std::string help = Wrapped(app.get_description(), width, 0);
    if (!examples.empty()) {
        help += Title("Examples") + List(examples, width, width);
    }
    help += "\n" + Usage(app, name, width);

    Rows positionals;
    Rows options;
    for (const CLI::Option* const option : app.get_options({})) {
        (option->get_positional() ? positionals : options)
            .emplace_back(TermOf(*option), MeaningOf(*option));
    }
    if (!positionals.empty()) {
        help += Title("Arguments") + List(positionals, width, kLongestTerm);
    }
    if (!options.empty()) {
        help += Title("Options") + List(options, width, kLongestTerm);
    }
    Rows commands;
    for (const CLI::App* const command : app.get_subcommands({})) {
        commands.emplace_back(command->get_name(), command->get_description());
    }
    if (!commands.empty()) {
        help += Title("Sub-commands") + List(commands, width, kLongestTerm);
    }
    return help + Notes(notes, width);
}

}  // namespace tarnctl
