#pragma once

// Spreads alerts evenly over time.
//
// The daemon holds at most 1024 alerts between its two threads and drops what comes on top, so a
// file is not poured out as fast as the disk gives it. The pacer keeps a timetable: alert n is due
// n intervals after the first. A sender that is a little late may catch up, since a sleep always
// takes somewhat longer than asked; one that was held up for longer starts a new timetable, for
// otherwise all that it missed would go out in the one burst that pacing is there to avoid.
//
// Threads: one at a time.

#include <chrono>

namespace tarnctl {

class Pacer {
  public:
    using Clock = std::chrono::steady_clock;

    // Lateness that is made up for; beyond it the timetable starts again.
    static constexpr std::chrono::milliseconds kCatchUp{20};

    // `perSecond` alerts a second; 0 means unlimited.
    explicit Pacer(double perSecond);

    // Takes the next place in the timetable. Returns how long to wait before sending, 0 when the
    // time has come. `now` never runs backwards from one call to the next.
    [[nodiscard]] Clock::duration DelayBeforeNext(Clock::time_point now);

  private:
    std::chrono::duration<double> m_interval;
    std::chrono::duration<double> m_elapsed{0};  // from m_start to the next place
    Clock::time_point m_start;
    bool m_started = false;
};

}  // namespace tarnctl
