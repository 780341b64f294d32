#pragma once

// What `tarnctl top` shows, as lines for a screen of any size.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "crm/event_report_format.h"
#include "tarnctl/common/display.h"
#include "tarnctl/health/health.h"
#include "tarnctl/health/verdict.h"
#include "tarnctl/top/busiest.h"

namespace tarnctl {

struct TopLine {
    std::string text;
    Color color = Color::kNone;
};

class TopView {
  public:
    // A report has come; `now` is in seconds since the epoch.
    void Count(const EventReport& report, double now);
    // Reports went by that were not seen.
    void CountMissed() { m_hasMissed = true; }
    // A look was taken. Rates are those between the last two.
    void Take(Health health, Verdict verdict);

    // The lines, each of at most `width` columns and at most `height` of them.
    [[nodiscard]] std::vector<TopLine> Lines(size_t width, size_t height);

  private:
    void AddHead(std::vector<TopLine>& lines) const;
    void AddRates(std::vector<TopLine>& lines) const;
    void AddRings(std::vector<TopLine>& lines, size_t width) const;
    void AddThreads(std::vector<TopLine>& lines) const;
    void AddBusiest(std::vector<TopLine>& lines, size_t width);
    [[nodiscard]] double Seconds() const;  // between the last two looks

    static constexpr double kWindow = 60;  // seconds for which the busiest are counted

    Busiest m_signatures{kWindow};
    Busiest m_sources{kWindow};
    uint64_t m_reports = 0;        // since the last look
    uint64_t m_latestReports = 0;  // between the last two looks
    bool m_hasMissed = false;
    std::optional<Health> m_before;
    std::optional<Health> m_now;
    Verdict m_verdict;
};

}  // namespace tarnctl
