#include "tarnctl/top/screen.h"

#include <curses.h>

#include <cstdio>
#include <cstdlib>

namespace tarnctl {
namespace {

constexpr int kEscape = 27;
constexpr short kRedPair = 1;
constexpr short kYellowPair = 2;
constexpr short kGreenPair = 3;
constexpr short kBluePair = 4;

attr_t AttributesOf(Color color, bool isColored) {
    if (color == Color::kBold) {
        return A_BOLD;
    }
    if (!isColored) {
        return A_NORMAL;
    }
    switch (color) {
        case Color::kRed:
            return static_cast<attr_t>(COLOR_PAIR(kRedPair));
        case Color::kYellow:
            return static_cast<attr_t>(COLOR_PAIR(kYellowPair));
        case Color::kGreen:
            return static_cast<attr_t>(COLOR_PAIR(kGreenPair));
        case Color::kBlue:
            return static_cast<attr_t>(COLOR_PAIR(kBluePair));
        default:
            return A_NORMAL;
    }
}

}  // namespace

Screen::Screen(bool isColored) {
    // The library takes the keys that make signals from the terminal only where nobody has handlers
    // of their own; the stop signals of tarnctl are flags, and the destructor follows them.
    SCREEN* const screen = newterm(nullptr, stdout, stdin);
    if (screen == nullptr) {
        const char* const terminal = std::getenv("TERM");
        m_error = std::string("the terminal ") + (terminal == nullptr ? "without TERM" : terminal) +
                  " is not known; set TERM";
        return;
    }
    m_screen = screen;
    m_isColored = isColored && has_colors();
    if (m_isColored) {
        start_color();
        use_default_colors();
        init_pair(kRedPair, COLOR_RED, -1);
        init_pair(kYellowPair, COLOR_YELLOW, -1);
        init_pair(kGreenPair, COLOR_GREEN, -1);
        init_pair(kBluePair, COLOR_BLUE, -1);
    }
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    curs_set(0);
}

Screen::~Screen() {
    if (m_screen != nullptr) {
        endwin();
        delscreen(static_cast<SCREEN*>(m_screen));
    }
}

size_t Screen::Width() const {
    return static_cast<size_t>(getmaxx(stdscr));
}

size_t Screen::Height() const {
    return static_cast<size_t>(getmaxy(stdscr));
}

void Screen::Draw(const std::vector<TopLine>& lines) {
    erase();
    int row = 0;
    for (const TopLine& line : lines) {
        const attr_t attributes = AttributesOf(line.color, m_isColored);
        attron(attributes);
        mvaddnstr(row++, 0, line.text.c_str(), static_cast<int>(line.text.size()));
        attroff(attributes);
    }
    refresh();
}

Screen::Key Screen::Wait(std::chrono::milliseconds time) {
    timeout(static_cast<int>(time.count()));
    switch (getch()) {
        case ERR:
            return Key::kNone;
        case KEY_RESIZE:
            return Key::kResized;
        case 'q':
        case 'Q':
        case kEscape:
            return Key::kQuit;
        default:
            return Key::kOther;
    }
}

}  // namespace tarnctl
