#pragma once

// Sends lines to whoever listens on a Unix stream socket.
//
// A line is taken when the other end has read it: the kernel says how much of what was sent is
// still unread. If the other end goes away with lines unread, they were not taken and go to the
// next one that listens.
//
// Threads: one at a time.

#include <string>

#include "tarnctl/crm/report_sink.h"

namespace tarnctl {

class EveSocket final : public ReportSink {
  public:
    explicit EveSocket(const std::string& path);
    ~EveSocket() override;

    [[nodiscard]] std::string Open() override;
    [[nodiscard]] size_t Take(std::string_view lines) override;
    void Forget() override { Disconnect(); }
    void Reopen() override;

  private:
    [[nodiscard]] bool Connect();
    void Disconnect();
    void Fail(int error);

    const std::string m_path;
    int m_fd = -1;      // owned
    size_t m_sent = 0;  // bytes of what is offered next that were sent already
};

}  // namespace tarnctl
