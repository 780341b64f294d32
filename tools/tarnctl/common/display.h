#pragma once

// How a sub-command shows its lines: in colour or not, in columns that line up, and cut to the
// width of the terminal or whole.
//
// The options of a sub-command derive from Display. The registry then declares `--color` for it and
// calls Resolve() before it runs, so that a sub-command has only to ask. Without Resolve(), as in a
// unit test, a line is neither coloured nor cut.
//
// Threads: plain values; Width() asks the kernel.

#include <CLI/CLI.hpp>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace tarnctl {

enum class Color { kNone, kRed, kYellow, kGreen, kBlue, kBold };

struct Display {
    std::string colorChoice = "auto";  // auto, always or never
    bool wide = false;                 // lines are never cut

    // What follows is no option. Resolve() sets it; tests set it as they like.
    bool color = false;            // standard output is coloured
    bool errorColor = false;       // standard error is coloured
    bool isTerminal = false;       // standard output is a terminal, so columns line up
    bool errorIsTerminal = false;  // standard error is a terminal, so a progress bar may be drawn
    size_t width = 0;              // of both, in columns, in place of the terminal's; 0: ask

    // Looks at standard output, standard error, NO_COLOR and TERM.
    void Resolve();

    // Columns that a line may take; 0: no limit.
    [[nodiscard]] size_t Width() const;
    [[nodiscard]] size_t ErrorWidth() const;
};

// Declares `--color`. The registry does this for every sub-command whose options derive from
// Display.
void AddColorOption(CLI::App& command, Display& display);

// Declares `--wide`, for a sub-command whose lines are cut.
void AddWideOption(CLI::App& command, Display& display);

// The width of the terminal at a descriptor, in columns: 80 where the terminal does not say, 0
// where there is no terminal.
[[nodiscard]] size_t TerminalWidth(int descriptor);

// The text in that colour, or as it is where `color` is false.
[[nodiscard]] std::string Painted(std::string_view text, Color color, bool isColored);

// At most `width` columns of a line; 0 is no limit. A line that is cut ends in ">". The sequences
// of Painted() take no room and are never cut apart; each other byte but the later ones of a UTF-8
// character takes a column.
[[nodiscard]] std::string CutToWidth(std::string_view line, size_t width);

// The lines of a text in lines of at most `width` columns, each with a line end; 0 is no limit.
// They are divided at blanks, and what follows begins with `indent` blanks, or with fewer where the
// width is small. A word that is longer than a line stays whole.
[[nodiscard]] std::string FoldedToWidth(std::string_view text, size_t width, size_t indent);

// One column of a line.
struct Cell {
    std::string text;
    Color color = Color::kNone;
    size_t width = 0;  // padded to this many columns where columns line up
};

// The cells of one line with two blanks between them: as they are, or, on a terminal, padded and
// cut to its width. A cell without text is left out where columns do not line up.
[[nodiscard]] std::string LineOf(std::span<const Cell> cells, const Display& display);

}  // namespace tarnctl
