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

#include "logging/log.h"
#include "packet_log/connection_table.h"
#include "paths.h"
#include "ring/zero_pieces.h"
#include "threads/cancellation.h"

using vald::Log;

namespace PacketLogCtrl {
namespace {

constexpr useconds_t kRetryMicroseconds = 1000;
constexpr std::size_t kFixedPieces = 3;  // of a datagram: the message, its zeros, the payload

// The bytes of a packet that follow the datagram's 128.
uint32_t PayloadBytes(const LogControlMessage* pMessage, const uint8_t* pPayload) {
    constexpr std::size_t kAt = offsetof(LogControlMessage_OffendingPacketCapture, iCapturedSize);
    int32_t iCapturedSize = 0;
    if (pMessage->uType != kOffendingPacketCapture || pPayload == nullptr ||
        pMessage->uLength < kAt + sizeof iCapturedSize) {
        return 0;
    }
    std::memcpy(&iCapturedSize, reinterpret_cast<const std::byte*>(pMessage) + kAt,
                sizeof iCapturedSize);
    return iCapturedSize >= 1 ? static_cast<uint32_t>(iCapturedSize) : 0;
}

// A socket whose number says that it is open: 0 stands for a closed one. -1 with errno.
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
std::mutex PacketLogCtrlIF::s_CounterMutex;
LOCK_FREE_HASH_MAP* PacketLogCtrlIF::m_pConnHashMap = nullptr;
pthread_mutex_t PacketLogCtrlIF::s_LEInterfacesMutex = PTHREAD_MUTEX_INITIALIZER;

PacketLogCtrlIF::PacketLogCtrlIF() {
    m_rpcApplied.head.uType = kConfigureRollingPacketCapture;
    m_rpcApplied.uFileFormat = kFormatPcap;
    m_rpcPending = m_rpcApplied;
    m_dpcApplied.head.uType = kConfigureDropPacketCapture;
    m_dpcApplied.uMaxFiles = 1000;
    m_dpcApplied.uMaxFileSize = 500;
    m_dpcPending = m_dpcApplied;
    SetDestination(tarn::paths::kPacketLogSocket);
    if (m_pConnHashMap == nullptr) {
        m_pConnHashMap = new LOCK_FREE_HASH_MAP;
    }
    m_pConnHashMap->Initialize();
}

PacketLogCtrlIF::~PacketLogCtrlIF() {
    const CancellationOff whole;  // a cancel must not unwind out of a destructor
    Shutdown();
    delete m_pConnHashMap;
    m_pConnHashMap = nullptr;
}

PacketLogCtrlIF* PacketLogCtrlIF::GetInstance() {
    Log::GetInstance()->Write(Log::kDebug, "PacketLogCtrlIF::GetInstance(). count=%d",
                              m_iRefCount.load(std::memory_order_relaxed));
    const std::lock_guard lock(s_CounterMutex);
    if (m_pInstance == nullptr) {
        m_pInstance = new PacketLogCtrlIF;
    }
    m_iRefCount.fetch_add(1, std::memory_order_relaxed);
    return m_pInstance;
}

int32_t PacketLogCtrlIF::Release() {
    const std::lock_guard lock(s_CounterMutex);
    const int32_t iRemaining = m_iRefCount.fetch_sub(1, std::memory_order_relaxed) - 1;
    if (iRemaining == 0) {
        PacketLogCtrlIF* const pInstance = m_pInstance;
        m_pInstance = nullptr;
        delete pInstance;
    }
    return iRemaining;
}

uint32_t PacketLogCtrlIF::ConnectionCount() {
    return m_pConnHashMap != nullptr ? m_pConnHashMap->NodeCount() : 0;
}

void PacketLogCtrlIF::SetDestination(const char* szPath) {
    const std::size_t uBytes = strnlen(szPath, sizeof m_sockAddr.sun_path);
    m_sockAddr = {};
    m_sockAddr.sun_family = AF_UNIX;
    std::memcpy(m_sockAddr.sun_path, szPath, uBytes);
    m_uSockAddrLen = static_cast<uint32_t>(offsetof(sockaddr_un, sun_path) + uBytes);
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
    m_uLEInterfaceMask.exchange(m_iRpcEnabledPending == 1 ? m_rpcPending.uInterfaces : 0);
    // What the daemon misses it learns at the next reload, and every send counts its own failures.
    (void)SendBare(kEngineStarting);
    (void)ApplyDpcSettings();
    return ApplyRpcSettings();
}

void PacketLogCtrlIF::SizeSendBuffer() const {
    Log* const pLog = Log::GetInstance();
    const int iWanted = static_cast<int>(m_uBufferCtrlSize);
    // While sending is off there is no socket, and descriptor 0 belongs to somebody else.
    if (m_iSocket == 0 ||
        setsockopt(m_iSocket, SOL_SOCKET, SO_SNDBUF, &iWanted, sizeof iWanted) != 0) {
        pLog->Write(
            Log::kDebug,
            "Failed setting log evidence control channel size to %d.  System will operate normally.",
            iWanted);
        return;
    }
    int iAdjusted = 0;
    socklen_t uBytes = sizeof iAdjusted;
    if (getsockopt(m_iSocket, SOL_SOCKET, SO_SNDBUF, &iAdjusted, &uBytes) == 0) {
        pLog->Write(Log::kDebug,
                    "After adjustment, the log evidnece control channel size was set to %d.",
                    iAdjusted);
    }
}

void PacketLogCtrlIF::Shutdown() {
    if (m_iSocket == 0) {
        return;
    }
    (void)SendBare(kEngineShuttingDown);  // a daemon that is gone needs no good-bye
    close(m_iSocket);
    m_iSocket = 0;
}

int32_t PacketLogCtrlIF::SendControlMessage(const LogControlMessage* pMessage,
                                            const uint8_t* pPayload, uint32_t uNow,
                                            uint32_t uHeldBytes) {
    if (!m_bEnabled) {
        return 0;
    }
    if (pMessage->uLength > kControlDatagramBytes) {
        Log::GetInstance()->Write(
            Log::kError,
            "Message type %d not being sent.  It exceeds the allowable length of %d by %d bytes.",
            static_cast<int>(pMessage->uType), static_cast<int>(kControlDatagramBytes),
            static_cast<int>(pMessage->uLength - kControlDatagramBytes));
        return kTooLong;
    }
    m_uAttempted.fetch_add(1, std::memory_order_relaxed);
    // Deliberate: a notice passes in the quiet period, since the daemon must learn that a capture
    // goes on or it ends one that is still wanted.
    if (IsQuiet(uNow) && pMessage->uType != kConnectionCaptureNotice) {
        m_uThrottled.fetch_add(1, std::memory_order_relaxed);
        return kThrottled;
    }

    const uint32_t uPayloadBytes = PayloadBytes(pMessage, pPayload);
    int error = TrySend(pMessage, pPayload, uPayloadBytes, uHeldBytes);
    if (error != 0) {
        usleep(kRetryMicroseconds);
        error = TrySend(pMessage, pPayload, uPayloadBytes, uHeldBytes);
    }
    if (error != 0) {
        if (uNow != 0) {
            m_uLastFailTime.store(uNow, std::memory_order_relaxed);
        }
        CountFailure(pMessage->uType);
    }
    return error;
}

// Unsigned, so that a packet from before the failure is held to be long after it. Deliberate:
// before any failure the first seconds of time count as quiet; no packet of a working clock lies
// there.
bool PacketLogCtrlIF::IsQuiet(uint32_t uNow) const {
    return uNow != 0 && uNow - m_uLastFailTime.load(std::memory_order_relaxed) < m_uSuppressSeconds;
}

// The datagram gathered from where its pieces are. 0, or the errno, which has been logged.
int PacketLogCtrlIF::TrySend(const LogControlMessage* pMessage, const uint8_t* pPayload,
                             uint32_t uPayloadBytes, uint32_t uHeldBytes) const {
    static_assert(kControlDatagramBytes <= kZeroBlockBytes);
    const uint32_t uHeld = std::min(uPayloadBytes, uHeldBytes);
    // The kernel only reads what a piece points at; the type of a piece cannot say so. The array is
    // not initialised, since all but the first pieces serve lying lengths only.
    std::array<iovec, kFixedPieces + kMostZeroPieces> pieces;
    pieces[0] = {const_cast<LogControlMessage*>(pMessage), pMessage->uLength};
    pieces[1] = {const_cast<std::byte*>(ZeroBlock()), kControlDatagramBytes - pMessage->uLength};
    pieces[2] = {const_cast<uint8_t*>(pPayload), uHeld};
    const auto end = GatherZeros(uPayloadBytes - uHeld, pieces.begin() + kFixedPieces);
    msghdr datagram{};
    datagram.msg_name = const_cast<sockaddr_un*>(&m_sockAddr);
    datagram.msg_namelen = m_uSockAddrLen;
    datagram.msg_iov = pieces.data();
    datagram.msg_iovlen = static_cast<std::size_t>(end - pieces.begin());

    int error = ENOTSOCK;  // what descriptor 0 would give, which is not asked
    if (m_iSocket != 0) {
        error = sendmsg(m_iSocket, &datagram, MSG_DONTWAIT) >= 0 ? 0 : errno;
    }
    if (error != 0 && Log::Passes(Log::kDebug)) {
        Log::GetInstance()->Write(
            Log::kDebug,
            "Error sending control message of type %d to the packet logging daemon.  Message: %s",
            static_cast<int>(pMessage->uType), std::strerror(error));
    }
    return error;
}

void PacketLogCtrlIF::CountFailure(uint32_t uType) {
    std::atomic<uint32_t>* pCounter = nullptr;
    switch (uType) {
        case kNewConnectionCapture:
            pCounter = &m_uFailNewConnection;
            break;
        case kInterfaceCapture:
            pCounter = &m_uFailInterfaceCapture;
            break;
        case kOffendingPacketCapture:
            pCounter = &m_uFailOffendingPacket;
            break;
        case kConfigureRollingPacketCapture:
            pCounter = &m_uFailConfigureRolling;
            break;
        case kStartDropPacketCapture:
            pCounter = &m_uFailStartDrop;
            break;
        case kConnectionCaptureNotice:
            pCounter = &m_uFailConnectionNotice;
            break;
        default:
            return;
    }
    pCounter->fetch_add(1, std::memory_order_relaxed);
}

int32_t PacketLogCtrlIF::SendBare(LogControlType eType) {
    const LogControlMessage message{eType, sizeof message};
    return SendControlMessage(&message, nullptr, 0);
}

}  // namespace PacketLogCtrl
