#include "crm/msg_comm.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "logging/log.h"
#include "threads/cancellation.h"

using vald::Log;

static_assert(sizeof(sockaddr_un) == 110);

MsgComm::MsgComm(std::string socketPath) : m_socketPath(std::move(socketPath)) {}

MsgComm::~MsgComm() {
    const CancellationOff off;
    if (IsOpen()) {
        Close();
    }
}

int MsgComm::Open() {
    if (IsOpen()) {
        Log::GetInstance()->Write(
            Log::kInfo, "MsgComm attempts to open message channel but it has been opened already.");
        return 0;
    }
    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        const int error = errno;
        Log::GetInstance()->Write(Log::kError, "socket() call failed: %s", std::strerror(error));
        return -1;
    }
    m_address = {};
    m_address.sun_family = AF_UNIX;
    std::snprintf(m_address.sun_path, sizeof(m_address.sun_path), "%s", m_socketPath.c_str());
    Log::GetInstance()->Write(Log::kDebug, "MsgComm opened message channel by fd = %d", m_fd);
    return 0;
}

void MsgComm::Close() {
    if (IsOpen()) {
        close(m_fd);
        Log::GetInstance()->Write(Log::kDebug, "MsgComm closed message channel of fd = %d", m_fd);
    } else {
        Log::GetInstance()->Write(
            Log::kInfo, "MsgComm attempts to close message channel but it is not opened yet.");
    }
    m_fd = -1;
}

int MsgComm::Send(const void* buffer, size_t length) {
    if (!IsOpen()) {
        Log::GetInstance()->Write(Log::kError,
                                  "MsgComm cannot send data because channel is not opened.");
        return -1;
    }
    Log::GetInstance()->Write(Log::kDebug, "MsgComm attempts to send %d bytes of data via fd %d",
                              static_cast<int>(length), m_fd);
    const ssize_t sent = sendto(m_fd, buffer, length, MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr*>(&m_address), sizeof(m_address));
    if (sent < 0 || static_cast<size_t>(sent) != length) {
        // Deliberate: a failure is reported in the same words, as -1 bytes that were sent.
        Log::GetInstance()->Write(Log::kError, "Only %d of %d bytes was sent via message channel.",
                                  static_cast<int>(sent), static_cast<int>(length));
        return -1;
    }
    return 0;
}

int MsgComm::SendErrorMessage(const char* text) {
    return SendMessage(tarn::crm::MessageKind::kError, text);
}

int MsgComm::SendInfoMessage(const char* text) {
    return SendMessage(tarn::crm::MessageKind::kInformation, text);
}

// Deliberate: a text of more than 512 bytes is cut after its 513th byte, with no NUL at the end.
// The CRM goes by the length word.
int MsgComm::SendMessage(tarn::crm::MessageKind kind, const char* text) {
    const size_t textBytes = strnlen(text, tarn::crm::kTextLimit) + 1;
    tarn::crm::MessageHeader header{};
    header.type = tarn::crm::kMessageType;
    header.length = static_cast<uint16_t>(sizeof(header) + textBytes);
    header.time = static_cast<uint32_t>(std::time(nullptr));
    header.kind = kind;

    std::array<uint8_t, tarn::crm::kMessageBytes> message;
    std::memcpy(message.data(), &header, sizeof(header));
    std::memcpy(message.data() + sizeof(header), text, textBytes);
    return Send(message.data(), header.length);
}
