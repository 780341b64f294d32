#pragma once

// The control socket of the feeder: tarnctl/common/feed_words.h has what is said on it.
//
// The socket also keeps two feeders of one bookmark apart.
//
// Threads: one at a time; nothing here waits.

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tarnctl/common/line_server.h"

namespace tarnctl {

class ControlServer {
  public:
    // Answers a word; the answer is one line without its end.
    using Answer = std::function<std::string(const std::string& word)>;

    // An empty text, or the reason.
    [[nodiscard]] std::string Open(const std::string& path) { return m_server.Open(path); }

    // Takes connections and words, and answers them.
    void Serve(const Answer& answer);
    // True while the connection that asked for a hold is there and has not released it.
    [[nodiscard]] bool IsHeld() const { return m_holder != kNobody; }

    // What poll(2) has to look at.
    void AddTo(std::vector<pollfd>& entries) const { m_server.AddTo(entries); }

  private:
    static constexpr size_t kLongestWord = 256;  // bytes
    static constexpr uint64_t kNobody = 0;

    LineServer m_server{kLongestWord};
    uint64_t m_holder = kNobody;  // the connection that holds
};

}  // namespace tarnctl
