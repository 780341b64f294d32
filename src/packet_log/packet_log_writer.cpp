#include "packet_log/packet_log_writer.h"

#include <cstdio>

#include "logging/log.h"
#include "paths.h"
#include "ring/shm_event_pipe.h"

PacketLogWriter::PacketLogWriter() = default;

PacketLogWriter::~PacketLogWriter() {
    ClosePipe();
}

bool PacketLogWriter::Initialize(uint32_t uInstance) {
    m_uInstance = uInstance;
    vald::Log::GetInstance()->Write(vald::Log::kDebug,
                                    "Initializing instance %d of PacketLogWriter.",
                                    static_cast<int>(uInstance));
    return true;
}

bool PacketLogWriter::OpenPipe() {
    vald::Log* const pLog = vald::Log::GetInstance();
    if (m_uInstance == kNoInstance) {
        pLog->Write(
            vald::Log::kError,
            "Error Initializing the PacketLog Writer for instance %d.  Initialize() wasn't called.",
            static_cast<int>(m_uInstance));
        return false;
    }
    char szPath[64];
    std::snprintf(szPath, sizeof szPath, tarn::paths::kPacketLogRing,
                  static_cast<int>(m_uInstance));
    // Deliberate: a pipe that failed to open counts as open here; its owner has taken the failure
    // as final, and the ring refuses every write.
    if (m_pPipe != nullptr) {
        pLog->Write(vald::Log::kDebug, "Successfully opened shared pipe, %s", szPath);
        return true;
    }
    pLog->Write(vald::Log::kDebug, "Opening shared pipe, %s", szPath);
    m_pPipe = std::make_unique<ShmEventPipe>(WRITER, szPath, kPacketLogRingSize);
    if (!m_pPipe->Open(true)) {
        pLog->Write(vald::Log::kError, "Failed opening shared pipe %s", szPath);
        return false;
    }
    if (!m_pPipe->m_bMapped) {
        pLog->Write(vald::Log::kError, "Shared pipe %s was not successfully opened", szPath);
        return false;
    }
    pLog->Write(vald::Log::kDebug, "Successfully opened shared pipe, %s", szPath);
    return true;
}

int32_t PacketLogWriter::WritePacket(const PacketInfo* pPacket, uint64_t uValueB, uint32_t uValueA,
                                     uint32_t uValueC) {
    if (m_pPipe == nullptr || pPacket == nullptr) {
        return PIPE_OK;
    }
    m_record.uPacketLength = pPacket->uPacketLength;
    m_record.iCapturedSize = pPacket->iCapturedSize;
    m_record.uSeconds = pPacket->uSeconds;
    m_record.uMicroseconds = pPacket->uMicroseconds;
    m_record.uFrameNumber = pPacket->uFrameNumber;
    m_record.uReserved = pPacket->uReserved;
    m_record.uFlags = pPacket->uFlags;
    m_record.uAdapterID = pPacket->uAdapterID;
    m_record.uValueC = uValueC;
    m_record.uValueB = uValueB;
    m_record.uValueA = uValueA;

    iovec pieces[] = {{&m_record, sizeof m_record}, {nullptr, 0}};
    if (pPacket->pData != nullptr && pPacket->iCapturedSize > 0) {
        const auto uCaptured = static_cast<uint32_t>(pPacket->iCapturedSize);
        // The ring only reads what a piece points at; the type of a piece cannot say so.
        pieces[1] = {const_cast<uint8_t*>(pPacket->pData), uCaptured};
        // Deliberate: a running total over all packets, lost ones included. The length of this
        // record is the ring's length word.
        m_record.uRunningLength += uCaptured;
    }
    const ShmPipeResult eResult = m_pPipe->write(pieces, 2);
    if (eResult == PIPE_FULL) {
        const auto iSinceReport =
            static_cast<int32_t>(pPacket->uSeconds - static_cast<uint32_t>(m_uLastFullReport));
        if (iSinceReport > kFullReportInterval) {
            vald::Log::GetInstance()->Write(
                vald::Log::kDebug, "Failed to send packets to logger daemon, pipe is full.");
            m_uLastFullReport = static_cast<int32_t>(pPacket->uSeconds);
        }
    }
    return eResult;
}

void PacketLogWriter::ClosePipe() {
    if (m_pPipe != nullptr) {
        m_pPipe->Close();
        m_pPipe.reset();
    }
}
