#pragma once

// A sink with its place in the reports: how far it has come, and what there is to say about it.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "tarnctl/crm/report_sink.h"

namespace tarnctl {

class Outlet {
  public:
    explicit Outlet(std::unique_ptr<ReportSink> sink);

    // Returns an empty text, or the reason why it cannot begin.
    [[nodiscard]] std::string Open();

    // Brings on what it can of the lines that are held. The first Done() bytes of them it has had
    // before. True when it got any further.
    [[nodiscard]] bool Bring(std::string_view lines);

    // How many bytes of the lines that are held it no longer needs.
    [[nodiscard]] size_t Done() const { return m_done; }
    // So many bytes are held no longer.
    void Release(size_t bytes) { m_done -= bytes; }

    // What has changed since the last call: that it takes nothing, and why, or that it takes
    // reports again. Empty when nothing has.
    [[nodiscard]] std::string News();

    [[nodiscard]] ReportSink& Sink() { return *m_sink; }
    [[nodiscard]] const ReportSink& Sink() const { return *m_sink; }
    [[nodiscard]] uint64_t Taken() const { return m_taken; }

  private:
    std::unique_ptr<ReportSink> m_sink;
    size_t m_done = 0;
    uint64_t m_taken = 0;  // lines that the sink has taken
    std::string m_told;    // the failure that was told last; empty when all is well
};

}  // namespace tarnctl
