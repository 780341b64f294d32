#pragma once

// A sink with its place in the reports: how far it has come, what waits for it, and what there is
// to say about it.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "tarnctl/crm/report_sink.h"
#include "tarnctl/crm/spill_file.h"

namespace tarnctl {

class Outlet {
  public:
    // Without a spill file, which may be null, reports wait where they are held.
    Outlet(std::unique_ptr<ReportSink> sink, std::unique_ptr<SpillFile> spill);

    // Returns an empty text, or the reason why it cannot begin.
    [[nodiscard]] std::string Open();

    // Brings on what it can of the lines that are held. The first Done() bytes of them it has had
    // before. True when it got any further.
    [[nodiscard]] bool Bring(std::string_view lines);

    // How many bytes of the lines that are held it no longer needs.
    [[nodiscard]] size_t Done() const { return m_done; }
    // So many bytes are held no longer.
    void Release(size_t bytes) { m_done -= bytes; }

    // What has changed since the last call: that it takes nothing, and why, that reports are lost,
    // or that it takes reports again. Empty when nothing has.
    [[nodiscard]] std::string News();

    [[nodiscard]] ReportSink& Sink() { return *m_sink; }
    [[nodiscard]] const ReportSink& Sink() const { return *m_sink; }
    [[nodiscard]] uint64_t Taken() const { return m_taken; }
    // Null where there is none.
    [[nodiscard]] const SpillFile* Spill() const { return m_spill.get(); }

  private:
    [[nodiscard]] size_t Offer(std::string_view lines);
    [[nodiscard]] bool Drain();
    [[nodiscard]] bool Keep(std::string_view lines);

    std::unique_ptr<ReportSink> m_sink;
    std::unique_ptr<SpillFile> m_spill;
    size_t m_done = 0;
    uint64_t m_taken = 0;  // lines that the sink has taken
    std::string m_told;    // the failure that was told last; empty when all is well
    uint64_t m_lost = 0;   // lines that were lost when that was told last
    bool m_isLossTold = false;
};

}  // namespace tarnctl
