#pragma once

// A progress bar on one line of a terminal, as wide as that allows. Where there is no terminal it
// writes nothing.
//
// Threads: one at a time.

#include <chrono>
#include <iosfwd>
#include <string>

#include "tarnctl/common/display.h"

namespace tarnctl {

class ProgressBar {
  public:
    // `stream` is standard error as `display` describes it; both live as long.
    ProgressBar(std::ostream& stream, const Display& display);
    // Takes the bar off the line.
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // Shows `done` (0 to 1) with a text after it, at most ten times a second.
    void Show(double done, const std::string& text);

    // Takes the bar off the line.
    void Clear();

  private:
    std::ostream& m_stream;
    const Display& m_display;
    bool m_isShown = false;
    std::chrono::steady_clock::time_point m_lastShown;
};

}  // namespace tarnctl
