#pragma once

// Sender of short text messages to the CRM, as datagrams on its message socket.
// Nothing is read back, and nothing is tried again here. SnortErrorReader owns the one there is and
// opens it on demand. docs/formats/crm_message.md describes the message.
//
// Threads: no lock; one thread uses it. A send does not wait.

#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "crm/crm_message_format.h"
#include "paths.h"

class MsgComm {
  public:
    explicit MsgComm(std::string socketPath = tarn::paths::kCrmMessageSocket);
    // Closes the channel when it is open.
    ~MsgComm();
    MsgComm(const MsgComm&) = delete;
    MsgComm& operator=(const MsgComm&) = delete;

    // Makes the socket; the receiver need not be there. Returns 0, also when it was open already,
    // or -1.
    [[nodiscard]] int Open();

    // Closes the socket; a channel that is not open is only logged.
    void Close();

    // Deliberate: a socket that came as descriptor 0 counts as not open. Zero marks a channel that
    // was never opened, and Close leaves that descriptor taken, so the next Open gets another one.
    [[nodiscard]] bool IsOpen() const { return m_fd > 0; }

    // Sends the bytes as one datagram. Returns 0, or -1 when the channel is not open or the
    // receiver is absent or full.
    [[nodiscard]] int Send(const void* buffer, size_t length);

    // Send the text, never null, as an error or an information message; at most 513 bytes of it.
    // Each returns what Send gives.
    [[nodiscard]] int SendErrorMessage(const char* text);
    [[nodiscard]] int SendInfoMessage(const char* text);

  private:
    int SendMessage(tarn::crm::MessageKind kind, const char* text);

    int32_t m_fd = -1;        // owned; 0 and below count as not open
    sockaddr_un m_address{};  // of the receiver; filled in by Open
    const std::string m_socketPath;
};
