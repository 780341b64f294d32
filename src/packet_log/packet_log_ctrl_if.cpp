#include "packet_log/packet_log_ctrl_if.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>

#include "logging/log.h"
#include "packet_log/connection_table.h"
#include "paths.h"
#include "ring/zero_pieces.h"
#include "threads/cancellation.h"
#include "threads/mutex_lock.h"

using vald::Log;

namespace PacketLogCtrl {
namespace {

constexpr useconds_t kRetryMicroseconds = 1000;
constexpr size_t kFixedPieces = 3;  // of a datagram: the message, its zeros, the payload

// The bytes of a packet that follow the datagram's 128.
uint32_t PayloadBytes(const LogControlMessage* message, const uint8_t* payload) {
    constexpr size_t kAt = offsetof(LogControlMessage_OffendingPacketCapture, iCapturedSize);
    int32_t capturedSize = 0;
    if (message->uType != kOffendingPacketCapture || payload == nullptr ||
        message->uLength < kAt + sizeof(capturedSize)) {
        return 0;
    }
    std::memcpy(&capturedSize, reinterpret_cast<const std::byte*>(message) + kAt,
                sizeof(capturedSize));
    return capturedSize >= 1 ? static_cast<uint32_t>(capturedSize) : 0;
}

// A socket with a number above 0, since 0 means a closed one. -1 with errno.
int OpenSocket() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd != 0) {
        return fd;
    }
    const int raised = fcntl(fd, F_DUPFD_CLOEXEC, 1);
    const int error = errno;
    close(fd);
    errno = error;
    return raised;
}

}  // namespace

PacketLogCtrlIF* PacketLogCtrlIF::m_pInstance = nullptr;
std::atomic<int32_t> PacketLogCtrlIF::m_iRefCount{0};
pthread_mutex_t PacketLogCtrlIF::s_CounterMutex = PTHREAD_MUTEX_INITIALIZER;
LOCK_FREE_HASH_MAP* PacketLogCtrlIF::m_pConnHashMap = nullptr;
pthread_mutex_t PacketLogCtrlIF::s_LEInterfacesMutex = PTHREAD_MUTEX_INITIALIZER;

PacketLogCtrlIF::PacketLogCtrlIF() {
    m_rpc.pending.head.uType = kConfigureRollingPacketCapture;
    m_rpc.pending.uFileFormat = kFormatPcap;
    m_rpc.applied = m_rpc.pending;
    m_dpc.pending.head.uType = kConfigureDropPacketCapture;
    m_dpc.pending.uMaxFiles = 1000;
    m_dpc.pending.uMaxFileSize = 500;
    m_dpc.applied = m_dpc.pending;
    SetDestination(tarn::paths::kPacketLogSocket);
    if (m_pConnHashMap == nullptr) {
        m_pConnHashMap = new LOCK_FREE_HASH_MAP;
    }
    m_pConnHashMap->Initialize();
}

PacketLogCtrlIF::~PacketLogCtrlIF() {
    const CancellationOff off;  // a cancel must not unwind out of a destructor
    Shutdown();
    delete m_pConnHashMap;
    m_pConnHashMap = nullptr;
}

PacketLogCtrlIF* PacketLogCtrlIF::GetInstance() {
    Log::GetInstance()->Write(Log::kDebug, "PacketLogCtrlIF::GetInstance(). count=%d",
                              m_iRefCount.load(std::memory_order_relaxed));
    const MutexLock lock(s_CounterMutex);
    if (m_pInstance == nullptr) {
        m_pInstance = new (std::nothrow) PacketLogCtrlIF;
        if (m_pInstance == nullptr) {
            return nullptr;
        }
    }
    m_iRefCount.fetch_add(1, std::memory_order_relaxed);
    return m_pInstance;
}

int32_t PacketLogCtrlIF::Release() {
    const MutexLock lock(s_CounterMutex);
    const int32_t remaining = m_iRefCount.fetch_sub(1, std::memory_order_relaxed) - 1;
    if (remaining == 0) {
        PacketLogCtrlIF* const instance = m_pInstance;
        m_pInstance = nullptr;
        delete instance;
    }
    return remaining;
}

uint32_t PacketLogCtrlIF::ConnectionCount() {
    return m_pConnHashMap != nullptr ? m_pConnHashMap->NodeCount() : 0;
}

void PacketLogCtrlIF::SetDestination(const char* path) {
    const size_t bytes = strnlen(path, sizeof(m_sockAddr.sun_path));
    m_sockAddr = {};
    m_sockAddr.sun_family = AF_UNIX;
    std::memcpy(m_sockAddr.sun_path, path, bytes);
    m_uSockAddrLen = static_cast<uint32_t>(offsetof(sockaddr_un, sun_path) + bytes);
}

int32_t PacketLogCtrlIF::OpenControlChannel() {
    if (!m_bEnabled) {
        Log::GetInstance()->Write(
            Log::kInfo,
            "Protection is disabled, so not initializing the control channel to the packet logging daemon.");
        return 0;
    }
    if (m_iSocket != 0) {
        return 0;
    }
    m_iSocket = OpenSocket();
    if (m_iSocket < 0) {
        const int error = errno;
        m_iSocket = 0;
        Log::GetInstance()->Write(
            Log::kError,
            "socket() failed trying to initialize the control channel to the daemon..  errno=%d",
            error);
        Log::GetInstance()->Write(Log::kError, "socket() error: %s", std::strerror(error));
        return -1;
    }
    return 0;
}

int32_t PacketLogCtrlIF::Initialize() {
    if (m_iSocket == 0 && OpenControlChannel() != 0) {
        return -1;
    }
    Log::GetInstance()->Write(Log::kDebug, "Log evidence throttling set to to %d seconds.",
                              static_cast<int>(m_uSuppressSeconds));
    SizeSendBuffer();
    m_uLEInterfaceMask.exchange(m_rpc.enabledPending == 1 ? m_rpc.pending.uInterfaces : 0);
    // The daemon is sent again at the next reload what it misses now, and every send counts its own
    // failures.
    (void)SendBare(kEngineStarting);
    (void)ApplyDpcSettings();
    return ApplyRpcSettings();
}

void PacketLogCtrlIF::SizeSendBuffer() const {
    Log* const log = Log::GetInstance();
    const int wanted = static_cast<int>(m_uBufferCtrlSize);
    // While sending is disabled there is no socket, and descriptor 0 belongs to somebody else.
    if (m_iSocket == 0 ||
        setsockopt(m_iSocket, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof(wanted)) != 0) {
        log->Write(
            Log::kDebug,
            "Failed setting log evidence control channel size to %d.  System will operate normally.",
            wanted);
        return;
    }
    int adjusted = 0;
    socklen_t bytes = sizeof(adjusted);
    if (getsockopt(m_iSocket, SOL_SOCKET, SO_SNDBUF, &adjusted, &bytes) == 0) {
        log->Write(Log::kDebug,
                   "After adjustment, the log evidnece control channel size was set to %d.",
                   adjusted);
    }
}

void PacketLogCtrlIF::Shutdown() {
    if (m_iSocket == 0) {
        return;
    }
    (void)SendBare(kEngineShuttingDown);  // a daemon that is gone needs no message
    close(m_iSocket);
    m_iSocket = 0;
}

int32_t PacketLogCtrlIF::SendControlMessage(const LogControlMessage* message,
                                            const uint8_t* payload, uint32_t now,
                                            uint32_t heldBytes) {
    if (!m_bEnabled) {
        return 0;
    }
    if (message->uLength > kControlDatagramBytes) {
        Log::GetInstance()->Write(
            Log::kError,
            "Message type %d not being sent.  It exceeds the allowable length of %d by %d bytes.",
            static_cast<int>(message->uType), static_cast<int>(kControlDatagramBytes),
            static_cast<int>(message->uLength - kControlDatagramBytes));
        return kTooLong;
    }
    m_uAttempted.fetch_add(1, std::memory_order_relaxed);
    // Deliberate: a notice is sent in the quiet period as well. Without it the daemon would end a
    // capture that is still wanted.
    if (IsQuiet(now) && message->uType != kConnectionCaptureNotice) {
        m_uThrottled.fetch_add(1, std::memory_order_relaxed);
        return kThrottled;
    }

    const uint32_t payloadBytes = PayloadBytes(message, payload);
    int error = TrySend(message, payload, payloadBytes, heldBytes);
    if (error != 0) {
        usleep(kRetryMicroseconds);
        error = TrySend(message, payload, payloadBytes, heldBytes);
    }
    if (error != 0) {
        if (now != 0) {
            m_uLastFailTime.store(now, std::memory_order_relaxed);
        }
        CountFailure(message->uType);
    }
    return error;
}

// The difference is unsigned, so a packet from before the failure counts as one from long after it.
// Deliberate: before any failure the first seconds of the epoch count as quiet. No packet of a
// working clock has such a time.
bool PacketLogCtrlIF::IsQuiet(uint32_t now) const {
    return now != 0 && now - m_uLastFailTime.load(std::memory_order_relaxed) < m_uSuppressSeconds;
}

// The datagram gathered from where its pieces are. 0, or the errno, which has been logged.
int PacketLogCtrlIF::TrySend(const LogControlMessage* message, const uint8_t* payload,
                             uint32_t payloadBytes, uint32_t heldBytes) const {
    static_assert(kControlDatagramBytes <= kZeroBlockBytes);
    const uint32_t held = std::min(payloadBytes, heldBytes);
    // The kernel only reads what a piece points at; the type of a piece cannot say so. The array is
    // not initialised, since all but the first pieces serve lying lengths only.
    std::array<iovec, kFixedPieces + kMostZeroPieces> pieces;
    pieces[0] = {const_cast<LogControlMessage*>(message), message->uLength};
    pieces[1] = {const_cast<std::byte*>(ZeroBlock()), kControlDatagramBytes - message->uLength};
    pieces[2] = {const_cast<uint8_t*>(payload), held};
    const auto end = GatherZeros(payloadBytes - held, pieces.begin() + kFixedPieces);
    msghdr datagram{};
    datagram.msg_name = const_cast<sockaddr_un*>(&m_sockAddr);
    datagram.msg_namelen = m_uSockAddrLen;
    datagram.msg_iov = pieces.data();
    datagram.msg_iovlen = static_cast<size_t>(end - pieces.begin());

    int error = ENOTSOCK;  // what descriptor 0 would give, which is not asked
    if (m_iSocket != 0) {
        error = sendmsg(m_iSocket, &datagram, MSG_DONTWAIT) >= 0 ? 0 : errno;
    }
    if (error != 0 && Log::Passes(Log::kDebug)) {
        Log::GetInstance()->Write(
            Log::kDebug,
            "Error sending control message of type %d to the packet logging daemon.  Message: %s",
            static_cast<int>(message->uType), std::strerror(error));
    }
    return error;
}

void PacketLogCtrlIF::CountFailure(uint32_t type) {
    std::atomic<uint32_t>* counter = nullptr;
    switch (type) {
        case kNewConnectionCapture:
            counter = &m_uFailNewConnection;
            break;
        case kInterfaceCapture:
            counter = &m_uFailInterfaceCapture;
            break;
        case kOffendingPacketCapture:
            counter = &m_uFailOffendingPacket;
            break;
        case kConfigureRollingPacketCapture:
            counter = &m_uFailConfigureRolling;
            break;
        case kStartDropPacketCapture:
            counter = &m_uFailStartDrop;
            break;
        case kConnectionCaptureNotice:
            counter = &m_uFailConnectionNotice;
            break;
        default:
            return;
    }
    counter->fetch_add(1, std::memory_order_relaxed);
}

int32_t PacketLogCtrlIF::SendBare(LogControlType type) {
    const LogControlMessage message{type, sizeof(message)};
    return SendControlMessage(&message, nullptr, 0);
}

}  // namespace PacketLogCtrl
