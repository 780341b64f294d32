#include "tarnctl/common/display.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace tarnctl {
namespace {

constexpr size_t kUsualWidth = 80;
constexpr char kCutMark = '>';
constexpr std::string_view kPlain = "\x1b[0m";

std::string_view SequenceOf(Color color) {
    switch (color) {
        case Color::kRed:
            return "\x1b[31m";
        case Color::kYellow:
            return "\x1b[33m";
        case Color::kGreen:
            return "\x1b[32m";
        case Color::kBlue:
            return "\x1b[34m";
        case Color::kBold:
            return "\x1b[1m";
        case Color::kNone:
            break;
    }
    return "";
}

std::string CheckColorChoice(const std::string& word) {
    const bool isKnown = word == "auto" || word == "always" || word == "never";
    return isKnown ? "" : word + " is none of auto, always and never";
}

// NO_COLOR counts when it is set and not empty; a terminal without a name for its abilities is
// taken to have none.
bool TerminalTakesColor() {
    const char* const refused = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return (refused == nullptr || *refused == '\0') && terminal != nullptr && *terminal != '\0' &&
           std::string_view(terminal) != "dumb";
}

// The bytes of the escape sequence at the front of `text`; 0 when none begins there.
size_t SequenceLength(std::string_view text) {
    if (!text.starts_with("\x1b[")) {
        return 0;
    }
    const size_t end = text.find('m');
    return end == std::string_view::npos ? 0 : end + 1;
}

bool BeginsColumn(char letter) {
    constexpr unsigned kUtf8Mask = 0xC0;
    constexpr unsigned kUtf8Continuation = 0x80;
    return (static_cast<unsigned char>(letter) & kUtf8Mask) != kUtf8Continuation;
}

size_t ColumnsOf(std::string_view text) {
    size_t columns = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t skipped = SequenceLength(text.substr(at));
        columns += skipped == 0 && BeginsColumn(text[at]) ? 1U : 0U;
        at += std::max<size_t>(1, skipped);
    }
    return columns;
}

// Where the first blanks are, after a word, that end the last words with room in so many columns;
// or that end the first word, where even that has none. The end of the line where there are none.
size_t PlaceToDivide(std::string_view line, size_t room) {
    size_t place = line.size();
    size_t at = std::min(line.find_first_not_of(' '), line.size());
    while ((at = line.find(' ', at)) != std::string_view::npos) {
        if (place != line.size() && ColumnsOf(line.substr(0, at)) > room) {
            break;
        }
        place = at;
        at = std::min(line.find_first_not_of(' ', at), line.size());
    }
    return place;
}

}  // namespace

void Display::Resolve() {
    isTerminal = isatty(STDOUT_FILENO) == 1;
    errorIsTerminal = isatty(STDERR_FILENO) == 1;
    const bool isAlways = colorChoice == "always";
    const bool isPossible = colorChoice == "auto" && TerminalTakesColor();
    color = isAlways || (isPossible && isTerminal);
    errorColor = isAlways || (isPossible && errorIsTerminal);
}

size_t Display::Width() const {
    if (wide || !isTerminal) {
        return 0;
    }
    return width != 0 ? width : TerminalWidth(STDOUT_FILENO);
}

size_t Display::ErrorWidth() const {
    if (!errorIsTerminal) {
        return 0;
    }
    return width != 0 ? width : TerminalWidth(STDERR_FILENO);
}

void AddColorOption(CLI::App& command, Display& display) {
    command
        .add_option("--color", display.colorChoice,
                    "When to use colour; auto: on a terminal, unless NO_COLOR is set")
        ->type_name("auto|always|never")
        ->check(CLI::Validator(CheckColorChoice, "", "color"))
        ->capture_default_str();
}

void AddWideOption(CLI::App& command, Display& display) {
    command.add_flag("--wide", display.wide, "Do not cut lines to the width of the terminal");
}

size_t TerminalWidth(int descriptor) {
    winsize size = {};
    if (isatty(descriptor) != 1) {
        return 0;
    }
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return kUsualWidth;
    }
    return size.ws_col;
}

std::string Painted(std::string_view text, Color color, bool isColored) {
    if (!isColored || color == Color::kNone || text.empty()) {
        return std::string(text);
    }
    return std::string(SequenceOf(color)) + std::string(text) + std::string(kPlain);
}

std::string CutToWidth(std::string_view line, size_t width) {
    if (width == 0 || ColumnsOf(line) <= width) {
        return std::string(line);
    }
    std::string cut;
    size_t columns = 0;
    bool isPainted = false;
    for (size_t at = 0; at < line.size();) {
        const size_t skipped = SequenceLength(line.substr(at));
        if (skipped != 0) {
            isPainted = line.substr(at, skipped) != kPlain;
            cut += line.substr(at, skipped);
            at += skipped;
            continue;
        }
        columns += BeginsColumn(line[at]) ? 1U : 0U;
        if (columns == width) {
            break;
        }
        cut += line[at++];
    }
    if (isPainted) {
        cut += kPlain;
    }
    return cut + kCutMark;
}

std::string FoldedToWidth(std::string_view text, size_t width, size_t indent) {
    if (width == 0) {
        return std::string(text) + (text.ends_with('\n') ? "" : "\n");
    }
    constexpr size_t kLeastIndent = 2;
    indent = 3 * indent > width ? kLeastIndent : indent;
    std::string folded;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        size_t room = width;
        while (ColumnsOf(line) > room) {
            const size_t at = PlaceToDivide(line, room);
            const size_t next = line.find_first_not_of(' ', at);
            if (next == std::string_view::npos) {
                break;
            }
            folded.append(line.substr(0, at)).append("\n").append(indent, ' ');
            line.remove_prefix(next);
            room = width > indent ? width - indent : 1;
        }
        folded.append(line).append("\n");
    }
    return folded;
}

std::string LineOf(std::span<const Cell> cells, const Display& display) {
    std::string line;
    size_t padding = 0;  // owed before the next cell, so that no line ends in blanks
    for (const Cell& cell : cells) {
        if (!display.isTerminal && cell.text.empty()) {
            continue;
        }
        if (!cell.text.empty()) {
            line += std::string(padding, ' ') + Painted(cell.text, cell.color, display.color);
            padding = 0;
        }
        const size_t columns = ColumnsOf(cell.text);
        padding += display.isTerminal && cell.width > columns ? cell.width - columns : 0;
        padding += 2;
    }
    return CutToWidth(line, display.Width());
}

}  // namespace tarnctl
