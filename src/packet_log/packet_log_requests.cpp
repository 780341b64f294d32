// The requests of PacketLogCtrlIF, one operation each: what goes into a message, and what a request
// that went out changes here.

#include <netinet/in.h>

#include <cstring>

#include "logging/log.h"
#include "packet_log/connection_hash.h"
#include "packet_log/connection_table.h"
#include "packet_log/packet_log_ctrl_if.h"
#include "packet_log/packet_words.h"
#include "threads/mutex_lock.h"

using vald::Log;

namespace PacketLogCtrl {
namespace {

constexpr uint32_t kFlowEventType = 4;  // its flow id names the connection

// The space after the text stays zero. Deliberate: a text that fills the field has no NUL, because
// the packet logging daemon reads the field by its size.
void CopyText(char* to, size_t limit, const char* from) {
    if (from != nullptr) {
        std::memcpy(to, from, strnlen(from, limit));
    }
}

}  // namespace

template <typename Message>
void PacketLogCtrlIF::PutEvidenceFiles(Message& message) const {
    message.uFileFormat = m_uEvidenceFormat;
    message.uMaxFiles = m_uEvidenceMaxFiles;
    message.uMaxFileSize = m_uEvidenceMaxKBytes;
}

void PacketLogCtrlIF::SendOffendingPacketCapture(const EventReport* report,
                                                 const PacketInfo* packet, uint32_t packetHash,
                                                 uint32_t heldBytes) {
    LogControlMessage_OffendingPacketCapture message;
    if (report != nullptr) {
        message.uEventID = report->issueId;
        CopyText(message.szUserString, kUserStringBytes, report->userString);
    }
    PutEvidenceFiles(message);
    const uint8_t* data = nullptr;
    if (packet != nullptr) {
        CopyPacketWords(*packet, message);
        data = packet->pData;
    }
    message.uPacketHash = packetHash;
    // It counts its failures.
    (void)SendControlMessage(&message.head, data, message.uSeconds, heldBytes);
}

int32_t PacketLogCtrlIF::SendNewConnectionCapture(const EventReport* report,
                                                  const PacketInfo* packet, bool& bNewCapture,
                                                  uint16_t& uCaptureId, uint64_t& connectionId) {
    if (connectionId != 0) {
        m_uRepeatConnections.fetch_add(1, std::memory_order_relaxed);
    }
    uCaptureId = 0;
    bNewCapture = false;
    if (report == nullptr) {
        return 1;
    }
    LogControlMessage_NewConnectionCapture message;
    PutEvidenceFiles(message);
    message.uSeconds = packet != nullptr ? packet->uSeconds : 0;
    message.uEventID = report->issueId;
    message.uPacketSaveCount = m_uEvidenceCount;
    CopyText(message.szUserString, kUserStringBytes, report->userString);

    if (report->eventType != kFlowEventType && report->ipProtocol == IPPROTO_TCP) {
        if (connectionId == 0) {
            bNewCapture = true;
            uCaptureId = m_uNextCaptureId.fetch_add(1, std::memory_order_relaxed);
            connectionId = CaptureIdHash(uCaptureId);
        }
        message.uConnectionID = connectionId;
        return SendControlMessage(&message.head, nullptr, message.uSeconds) != 0 ? 1 : 0;
    }

    // Deliberate: without a flow id the hash names the connection, whatever the caller holds.
    if (report->flow_id == 0) {
        message.uConnectionID = ConnectionHash(*report);
    } else {
        message.uConnectionID = connectionId != 0 ? connectionId : report->flow_id;
    }
    if (message.uConnectionID == 0) {
        return 0;
    }
    if (SendControlMessage(&message.head, nullptr, message.uSeconds) != 0) {
        return 1;
    }
    uint32_t remaining = m_uEvidenceCount;
    if (connectionId == 0) {
        connectionId = message.uConnectionID;
        --remaining;  // the packet at hand
    }
    (void)m_pConnHashMap->Insert(message.uConnectionID, message.uSeconds, remaining);
    return 0;
}

bool PacketLogCtrlIF::LookupConnection(uint64_t connectionId, uint32_t now) {
    return m_pConnHashMap->Update(connectionId, now, 0);
}

int32_t PacketLogCtrlIF::SendInterfaceCapture(uint32_t interface, uint32_t eventId, uint32_t now,
                                              const char* userString) {
    LogControlMessage_InterfaceCapture message;
    PutEvidenceFiles(message);
    message.uSeconds = now;
    message.uEventID = eventId;
    message.uPacketSaveCount = m_uEvidenceCount;
    message.uInterfaces =
        interface == kAllInterfaces ? kAllInterfaces : uint32_t{1} << (interface % 32);
    CopyText(message.szUserString, kUserStringBytes, userString);
    const int32_t result = SendControlMessage(&message.head, nullptr, now);
    if (result != 0) {
        return result;
    }
    const MutexLock lock(s_LEInterfacesMutex);
    if (interface == kAllInterfaces) {
        for (uint32_t each = 0; each < kInterfaceCount; ++each) {
            RaiseInterfaceCount(each);
        }
    } else if (interface < kInterfaceCount) {
        RaiseInterfaceCount(interface);
    }
    return result;
}

// The lock keeps other raisers out but not the consumers, so the result is checked once more.
void PacketLogCtrlIF::RaiseInterfaceCount(uint32_t interface) {
    std::atomic<int32_t>& count = m_aLEInterfaces[interface];
    const auto target = static_cast<int32_t>(m_uEvidenceCount);
    int32_t seen = count.load(std::memory_order_relaxed);
    for (int pass = 0; pass < 2 && seen < target; ++pass) {
        const int32_t missing = target - seen;
        seen = count.fetch_add(missing, std::memory_order_relaxed) + missing;
    }
}

int32_t PacketLogCtrlIF::SendInterfaceCaptureSettings(uint32_t /*unused*/, uint32_t interfaces,
                                                      uint32_t saveCount) {
    LogControlMessage_InterfaceCapture message;
    message.uFileFormat = kFormatPcap;
    message.uMaxFiles = m_uEvidenceMaxFiles;
    message.uMaxFileSize = m_uEvidenceMaxKBytes;
    message.uPacketSaveCount = saveCount;
    message.uInterfaces = interfaces;
    return SendControlMessage(&message.head, nullptr, 0);
}

int32_t PacketLogCtrlIF::ConsumeInterfaceCount(uint32_t interface) {
    if (interface >= kInterfaceCount) {
        return 0;
    }
    // The count is taken down only from above 0. If it were taken down first and
    // corrected afterwards, two threads that find it at 0 together would leave it below 0 for good,
    // and later captures would be cut short.
    std::atomic<int32_t>& count = m_aLEInterfaces[interface];
    int32_t seen = count.load(std::memory_order_relaxed);
    while (seen > 0) {
        if (count.compare_exchange_weak(seen, seen - 1, std::memory_order_relaxed)) {
            return seen - 1;
        }
    }
    return 0;
}

int32_t PacketLogCtrlIF::SendConnectionCaptureNotice(uint64_t connectionId, uint32_t now) {
    LogControlMessage_ConnectionCaptureNotice message;
    message.uConnectionID = connectionId;
    message.uSeconds = now;
    return SendControlMessage(&message.head, nullptr, now);
}

int32_t PacketLogCtrlIF::SendText(const char* text) {
    LogControlMessage_Text message;
    CopyText(message.szText, kTextLimit, text);
    return SendControlMessage(&message.head, nullptr, 0);
}

int32_t PacketLogCtrlIF::SendType15() {
    return SendBare(kType15);
}

int32_t PacketLogCtrlIF::SendType16() {
    return SendBare(kType16);
}

int32_t PacketLogCtrlIF::SendReloadEventsMessage() {
    Log::GetInstance()->Write(Log::kDebug, "SendReloadEventsMessage called");
    return SendBare(kReloadEvents);
}

uint32_t PacketLogCtrlIF::CountFrameNotSent(uint32_t frame) {
    m_uLastFrameNotSent.store(frame, std::memory_order_relaxed);
    return m_uFramesNotSent.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace PacketLogCtrl
