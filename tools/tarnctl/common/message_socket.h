#pragma once

// A datagram socket's receiving end: the CRM's for messages, the packet logging daemon's for
// requests.
//
// Threads: one at a time.

#include <array>
#include <chrono>
#include <cstddef>
#include <span>
#include <string>

#include "tarnctl/common/socket_file.h"

namespace tarnctl {

class MessageSocket {
  public:
    // Returns an empty string, or the reason why it failed.
    [[nodiscard]] std::string Open(const std::string& path);

    // Takes one datagram, of which `bytes` stays until the next call. False when none comes within
    // the time, and at a signal.
    [[nodiscard]] bool Next(std::span<const std::byte>& bytes, std::chrono::milliseconds time);

  private:
    SocketFile m_socket;
    std::array<std::byte, 262144> m_buffer;  // longer than any message, so that a long one shows
};

}  // namespace tarnctl
