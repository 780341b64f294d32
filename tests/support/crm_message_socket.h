#pragma once

// The CRM's end of its message socket: takes what MsgComm sends, one message after the other.
//
// Threads: the test's own.

#include <cstring>
#include <string>
#include <utility>

#include "crm/crm_message_format.h"
#include "support/bound_socket.h"

class CrmMessageSocket {
  public:
    explicit CrmMessageSocket(std::string path) : m_socket(SOCK_DGRAM, std::move(path)) {}

    // The next message as its kind ("E" or "I"), a blank, and its text; empty when none comes
    // within the time.
    [[nodiscard]] std::string Take(int timeoutMs = 0) const {
        const BoundSocket::Bytes message = m_socket.Take(timeoutMs);
        if (message.empty()) {
            return {};
        }
        tarn::crm::MessageHeader header{};
        if (message.size() <= sizeof(header)) {
            return "cut";
        }
        std::memcpy(&header, message.data(), sizeof(header));
        const std::string text(message.begin() + sizeof(header), message.end() - 1);
        return (header.kind == tarn::crm::MessageKind::kError ? "E " : "I ") + text;
    }

  private:
    const BoundSocket m_socket;
};
