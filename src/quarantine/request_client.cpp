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

void RequestClient::SetLog(LogCallback pfnLog, uint64_t uContext) {
    m_pfnLog = pfnLog;
    m_uLogContext = uContext;
}

RequestClient::LogCallback RequestClient::Report() const {
    return m_pfnLog != nullptr ? m_pfnLog : &DropReport;
}

bool RequestClient::Connect(const char* szPath, int32_t iTimeout) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", szPath);

    // Deliberate: a descriptor from an earlier Connect is not closed but lost. Whether the channel
    // is open is for the owner to know.
    m_iSocket = socket(AF_UNIX, SOCK_STREAM, 0);
    if (m_iSocket < 0) {
        const int iError = errno;
        Report()(m_uLogContext, kErrorLevel, "Unable to create socket, reason: %s",
                 std::strerror(iError));
        return false;
    }
    const int iFlags = fcntl(m_iSocket, F_GETFD);
    (void)fcntl(m_iSocket, F_SETFD,
                iFlags | FD_CLOEXEC);  // a child would merely inherit the socket

    const bool bLimited = iTimeout > 0;
    if (bLimited && !SetBlocking(false)) {
        Disconnect();
        return false;
    }
    const auto connectSocket = [&] {
        return connect(m_iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    };
    const int iResult = bLimited ? connectSocket() : InCancellationWindow(connectSocket);
    const bool bInProgress = iResult < 0 && errno == EINPROGRESS && bLimited;
    if (iResult < 0 && !(bInProgress && AwaitConnection(iTimeout))) {
        const int iError = errno;
        Report()(m_uLogContext, kErrorLevel, "Unable to connect socket, reason: %s",
                 std::strerror(iError));
        Disconnect();
        return false;
    }
    if (bLimited && !SetBlocking(true)) {
        Disconnect();
        return false;
    }
    return true;
}

void RequestClient::Disconnect() {
    if (m_iSocket < 0) {
        return;
    }
    const CancellationOff whole;  // close is a cancellation point, and destructors come this way
    close(m_iSocket);
    m_iSocket = -1;
}

bool RequestClient::SendRequest(uint32_t uType, const void* pBody, uint64_t uLength) {
    if (m_iSocket < 0) {
        return false;
    }
    const bool bHasBody = pBody != nullptr && uLength != 0;
    const RequestHeader header{uType, bHasBody ? static_cast<uint32_t>(uLength) : 0};
    const int iMore = bHasBody ? MSG_MORE : 0;
    if (send(m_iSocket, &header, sizeof(header), kSendFlags | iMore) < 0) {
        return false;
    }
    // Deliberate: a short count passes for success. What the socket could not take shows as an
    // answer that never comes, which the owner has to deal with in any case.
    return !bHasBody || send(m_iSocket, pBody, uLength, kSendFlags) >= 0;
}

bool RequestClient::ReceiveResponse(uint8_t** ppBuffer, uint64_t* puSize, int32_t iTimeout) {
    *ppBuffer = nullptr;
    ResponseHeader header{};
    if (!ReceiveHeader(header, puSize, iTimeout)) {
        return false;
    }
    // The memory is left untouched until bytes arrive, so a length that lies costs address space
    // and no more.
    const std::size_t uBody = header.bodyLength;
    auto pBuffer = std::make_unique_for_overwrite<uint8_t[]>(sizeof(header) + uBody);
    std::memcpy(pBuffer.get(), &header, sizeof(header));

    // Deliberate: a body that ends early is no failure here. The size tells, and the owner judges.
    *puSize += Receive(pBuffer.get() + sizeof(header), uBody);
    *ppBuffer = pBuffer.release();
    return true;
}

bool RequestClient::ReceiveRecords(uint8_t** ppBuffer, uint64_t* puSize, uint64_t uRecordSize,
                                   int32_t iTimeout) {
    *ppBuffer = nullptr;
    ResponseHeader header{};
    if (!ReceiveHeader(header, puSize, iTimeout)) {
        return false;
    }
    constexpr uint32_t kMaxTotal = std::numeric_limits<uint32_t>::max();
    const uint64_t uCount = header.bodyLength;
    if (uRecordSize != 0 && uCount > kMaxTotal / uRecordSize) {
        Report()(m_uLogContext, kErrorLevel, "read %u of %u data bytes", 0U, kMaxTotal);
        return false;
    }
    const auto uTotal = static_cast<uint32_t>(uCount * uRecordSize);
    const std::size_t uRecordsAt = sizeof(header) + uCount * sizeof(iovec);
    auto pBuffer = std::make_unique_for_overwrite<uint8_t[]>(uRecordsAt + uTotal);
    std::memcpy(pBuffer.get(), &header, sizeof(header));

    uint8_t* const pRecords = pBuffer.get() + uRecordsAt;
    if (!ReceiveAll(pRecords, uTotal)) {
        return false;
    }
    // The vector comes last, so that a count that lies touches no memory before its records came.
    for (uint64_t i = 0; i < uCount; ++i) {
        const iovec record{pRecords + i * uRecordSize, uRecordSize};
        std::memcpy(pBuffer.get() + sizeof(header) + i * sizeof(iovec), &record, sizeof(record));
    }
    *puSize += uTotal;
    *ppBuffer = pBuffer.release();
    return true;
}

template <typename ReceiveAnswer>
bool RequestClient::Exchange(const char* szPath, uint32_t uType, const void* pBody,
                             uint64_t uLength, int32_t iTimeout, ReceiveAnswer receiveAnswer) {
    if (!Connect(szPath, iTimeout)) {
        return false;
    }
    const DisconnectAtEnd disconnect(*this);
    return SendRequest(uType, pBody, uLength) && receiveAnswer();
}

bool RequestClient::Transact(const char* szPath, uint32_t uType, const void* pBody,
                             uint64_t uLength, uint8_t** ppBuffer, uint64_t* puSize,
                             int32_t iTimeout) {
    return Exchange(szPath, uType, pBody, uLength, iTimeout, [&] {
        return ppBuffer == nullptr || puSize == nullptr ||
               ReceiveResponse(ppBuffer, puSize, iTimeout);
    });
}

bool RequestClient::TransactRecords(const char* szPath, uint32_t uType, const void* pBody,
                                    uint64_t uLength, uint8_t** ppBuffer, uint64_t* puSize,
                                    uint64_t uRecordSize, int32_t iTimeout) {
    return Exchange(szPath, uType, pBody, uLength, iTimeout, [&] {
        return ppBuffer == nullptr || puSize == nullptr ||
               ReceiveRecords(ppBuffer, puSize, uRecordSize, iTimeout);
    });
}

void RequestClient::FreeResponse(uint8_t* pBuffer) {
    delete[] pBuffer;
}

int RequestClient::WaitUntil(Readiness eReadiness, int32_t iTimeout) const {
    if (m_iSocket >= FD_SETSIZE) {
        errno = EMFILE;  // select would write beyond its set
        return -1;
    }
    // select counts the limit down, so that a repeated call waits for the rest of it only.
    timeval limit{iTimeout, 0};
    int iResult = -1;
    for (int iAttempt = 0; iAttempt < kWaitAttempts; ++iAttempt) {
        fd_set sockets;
        FD_ZERO(&sockets);
        FD_SET(m_iSocket, &sockets);
        fd_set* const pToRead = eReadiness == Readiness::ToRead ? &sockets : nullptr;
        fd_set* const pToWrite = eReadiness == Readiness::ToWrite ? &sockets : nullptr;
        iResult = InCancellationWindow(
            [&] { return select(m_iSocket + 1, pToRead, pToWrite, nullptr, &limit); });
        if (iResult >= 0 || errno != EINTR) {
            break;
        }
    }
    return iResult;
}

// Deliberate: a writable socket counts as connected, without a look at its pending error. A peer
// that refused after all shows at the first send. A limit that ran out leaves errno as it stood.
bool RequestClient::AwaitConnection(int32_t iTimeout) const {
    return WaitUntil(Readiness::ToWrite, iTimeout) > 0;
}

bool RequestClient::SetBlocking(bool bBlocking) const {
    const int iFlags = fcntl(m_iSocket, F_GETFL);
    if (iFlags < 0) {
        return false;
    }
    const int iWanted = bBlocking ? iFlags & ~O_NONBLOCK : iFlags | O_NONBLOCK;
    return fcntl(m_iSocket, F_SETFL, iWanted) >= 0;
}

std::size_t RequestClient::Receive(uint8_t* pTarget, std::size_t uLength) const {
    std::size_t uGot = 0;
    while (uGot < uLength) {
        const ssize_t iResult = InCancellationWindow(
            [&] { return recv(m_iSocket, pTarget + uGot, uLength - uGot, 0); });
        if (iResult == 0) {
            break;
        }
        if (iResult < 0) {
            const int iError = errno;
            if (iError == EINTR) {
                continue;
            }
            Report()(m_uLogContext, kErrorLevel, "recv returned %d: %d\n",
                     static_cast<int>(iResult), iError);
            break;
        }
        uGot += static_cast<std::size_t>(iResult);
    }
    return uGot;
}

bool RequestClient::ReceiveHeader(ResponseHeader& header, uint64_t* puSize,
                                  int32_t iTimeout) const {
    if (m_iSocket < 0) {
        return false;
    }
    *puSize = 0;
    const int iReady = WaitUntil(Readiness::ToRead, iTimeout);
    if (iReady < 0) {
        const int iError = errno;
        Report()(m_uLogContext, kErrorLevel, "Failed to wait for response, reason: %s",
                 std::strerror(iError));
        return false;
    }
    if (iReady == 0) {
        Report()(m_uLogContext, kErrorLevel, "Timeout waiting for response.");
        return false;
    }
    uint8_t bytes[sizeof(header)];
    const std::size_t uGot = Receive(bytes, sizeof(bytes));
    if (uGot != sizeof(bytes)) {
        Report()(m_uLogContext, kErrorLevel, "Unexpected response length: %zu", uGot);
        return false;
    }
    std::memcpy(&header, bytes, sizeof(header));
    *puSize = uGot;
    return true;
}

bool RequestClient::ReceiveAll(uint8_t* pTarget, uint32_t uTotal) const {
    uint32_t uGot = 0;
    while (uGot < uTotal) {
        const iovec rest{pTarget + uGot, uTotal - uGot};
        const ssize_t iResult = InCancellationWindow([&] { return readv(m_iSocket, &rest, 1); });
        if (iResult == 0) {
            Report()(m_uLogContext, kErrorLevel, "read %u of %u data bytes", uGot, uTotal);
            return false;
        }
        if (iResult < 0) {
            const int iError = errno;
            if (iError == EINTR) {
                continue;
            }
            Report()(m_uLogContext, kErrorLevel, "readv error: %s", std::strerror(iError));
            return false;
        }
        uGot += static_cast<uint32_t>(iResult);
    }
    return true;
}
