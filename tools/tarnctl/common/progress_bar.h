#pragma once

// A progress bar on one line of a terminal. Where there is no terminal it writes nothing.
//
// Threads: one at a time.

#include <chrono>
#include <iosfwd>
#include <string>

namespace tarnctl {

class ProgressBar {
  public:
    // `isTerminal` says whether `stream` is one.
    ProgressBar(std::ostream& stream, bool isTerminal);
    // Takes the bar off the line.
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // Shows `done` (0 to 1) with a text behind it, at most ten times a second.
    void Show(double done, const std::string& text);

    // Takes the bar off the line.
    void Clear();

  private:
    std::ostream& m_stream;
    const bool m_isTerminal;
    bool m_isShown = false;
    std::chrono::steady_clock::time_point m_lastShown;
};

}  // namespace tarnctl
