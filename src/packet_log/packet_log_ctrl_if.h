#pragma once

// The daemon's one way to tell the packet logging daemon what to do: each request is one datagram
// to its control socket. docs/formats/packet_log_control.md describes the messages. It also keeps
// the settings of the three kinds of capture - log evidence, rolling (RPC) and drop log (DPC) - and
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
// them while no other thread sends; that is what guards the fields without a comment.

#include <pthread.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <limits>
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

    // The instance, with one more reference held. Made when there is none. Null only when
    // a new one finds no memory, and then no reference is held.
    [[nodiscard]] static PacketLogCtrlIF* GetInstance();
    // Gives one reference back and returns how many remain. The last one tells the daemon
    // that the engine ends, and frees the instance.
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
    // count: 1, or 0 for a name that is null or not known. A text may be null, which counts as
    // empty unless its setting says otherwise. Rolling and drop log settings wait for Apply.
    int32_t SetIntParameter(const char* name, uint32_t value);
    int32_t SetStringParameter(const char* name, const char* value);
    void GetRpcSettings(LogControlMessage_ConfigureRollingPacketCapture* settings) const;
    void GetDpcSettings(LogControlMessage_ConfigureDropPacketCapture* settings) const;
    // Send what has changed since the daemon was last sent it. 0; -1 when the configuration did not
    // go out; the negated result of the send when the state did not. What failed is tried again
    // next time.
    int32_t ApplyRpcSettings();
    int32_t ApplyDpcSettings();

    // Sends one message, all of which is at the pointer, and after it the payload of a type 4.
    // `now` is a time in seconds that makes the message subject to throttling; 0 exempts it. 0 when
    // it was sent or sending is disabled; kTooLong; kThrottled; else the errno of the second try.
    // Never waits for the socket; a failure costs one millisecond. Allocates nothing. Of a payload
    // that is shorter than the message's captured size only heldBytes are read; the rest is sent as
    // zeros.
    int32_t SendControlMessage(const LogControlMessage* message, const uint8_t* payload,
                               uint32_t now, uint32_t heldBytes = kAllHeld);

    // packet_log_requests.cpp. They return the result of SendControlMessage, unless stated
    // otherwise. Report, packet and texts may be null.
    void SendOffendingPacketCapture(const EventReport* report, const PacketInfo* packet,
                                    uint32_t packetHash, uint32_t heldBytes = kAllHeld);
    // 0 when the capture was asked for or the event names no connection, 1 when the send failed or
    // there is no report. bNewCapture and uCaptureId describe a TCP capture that begins here;
    // connectionId is the connection's number, 0 on entry when the caller has none yet.
    [[nodiscard]] int32_t SendNewConnectionCapture(const EventReport* report,
                                                   const PacketInfo* packet, bool& bNewCapture,
                                                   uint16_t& uCaptureId, uint64_t& connectionId);
    // One interface by its number, or all with kAllInterfaces. Raises its count on success.
    int32_t SendInterfaceCapture(uint32_t interface, uint32_t eventId, uint32_t now,
                                 const char* userString);
    int32_t SendInterfaceCaptureSettings(uint32_t unused, uint32_t interfaces, uint32_t saveCount);
    int32_t SendConnectionCaptureNotice(uint64_t connectionId, uint32_t now);
    int32_t SendText(const char* text);
    int32_t SendType15();
    int32_t SendType16();
    int32_t SendReloadEventsMessage();

    // Takes one packet off what is left to be saved of a connection. True when it is known.
    [[nodiscard]] bool LookupConnection(uint64_t connectionId, uint32_t now);
    // Takes one packet off what is left to be saved of an interface. Returns what remains, never
    // below 0.
    int32_t ConsumeInterfaceCount(uint32_t interface);
    // Counts a frame that was not passed on. Returns how many there were so far.
    uint32_t CountFrameNotSent(uint32_t frame);

    // packet_log_text.cpp. Replaces the content of the stream by a readable text, also for a null
    // message.
    static void SerializeStruct(const LogControlMessage* message, std::ostringstream& stream);

  private:
    friend class PacketLogCtrlIFPeer;  // tests

    PacketLogCtrlIF();
    ~PacketLogCtrlIF();

    static constexpr int32_t kNeverSent = 2;  // beside 0 for off and 1 for on

    // A capture that the daemon is configured for: what was sent last, and what is wanted.
    struct Capture {
        LogControlMessage_CaptureSettings applied;
        LogControlMessage_CaptureSettings pending;
        int32_t enabledApplied = kNeverSent;
        int32_t enabledPending = kNeverSent;
    };
    struct CaptureMessages;

    void SetDestination(const char* path);
    template <typename Message>
    void PutEvidenceFiles(Message& message) const;
    void SizeSendBuffer() const;
    [[nodiscard]] bool IsQuiet(uint32_t now) const;
    [[nodiscard]] int TrySend(const LogControlMessage* message, const uint8_t* payload,
                              uint32_t payloadBytes, uint32_t heldBytes) const;
    void CountFailure(uint32_t type);
    int32_t SendBare(LogControlType type);
    void RaiseInterfaceCount(uint32_t interface);
    int32_t Apply(Capture& capture, const CaptureMessages& messages);
    int32_t SendState(const Capture& capture, const CaptureMessages& messages);
    int32_t SetDropLogInt(const char* key, uint32_t value);
    int32_t SetRollingInt(const char* key, uint32_t value);
    int32_t SetEvidenceInt(const char* key, uint32_t value);
    int32_t SetDropLogText(const char* key, const char* value);
    int32_t SetRollingText(const char* key, const char* value);

    int32_t m_iSocket = 0;  // owned; 0 while closed

  public:
    std::atomic<bool> m_bEnabled{true};  // false: every send gives 0 at once

  private:
    sockaddr_un m_sockAddr{};     // of the daemon
    uint32_t m_uSockAddrLen = 0;  // bytes: the family and the path without its NUL

  public:
    // Counters, by atomic addition from any thread. Deliberate: stored, not read, but for those of
    // type 4, of frames, of throttled and of attempted messages, which the engine logs at its end.
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
    std::atomic<uint32_t> m_uLastFrameNotSent{0};  // Deliberate: stored, not read
    // Seconds, of the last timed send that failed; a race costs the length of a quiet period.
    std::atomic<uint32_t> m_uLastFailTime{0};
    std::atomic<uint32_t> m_uRepeatConnections{0};  // Deliberate: stored, not read

    Capture m_rpc;  // rolling capture
    Capture m_dpc;  // drop log

    uint32_t m_uEvidenceFormat = kFormatPcap;  // 1, or 0 for any other format
    uint32_t m_uEvidenceMaxFiles = 1000;
    uint32_t m_uEvidenceMaxKBytes = 500;
    uint32_t m_uEvidenceCount = 100;      // packets to save
    uint32_t m_uEvidenceTimeout = 60;     // seconds; Deliberate: stored, not read
    uint32_t m_uBufferCtrlSize = 262142;  // bytes of the socket's send buffer
    uint32_t m_uSuppressSeconds = 5;      // length of a quiet period; 0: there is none
    std::atomic<uint16_t> m_uNextCaptureId{1};
    std::atomic<uint32_t> m_uLEInterfaceMask{
        0};  // of the rolling capture at Initialize; Deliberate: stored, not read
    // Packets that are still to be saved, by interface; raised under s_LEInterfacesMutex.
    std::array<std::atomic<int32_t>, kInterfaceCount> m_aLEInterfaces{};

    static PacketLogCtrlIF* m_pInstance;      // owned by its references; under s_CounterMutex
    static std::atomic<int32_t> m_iRefCount;  // changed under s_CounterMutex
    static pthread_mutex_t s_CounterMutex;
    static LOCK_FREE_HASH_MAP* m_pConnHashMap;  // owned by the instance; has locks of its own
    static pthread_mutex_t s_LEInterfacesMutex;
};

}  // namespace PacketLogCtrl
