#pragma once

// The daemon's one way to tell the packet logging daemon what to do: each request is one datagram
// to its control socket. docs/formats/packet_log_control.md tells the messages. It also keeps the
// settings of the three kinds of capture - log evidence, rolling (RPC) and drop log (DPC) - and
// turns changes of the latter two into messages.
//
// Nobody answers, and nothing here is fatal to a caller: an absent or full daemon costs two tries,
// a count, and a quiet period in which messages with a time are skipped.
//
// Owner: its holders, by reference count. TarnEngine takes the first reference and gives back the
// last one; EventBridge holds one while it is initialised.
//
// Threads: every send may run on any thread, and on several at once. The setters, Initialize,
// OpenControlChannel, the Apply operations and Shutdown belong to the engine's thread, which calls
// them while no other thread sends; that is what guards the fields without a remark.

#include <pthread.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <limits>
#include <mutex>
#include <sstream>

#include "crm/event_report_format.h"
#include "crm/packet_info_format.h"
#include "packet_log/packet_log_control_format.h"

class LOCK_FREE_HASH_MAP;

namespace PacketLogCtrl {

class PacketLogCtrlIF {
  public:
    static constexpr uint32_t kInterfaceCount = 16;
    // Every byte of a payload exists.
    static constexpr uint32_t kAllHeld = std::numeric_limits<uint32_t>::max();
    // Results of SendControlMessage beside 0 and an errno.
    static constexpr int32_t kTooLong = -1;
    static constexpr int32_t kThrottled = -2;

    PacketLogCtrlIF(const PacketLogCtrlIF&) = delete;
    PacketLogCtrlIF& operator=(const PacketLogCtrlIF&) = delete;

    // The instance, with one more reference held. Made when there is none; never null.
    [[nodiscard]] static PacketLogCtrlIF* GetInstance();
    // Gives one reference back and returns how many remain. The last one says good-bye to the
    // daemon and frees the instance.
    int32_t Release();

    // Connections whose packets are being saved.
    [[nodiscard]] static uint32_t ConnectionCount();

    // Makes the socket unless there is one: 0, or -1. The daemon need not be there.
    [[nodiscard]] int32_t OpenControlChannel();
    // Opens the channel, sizes its send buffer, and says that the engine starts. The result of
    // ApplyRpcSettings, or -1 without a socket. Runs at start and at every reload.
    int32_t Initialize();
    // Says that the engine ends, and closes the socket.
    void Shutdown();

    // packet_log_settings.cpp. Store one setting by its name, of which a prefix and single letters
    // count: 1, or 0 for a name that is not known. Rolling and drop log settings wait for Apply.
    int32_t SetIntParameter(const char* szName, uint32_t uValue);
    int32_t SetStringParameter(const char* szName, const char* szValue);
    void GetRpcSettings(LogControlMessage_ConfigureRollingPacketCapture* pSettings) const;
    void GetDpcSettings(LogControlMessage_ConfigureDropPacketCapture* pSettings) const;
    // Send what the daemon has not been told yet. 0; -1 when the configuration did not go out; the
    // negated result of the send when the state did not. What failed is tried again next time.
    int32_t ApplyRpcSettings();
    int32_t ApplyDpcSettings();

    // Sends one message, which the pointer leads to whole, and behind it the payload of a type 4.
    // uNow is a time in seconds that puts the message under throttling; 0 leaves it out. 0 when it
    // was sent or sending is off; kTooLong; kThrottled; else the errno of the second try. Never
    // waits for the socket; a failure costs one millisecond. Allocates nothing. Of a payload that
    // is shorter than the message's captured size only uHeldBytes are read; the rest goes out as
    // zeros.
    int32_t SendControlMessage(const LogControlMessage* pMessage, const uint8_t* pPayload,
                               uint32_t uNow, uint32_t uHeldBytes = kAllHeld);

    // packet_log_senders.cpp. What they return is what SendControlMessage gave, unless told
    // otherwise. Report and packet may be null.
    void SendOffendingPacketCapture(const EventReport* pReport, const PacketInfo* pPacket,
                                    uint32_t uPacketHash, uint32_t uHeldBytes = kAllHeld);
    // 0 when the capture was asked for or the event names no connection, 1 when the send failed or
    // there is no report. bNewCapture and uCaptureId tell of a TCP capture that begins here;
    // uConnectionID is the connection's number, 0 going in when the caller has none yet.
    [[nodiscard]] int32_t SendNewConnectionCapture(const EventReport* pReport,
                                                   const PacketInfo* pPacket, bool& bNewCapture,
                                                   uint16_t& uCaptureId, uint64_t& uConnectionID);
    // One interface by its number, or all with kAllInterfaces. Raises its count on success.
    int32_t SendInterfaceCapture(uint32_t uInterface, uint32_t uEventID, uint32_t uNow,
                                 const char* szUserString);
    int32_t SendInterfaceCaptureSettings(uint32_t uUnused, uint32_t uInterfaces,
                                         uint32_t uPacketSaveCount);
    int32_t SendConnectionCaptureNotice(uint64_t uConnectionID, uint32_t uNow);
    int32_t SendText(const char* szText);
    int32_t SendType15();
    int32_t SendType16();
    int32_t SendReloadEventsMessage();

    // Takes one packet off what is left to be saved of a connection; whether it is known.
    [[nodiscard]] bool LookupConnection(uint64_t uConnectionID, uint32_t uNow);
    // Takes one packet off what is left to be saved of an interface. What remains, never below 0.
    int32_t ConsumeInterfaceCount(uint32_t uInterface);
    // Counts a frame that was not handed on. All of them so far.
    uint32_t CountFrameNotSent(uint32_t uFrame);

    // packet_log_text.cpp. Replaces what the stream holds by a text for a person.
    static void SerializeStruct(const LogControlMessage* pMessage, std::ostringstream& stream);

  private:
    friend class PacketLogCtrlIFPeer;  // tests

    PacketLogCtrlIF();
    ~PacketLogCtrlIF();

    void SetDestination(const char* szPath);
    void SizeSendBuffer() const;
    [[nodiscard]] bool IsQuiet(uint32_t uNow) const;
    [[nodiscard]] int TrySend(const LogControlMessage* pMessage, const uint8_t* pPayload,
                              uint32_t uPayloadBytes, uint32_t uHeldBytes) const;
    void CountFailure(uint32_t uType);
    int32_t SendBare(LogControlType eType);
    void RaiseInterfaceCount(uint32_t uInterface);
    int32_t SendRpcState();
    int32_t SendDpcState();
    int32_t SetDropLogInt(const char* szKey, uint32_t uValue);
    int32_t SetRollingInt(const char* szKey, uint32_t uValue);
    int32_t SetEvidenceInt(const char* szKey, uint32_t uValue);

    int32_t m_iSocket = 0;  // owned; 0 while closed

  public:
    std::atomic<bool> m_bEnabled{true};  // false: every send gives 0 at once

  private:
    sockaddr_un m_sockAddr{};     // of the daemon
    uint32_t m_uSockAddrLen = 0;  // bytes: the family and the path without its NUL

  public:
    // Counters, by atomic addition from any thread.
    std::atomic<uint32_t> m_uFailOffendingPacket{0};   // type 4
    std::atomic<uint32_t> m_uFailNewConnection{0};     // type 2
    std::atomic<uint32_t> m_uFailConnectionNotice{0};  // type 13
    std::atomic<uint32_t> m_uFailInterfaceCapture{0};  // type 3
    std::atomic<uint32_t> m_uFailConfigureRolling{0};  // type 8
    std::atomic<uint32_t> m_uFailStartDrop{0};         // type 9
    std::atomic<uint32_t> m_uFramesNotSent{0};
    std::atomic<uint32_t> m_uThrottled{0};
    std::atomic<uint32_t> m_uAttempted{0};  // messages that were not too long

  private:
    std::atomic<uint32_t> m_uLastFrameNotSent{0};  // for a debugger
    // Seconds, of the last timed send that failed; a race costs the length of a quiet period.
    std::atomic<uint32_t> m_uLastFailTime{0};
    std::atomic<uint32_t> m_uRepeatConnections{0};

    LogControlMessage_ConfigureRollingPacketCapture m_rpcApplied;
    LogControlMessage_ConfigureRollingPacketCapture m_rpcPending;
    int32_t m_iRpcEnabledApplied = kNeverSent;
    int32_t m_iRpcEnabledPending = kNeverSent;
    LogControlMessage_ConfigureDropPacketCapture m_dpcApplied;
    LogControlMessage_ConfigureDropPacketCapture m_dpcPending;
    int32_t m_iDpcEnabledApplied = kNeverSent;
    int32_t m_iDpcEnabledPending = kNeverSent;

    uint32_t m_uEvidenceFormat = kFormatPcap;  // 1, or 0 for any other format
    uint32_t m_uEvidenceMaxFiles = 1000;
    uint32_t m_uEvidenceMaxKBytes = 500;
    uint32_t m_uEvidenceCount = 100;      // packets to save
    uint32_t m_uEvidenceTimeout = 60;     // stored and not read here
    uint32_t m_uBufferCtrlSize = 262142;  // bytes of the socket's send buffer
    uint32_t m_uSuppressSeconds = 5;      // length of a quiet period; 0: there is none
    std::atomic<uint16_t> m_uNextCaptureId{1};
    std::atomic<uint32_t> m_uLEInterfaceMask{0};  // of the rolling capture at Initialize
    // Packets that are still to be saved, by interface; raised under s_LEInterfacesMutex.
    std::array<std::atomic<int32_t>, kInterfaceCount> m_aLEInterfaces{};

    static constexpr int32_t kNeverSent = 2;  // beside 0 for off and 1 for on

    static PacketLogCtrlIF* m_pInstance;      // owned by its references; under s_CounterMutex
    static std::atomic<int32_t> m_iRefCount;  // changed under s_CounterMutex
    static std::mutex s_CounterMutex;
    static LOCK_FREE_HASH_MAP* m_pConnHashMap;  // owned by the instance; has locks of its own
    static pthread_mutex_t s_LEInterfacesMutex;
};

}  // namespace PacketLogCtrl
