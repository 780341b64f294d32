// The requests of PacketLogCtrlIF, one operation each: what goes into a message, and what a request
// that went out changes here.

#include <cstring>

#include "logging/log.h"
#include "packet_log/connection_hash.h"
#include "packet_log/connection_table.h"
#include "packet_log/packet_log_ctrl_if.h"

using vald::Log;

namespace PacketLogCtrl {
namespace {

constexpr uint32_t kFlowEventType = 4;  // its flow id names the connection
constexpr uint16_t kTcp = 6;

// The space behind the text stays zero. Deliberate: a text that fills it has no NUL; the packet
// logging daemon reads the field by its size.
void CopyText(char* szTo, std::size_t uLimit, const char* szFrom) {
    if (szFrom != nullptr) {
        std::memcpy(szTo, szFrom, strnlen(szFrom, uLimit));
    }
}

}  // namespace

void PacketLogCtrlIF::SendOffendingPacketCapture(const EventReport* pReport,
                                                 const PacketInfo* pPacket, uint32_t uPacketHash,
                                                 uint32_t uHeldBytes) {
    LogControlMessage_OffendingPacketCapture message;
    if (pReport != nullptr) {
        message.uEventID = pReport->issueId;
        CopyText(message.szUserString, kUserStringBytes, pReport->userString);
    }
    message.uFileFormat = m_uEvidenceFormat;
    message.uMaxFiles = m_uEvidenceMaxFiles;
    message.uMaxFileSize = m_uEvidenceMaxKBytes;
    const uint8_t* pData = nullptr;
    if (pPacket != nullptr) {
        message.uPacketLength = pPacket->uPacketLength;
        message.iCapturedSize = pPacket->iCapturedSize;
        message.uSeconds = pPacket->uSeconds;
        message.uMicroseconds = pPacket->uMicroseconds;
        message.uFrameNumber = pPacket->uFrameNumber;
        message.uReserved = pPacket->uReserved;
        message.uFlags = pPacket->uFlags;
        message.uAdapterID = pPacket->uAdapterID;
        pData = pPacket->pData;
    }
    message.uPacketHash = uPacketHash;
    // It counts its failures.
    (void)SendControlMessage(&message.head, pData, message.uSeconds, uHeldBytes);
}

int32_t PacketLogCtrlIF::SendNewConnectionCapture(const EventReport* pReport,
                                                  const PacketInfo* pPacket, bool& bNewCapture,
                                                  uint16_t& uCaptureId, uint64_t& uConnectionID) {
    if (uConnectionID != 0) {
        m_uRepeatConnections.fetch_add(1, std::memory_order_relaxed);
    }
    uCaptureId = 0;
    bNewCapture = false;
    if (pReport == nullptr) {
        return 1;
    }
    LogControlMessage_NewConnectionCapture message;
    message.uFileFormat = m_uEvidenceFormat;
    message.uMaxFiles = m_uEvidenceMaxFiles;
    message.uMaxFileSize = m_uEvidenceMaxKBytes;
    message.uSeconds = pPacket != nullptr ? pPacket->uSeconds : 0;
    message.uEventID = pReport->issueId;
    message.uPacketSaveCount = m_uEvidenceCount;
    CopyText(message.szUserString, kUserStringBytes, pReport->userString);

    if (pReport->eventType != kFlowEventType && pReport->ipProtocol == kTcp) {
        if (uConnectionID == 0) {
            bNewCapture = true;
            uCaptureId = m_uNextCaptureId.fetch_add(1, std::memory_order_relaxed);
            uConnectionID = CaptureIdHash(uCaptureId);
        }
        message.uConnectionID = uConnectionID;
        return SendControlMessage(&message.head, nullptr, message.uSeconds) != 0 ? 1 : 0;
    }

    // Deliberate: without a flow id the hash names the connection, whatever the caller holds.
    if (pReport->flow_id == 0) {
        message.uConnectionID = ConnectionHash(*pReport);
    } else {
        message.uConnectionID = uConnectionID != 0 ? uConnectionID : pReport->flow_id;
    }
    if (message.uConnectionID == 0) {
        return 0;
    }
    if (SendControlMessage(&message.head, nullptr, message.uSeconds) != 0) {
        return 1;
    }
    uint32_t uRemaining = m_uEvidenceCount;
    if (uConnectionID == 0) {
        uConnectionID = message.uConnectionID;
        --uRemaining;  // the packet at hand
    }
    (void)m_pConnHashMap->Insert(message.uConnectionID, message.uSeconds, uRemaining);
    return 0;
}

bool PacketLogCtrlIF::LookupConnection(uint64_t uConnectionID, uint32_t uNow) {
    return m_pConnHashMap->Update(uConnectionID, uNow, 0);
}

int32_t PacketLogCtrlIF::SendInterfaceCapture(uint32_t uInterface, uint32_t uEventID, uint32_t uNow,
                                              const char* szUserString) {
    LogControlMessage_InterfaceCapture message;
    message.uFileFormat = m_uEvidenceFormat;
    message.uMaxFiles = m_uEvidenceMaxFiles;
    message.uMaxFileSize = m_uEvidenceMaxKBytes;
    message.uSeconds = uNow;
    message.uEventID = uEventID;
    message.uPacketSaveCount = m_uEvidenceCount;
    message.uInterfaces =
        uInterface == kAllInterfaces ? kAllInterfaces : uint32_t{1} << (uInterface % 32);
    CopyText(message.szUserString, kUserStringBytes, szUserString);
    const int32_t iResult = SendControlMessage(&message.head, nullptr, uNow);
    if (iResult != 0 || pthread_mutex_lock(&s_LEInterfacesMutex) != 0) {
        return iResult;
    }
    if (uInterface == kAllInterfaces) {
        for (uint32_t uEach = 0; uEach < kInterfaceCount; ++uEach) {
            RaiseInterfaceCount(uEach);
        }
    } else if (uInterface < kInterfaceCount) {
        RaiseInterfaceCount(uInterface);
    }
    pthread_mutex_unlock(&s_LEInterfacesMutex);
    return iResult;
}

// The lock keeps other raisers out and not the consumers, so the result is looked at once more.
void PacketLogCtrlIF::RaiseInterfaceCount(uint32_t uInterface) {
    std::atomic<int32_t>& count = m_aLEInterfaces[uInterface];
    const auto iTarget = static_cast<int32_t>(m_uEvidenceCount);
    int32_t iSeen = count.load(std::memory_order_relaxed);
    for (int iPass = 0; iPass < 2 && iSeen < iTarget; ++iPass) {
        const int32_t iMissing = iTarget - iSeen;
        iSeen = count.fetch_add(iMissing, std::memory_order_relaxed) + iMissing;
    }
}

int32_t PacketLogCtrlIF::SendInterfaceCaptureSettings(uint32_t /*uUnused*/, uint32_t uInterfaces,
                                                      uint32_t uPacketSaveCount) {
    LogControlMessage_InterfaceCapture message;
    message.uFileFormat = kFormatPcap;
    message.uMaxFiles = m_uEvidenceMaxFiles;
    message.uMaxFileSize = m_uEvidenceMaxKBytes;
    message.uPacketSaveCount = uPacketSaveCount;
    message.uInterfaces = uInterfaces;
    return SendControlMessage(&message.head, nullptr, 0);
}

int32_t PacketLogCtrlIF::ConsumeInterfaceCount(uint32_t uInterface) {
    if (uInterface >= kInterfaceCount) {
        return 0;
    }
    // The count is taken down only from above 0. Were it taken down first and mended afterwards,
    // two threads that meet at 0 would leave it below for good, and later captures would be cut
    // short.
    std::atomic<int32_t>& count = m_aLEInterfaces[uInterface];
    int32_t iSeen = count.load(std::memory_order_relaxed);
    while (iSeen > 0) {
        if (count.compare_exchange_weak(iSeen, iSeen - 1, std::memory_order_relaxed)) {
            return iSeen - 1;
        }
    }
    return 0;
}

int32_t PacketLogCtrlIF::SendConnectionCaptureNotice(uint64_t uConnectionID, uint32_t uNow) {
    LogControlMessage_ConnectionCaptureNotice message;
    message.uConnectionID = uConnectionID;
    message.uSeconds = uNow;
    return SendControlMessage(&message.head, nullptr, uNow);
}

int32_t PacketLogCtrlIF::SendText(const char* szText) {
    LogControlMessage_Text message;
    CopyText(message.szText, kTextLimit, szText);
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

uint32_t PacketLogCtrlIF::CountFrameNotSent(uint32_t uFrame) {
    m_uLastFrameNotSent.store(uFrame, std::memory_order_relaxed);
    return m_uFramesNotSent.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace PacketLogCtrl
