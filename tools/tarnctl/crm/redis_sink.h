#pragma once

// Appends lines to a stream of a Redis server, one entry with the field `eve` for each.
//
// A line is taken when the server has answered with the id of its entry. Many are under way at a
// time; those that had no answer when a connection ends are sent again on the next one, so that
// they may be there twice. How safe an entry is from then on is the server's own matter. The stream
// is kept at about its limit of entries, by the server.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "tarnctl/crm/report_sink.h"

struct redisContext;

namespace tarnctl {

class RedisSink final : public ReportSink {
  public:
    // `server` is HOST:PORT, [ADDRESS]:PORT or unix:PATH, and `limit` the entries that the stream
    // keeps.
    RedisSink(const std::string& server, std::string stream, uint64_t limit);
    ~RedisSink() override;

    [[nodiscard]] std::string Open() override;
    [[nodiscard]] size_t Take(std::string_view lines) override;
    void Forget() override { Disconnect(); }
    void Reopen() override;

  private:
    [[nodiscard]] bool Connect();
    [[nodiscard]] bool IsConnected(Clock::time_point deadline);
    void Disconnect();
    void Send(std::string_view lines);
    [[nodiscard]] size_t TakeAnswers();
    [[nodiscard]] bool Exchange(Clock::time_point deadline);
    void Fail(const std::string& reason);
    void FailAtConnection();

    const std::string m_server;
    const std::string m_stream;
    const std::string m_limit;
    std::string m_host;  // or the path of a socket, with a port of 0
    uint16_t m_port = 0;
    redisContext* m_context = nullptr;  // owned
    bool m_isConnected = false;
    bool m_isAllSent = true;         // nothing waits in the library's buffer
    std::deque<size_t> m_underWay;   // bytes of each line that was sent and has no answer yet
    size_t m_sent = 0;               // bytes of what is offered next that were sent already
    Clock::time_point m_lastAnswer;  // or when the first of those lines was sent
};

}  // namespace tarnctl
