#include "packet_log/packet_log_writer.h"

#include <cstdio>

#include "logging/log.h"
#include "packet_log/packet_words.h"
#include "paths.h"
#include "ring/shm_event_pipe.h"

using vald::Log;

PacketLogWriter::PacketLogWriter() = default;

PacketLogWriter::~PacketLogWriter() {
    ClosePipe();
}

bool PacketLogWriter::Initialize(uint32_t instance) {
    m_uInstance = instance;
    Log::GetInstance()->Write(Log::kDebug, "Initializing instance %d of PacketLogWriter.",
                              static_cast<int>(instance));
    return true;
}

bool PacketLogWriter::OpenPipe() {
    Log* const log = Log::GetInstance();
    if (m_uInstance == kNoInstance) {
        log->Write(
            Log::kError,
            "Error Initializing the PacketLog Writer for instance %d.  Initialize() wasn't called.",
            static_cast<int>(m_uInstance));
        return false;
    }
    char path[64];
    std::snprintf(path, sizeof(path), tarn::paths::kPacketLogRing, static_cast<int>(m_uInstance));
    // Deliberate: a pipe that failed to open counts as open here. Its owner treats the first
    // failure as final, and the ring refuses every write.
    if (m_pPipe != nullptr) {
        log->Write(Log::kDebug, "Successfully opened shared pipe, %s", path);
        return true;
    }
    log->Write(Log::kDebug, "Opening shared pipe, %s", path);
    m_pPipe = std::make_unique<ShmEventPipe>(WRITER, path, kPacketLogRingSize);
    if (!m_pPipe->Open(true)) {
        log->Write(Log::kError, "Failed opening shared pipe %s", path);
        return false;
    }
    if (!m_pPipe->m_bMapped) {
        log->Write(Log::kError, "Shared pipe %s was not successfully opened", path);
        return false;
    }
    log->Write(Log::kDebug, "Successfully opened shared pipe, %s", path);
    return true;
}

int32_t PacketLogWriter::WritePacket(const PacketInfo* packet, uint64_t valueB, uint32_t valueA,
                                     uint32_t valueC) {
    if (m_pPipe == nullptr || packet == nullptr) {
        return PIPE_OK;
    }
    PacketLogCtrl::CopyPacketWords(*packet, m_record);
    m_record.uValueC = valueC;
    m_record.uValueB = valueB;
    m_record.uValueA = valueA;

    iovec pieces[] = {{&m_record, sizeof(m_record)}, {nullptr, 0}};
    if (packet->pData != nullptr && packet->iCapturedSize > 0) {
        const auto captured = static_cast<uint32_t>(packet->iCapturedSize);
        // The ring only reads what a piece points at; the type of a piece cannot say so.
        pieces[1] = {const_cast<uint8_t*>(packet->pData), captured};
        // Deliberate: a running total of all packets, lost ones included. The length of this record
        // is in the ring's length word.
        m_record.uRunningLength += captured;
    }
    const ShmPipeResult result = m_pPipe->write(pieces, 2);
    if (result == PIPE_FULL) {
        const auto sinceReport =
            static_cast<int32_t>(packet->uSeconds - static_cast<uint32_t>(m_uLastFullReport));
        if (sinceReport > kFullReportInterval) {
            Log::GetInstance()->Write(Log::kDebug,
                                      "Failed to send packets to logger daemon, pipe is full.");
            m_uLastFullReport = static_cast<int32_t>(packet->uSeconds);
        }
    }
    return result;
}

void PacketLogWriter::ClosePipe() {
    if (m_pPipe != nullptr) {
        m_pPipe->Close();
        m_pPipe.reset();
    }
}
