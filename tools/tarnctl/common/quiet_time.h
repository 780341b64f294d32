#pragma once

// How long a monitor has gone without news, and how long it may wait for some.
//
// Threads: one at a time.

#include <algorithm>
#include <chrono>

namespace tarnctl {

class QuietTime {
  public:
    using Clock = std::chrono::steady_clock;
    using Milliseconds = std::chrono::milliseconds;

    // A stop signal that comes just before a wait is noticed this much later.
    static constexpr Milliseconds kLongestWait{100};

    // Is over after this many seconds; 0: never.
    explicit QuietTime(double seconds) : m_limit(seconds) {}

    // There is news.
    void Restart() { m_lastNews = Clock::now(); }

    // Since the last news.
    [[nodiscard]] Milliseconds Elapsed() const {
        return std::chrono::duration_cast<Milliseconds>(Clock::now() - m_lastNews);
    }

    [[nodiscard]] bool IsOver() const { return m_limit.count() > 0 && Left().count() <= 0; }

    [[nodiscard]] Milliseconds TimeToWait() const {
        if (m_limit.count() <= 0) {
            return kLongestWait;
        }
        return std::clamp(std::chrono::ceil<Milliseconds>(Left()), Milliseconds(0), kLongestWait);
    }

  private:
    [[nodiscard]] Clock::duration Left() const {
        return m_lastNews + std::chrono::duration_cast<Clock::duration>(m_limit) - Clock::now();
    }

    std::chrono::duration<double> m_limit;
    Clock::time_point m_lastNews = Clock::now();
};

}  // namespace tarnctl
