#pragma once

// Follows what the daemon writes into a ring, whether or not its reader has taken it already.
//
// A reader that is quick leaves nothing waiting, so that a look at the waiting messages would miss
// most of them. What was taken is still in the ring until the writer comes round again, and a
// report says itself how long it is.
//
// Threads: one at a time.

#include <cstdint>
#include <functional>
#include <string>

#include "crm/event_report_format.h"
#include "tarnctl/rings/ring_walker.h"

namespace tarnctl {

class ReportTrail {
  public:
    using Take = std::function<void(const EventReport&)>;

    explicit ReportTrail(std::string path) : m_path(std::move(path)) {}

    // Calls `take` for each report that was written since the last call; the first call, and one
    // after the ring was made anew, only finds its place. False when reports were missed: the
    // writer came round in between, or what is there is no report.
    [[nodiscard]] bool Follow(const Take& take);

    // The ring is there and can be read.
    [[nodiscard]] bool IsOpen() const { return m_isOpen; }

  private:
    const std::string m_path;
    RingWalker m_ring;
    bool m_isOpen = false;
    uint32_t m_at = 0;  // ring offset of the next report
};

}  // namespace tarnctl
