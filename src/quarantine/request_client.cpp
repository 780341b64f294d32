#include "quarantine/request_client.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

#include "quarantine/security_manager_format.h"
#include "threads/cancellation.h"

namespace {

using tarn::secmgr::RequestHeader;
using tarn::secmgr::ResponseHeader;

constexpr uint32_t kErrorLevel = 1;
constexpr int kWaitAttempts = 5;

// A peer that closed gives EPIPE, also in a process that has not blocked SIGPIPE.
constexpr int kSendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;

// Runs one waiting call as a window for a cancel. The guard leaves errno as the call set it.
template <typename Call>
auto InCancellationWindow(Call call) {
    const CancellationOn window;
    return call();
}

__attribute__((format(printf, 3, 4))) void DropReport(uint64_t, uint32_t, const char*, ...) {}

// An exchange that has connected disconnects on every way out, also when an answer finds no memory
// and when the thread is cancelled.
class DisconnectAtEnd {
  public:
    explicit DisconnectAtEnd(RequestClient& client) : m_client(client) {}
    ~DisconnectAtEnd() { m_client.Disconnect(); }
    DisconnectAtEnd(const DisconnectAtEnd&) = delete;
    DisconnectAtEnd& operator=(const DisconnectAtEnd&) = delete;

  private:
    RequestClient& m_client;
};

}  // namespace

RequestClient::~RequestClient() {
    Disconnect();
}

void RequestClient::SetLog(LogCallback log, uint64_t context) {
    m_pfnLog = log;
    m_uLogContext = context;
}

RequestClient::LogCallback RequestClient::Report() const {
    return m_pfnLog != nullptr ? m_pfnLog : &DropReport;
}

bool RequestClient::Connect(const char* path, int32_t timeout) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path);

    // Deliberate: a descriptor from an earlier Connect is not closed but lost. The owner keeps its
    // own record of whether the channel is open.
    m_iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_iSocket < 0) {
        const int error = errno;
        Report()(m_uLogContext, kErrorLevel, "Unable to create socket, reason: %s",
                 std::strerror(error));
        return false;
    }

    const bool limited = timeout > 0;
    if (limited && !SetBlocking(false)) {
        Disconnect();
        return false;
    }
    const auto connectSocket = [&] {
        return connect(m_iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    };
    const int result = limited ? connectSocket() : InCancellationWindow(connectSocket);
    const bool inProgress = result < 0 && errno == EINPROGRESS && limited;
    if (result < 0 && !(inProgress && AwaitConnection(timeout))) {
        const int error = errno;
        Report()(m_uLogContext, kErrorLevel, "Unable to connect socket, reason: %s",
                 std::strerror(error));
        Disconnect();
        return false;
    }
    if (limited && !SetBlocking(true)) {
        Disconnect();
        return false;
    }
    return true;
}

void RequestClient::Disconnect() {
    if (m_iSocket < 0) {
        return;
    }
    const CancellationOff off;  // close is a cancellation point, and destructors call this
    close(m_iSocket);
    m_iSocket = -1;
}

bool RequestClient::SendRequest(uint32_t type, const void* body, uint64_t length) {
    if (m_iSocket < 0) {
        return false;
    }
    const bool hasBody = body != nullptr && length != 0;
    const RequestHeader header{type, hasBody ? static_cast<uint32_t>(length) : 0};
    const int more = hasBody ? MSG_MORE : 0;
    if (send(m_iSocket, &header, sizeof(header), kSendFlags | more) < 0) {
        return false;
    }
    // Deliberate: a short count counts as success. When the socket could not take the whole body,
    // no answer comes, and the owner handles a missing answer in any case.
    return !hasBody || send(m_iSocket, body, length, kSendFlags) >= 0;
}

bool RequestClient::ReceiveResponse(uint8_t** buffer, uint64_t* size, int32_t timeout) {
    *buffer = nullptr;
    ResponseHeader header{};
    if (!ReceiveHeader(header, size, timeout)) {
        return false;
    }
    // The memory is not touched until bytes arrive, so a false length costs address space only.
    const size_t bodyBytes = header.bodyLength;
    auto answer = std::make_unique_for_overwrite<uint8_t[]>(sizeof(header) + bodyBytes);
    std::memcpy(answer.get(), &header, sizeof(header));

    // Deliberate: a body that ends early is no failure here. The owner sees it in the size.
    *size += Receive(answer.get() + sizeof(header), bodyBytes);
    *buffer = answer.release();
    return true;
}

bool RequestClient::ReceiveRecords(uint8_t** buffer, uint64_t* size, uint64_t recordSize,
                                   int32_t timeout) {
    *buffer = nullptr;
    ResponseHeader header{};
    if (!ReceiveHeader(header, size, timeout)) {
        return false;
    }
    constexpr uint32_t kMaxTotal = std::numeric_limits<uint32_t>::max();
    const uint64_t count = header.bodyLength;
    if (recordSize != 0 && count > kMaxTotal / recordSize) {
        Report()(m_uLogContext, kErrorLevel, "read %u of %u data bytes", 0U, kMaxTotal);
        return false;
    }
    const auto total = static_cast<uint32_t>(count * recordSize);
    const size_t recordsAt = sizeof(header) + count * sizeof(iovec);
    auto answer = std::make_unique_for_overwrite<uint8_t[]>(recordsAt + total);
    std::memcpy(answer.get(), &header, sizeof(header));

    uint8_t* const records = answer.get() + recordsAt;
    if (!ReceiveAll(records, total)) {
        return false;
    }
    // The vector is filled last, so that a false count touches no memory before its records arrive.
    for (uint64_t i = 0; i < count; ++i) {
        const iovec record{records + i * recordSize, recordSize};
        std::memcpy(answer.get() + sizeof(header) + i * sizeof(iovec), &record, sizeof(record));
    }
    *size += total;
    *buffer = answer.release();
    return true;
}

template <typename ReceiveAnswer>
bool RequestClient::Exchange(const char* path, uint32_t type, const void* body, uint64_t length,
                             int32_t timeout, ReceiveAnswer receiveAnswer) {
    if (!Connect(path, timeout)) {
        return false;
    }
    const DisconnectAtEnd disconnect(*this);
    return SendRequest(type, body, length) && receiveAnswer();
}

bool RequestClient::Transact(const char* path, uint32_t type, const void* body, uint64_t length,
                             uint8_t** buffer, uint64_t* size, int32_t timeout) {
    return Exchange(path, type, body, length, timeout, [&] {
        return buffer == nullptr || size == nullptr || ReceiveResponse(buffer, size, timeout);
    });
}

bool RequestClient::TransactRecords(const char* path, uint32_t type, const void* body,
                                    uint64_t length, uint8_t** buffer, uint64_t* size,
                                    uint64_t recordSize, int32_t timeout) {
    return Exchange(path, type, body, length, timeout, [&] {
        return buffer == nullptr || size == nullptr ||
               ReceiveRecords(buffer, size, recordSize, timeout);
    });
}

void RequestClient::FreeResponse(uint8_t* buffer) {
    delete[] buffer;
}

int RequestClient::WaitUntil(Readiness readiness, int32_t timeout) const {
    if (m_iSocket >= FD_SETSIZE) {
        errno = EMFILE;  // select would write beyond its set
        return -1;
    }
    // select reduces the limit by the time that it waited, so that a repeated call waits for the
    // rest.
    timeval limit{timeout, 0};
    int result = -1;
    for (int attempt = 0; attempt < kWaitAttempts; ++attempt) {
        fd_set sockets;
        FD_ZERO(&sockets);
        FD_SET(m_iSocket, &sockets);
        fd_set* const toRead = readiness == Readiness::kToRead ? &sockets : nullptr;
        fd_set* const toWrite = readiness == Readiness::kToWrite ? &sockets : nullptr;
        result = InCancellationWindow(
            [&] { return select(m_iSocket + 1, toRead, toWrite, nullptr, &limit); });
        if (result >= 0 || errno != EINTR) {
            break;
        }
    }
    return result;
}

// Deliberate: a writable socket counts as connected, and its pending error is not read. If the peer
// refused after all, the first send fails. When the limit runs out, errno stays as it was.
bool RequestClient::AwaitConnection(int32_t timeout) const {
    return WaitUntil(Readiness::kToWrite, timeout) > 0;
}

bool RequestClient::SetBlocking(bool blocking) const {
    const int flags = fcntl(m_iSocket, F_GETFL);
    if (flags < 0) {
        return false;
    }
    const int wanted = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
    return fcntl(m_iSocket, F_SETFL, wanted) >= 0;
}

size_t RequestClient::Receive(uint8_t* target, size_t length) const {
    size_t got = 0;
    while (got < length) {
        const ssize_t result =
            InCancellationWindow([&] { return recv(m_iSocket, target + got, length - got, 0); });
        if (result == 0) {
            break;
        }
        if (result < 0) {
            const int error = errno;
            if (error == EINTR) {
                continue;
            }
            Report()(m_uLogContext, kErrorLevel, "recv returned %d: %d\n", static_cast<int>(result),
                     error);
            break;
        }
        got += static_cast<size_t>(result);
    }
    return got;
}

bool RequestClient::ReceiveHeader(ResponseHeader& header, uint64_t* size, int32_t timeout) const {
    if (m_iSocket < 0) {
        return false;
    }
    *size = 0;
    const int ready = WaitUntil(Readiness::kToRead, timeout);
    if (ready < 0) {
        const int error = errno;
        Report()(m_uLogContext, kErrorLevel, "Failed to wait for response, reason: %s",
                 std::strerror(error));
        return false;
    }
    if (ready == 0) {
        Report()(m_uLogContext, kErrorLevel, "Timeout waiting for response.");
        return false;
    }
    uint8_t bytes[sizeof(header)];
    const size_t got = Receive(bytes, sizeof(bytes));
    if (got != sizeof(bytes)) {
        Report()(m_uLogContext, kErrorLevel, "Unexpected response length: %zu", got);
        return false;
    }
    std::memcpy(&header, bytes, sizeof(header));
    *size = got;
    return true;
}

bool RequestClient::ReceiveAll(uint8_t* target, uint32_t total) const {
    uint32_t got = 0;
    while (got < total) {
        const iovec rest{target + got, total - got};
        const ssize_t result = InCancellationWindow([&] { return readv(m_iSocket, &rest, 1); });
        if (result == 0) {
            Report()(m_uLogContext, kErrorLevel, "read %u of %u data bytes", got, total);
            return false;
        }
        if (result < 0) {
            const int error = errno;
            if (error == EINTR) {
                continue;
            }
            Report()(m_uLogContext, kErrorLevel, "readv error: %s", std::strerror(error));
            return false;
        }
        got += static_cast<uint32_t>(result);
    }
    return true;
}
