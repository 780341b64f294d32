// The engine's reference of the packet log interface: taken, configured, and given back with the
// counts in the log.

#include "daemon/engine.h"

#include "config/config.h"
#include "logging/log.h"
#include "packet_log/packet_log_ctrl_if.h"

using vald::Log;

void TarnEngine::OpenPacketLog() {
    Log* const log = Log::GetInstance();
    log->Write(Log::kDebug, "Initializing Channel to Packet Logging Daemon");
    m_packetLogCtrl = PacketLogCtrl::PacketLogCtrlIF::GetInstance();
    if (m_packetLogCtrl == nullptr) {
        log->Write(
            Log::kError,
            "Cannot get instance  of Packet Logging Daemon Interface.  Packet Logging will be disabled.");
    }
}

void TarnEngine::ApplyEvidenceSettings() {
    if (m_packetLogCtrl == nullptr) {
        return;
    }
    const auto setInt = [this](const char* name, int value) {
        (void)m_packetLogCtrl->SetIntParameter(name, static_cast<uint32_t>(value));
    };
    m_packetLogCtrl->m_bEnabled = true;
    setInt("engine.logevidence.maxfiles", Config::s_evidenceMaxFiles);
    setInt("engine.logevidence.maxkbytes", Config::s_evidenceMaxKBytes);
    setInt("engine.logevidence.count", Config::s_evidencePacketCount);
    setInt("engine.logevidence.timeout", Config::s_evidenceFileTimeout);
    (void)m_packetLogCtrl->SetStringParameter("engine.logevidence.format",
                                              Config::s_evidenceFileFormat.c_str());
    setInt("engine.logevidence.bufferctrlsize", Config::s_evidenceBufferCtrlSize);
    setInt("engine.logevidence.suppress", Config::s_evidenceSuppress);
    (void)m_packetLogCtrl->Initialize();  // the packet logging daemon may come later or never
}

void TarnEngine::ClosePacketLog() {
    if (m_packetLogCtrl == nullptr) {
        return;
    }
    Log* const log = Log::GetInstance();
    log->Write(Log::kInfo, "Number of Control Messages Attempted: %d.",
               static_cast<int>(m_packetLogCtrl->m_uAttempted));
    log->Write(Log::kInfo, "Number of Start Offending Packet Capture message failures: %d.",
               static_cast<int>(m_packetLogCtrl->m_uFailOffendingPacket));
    log->Write(Log::kInfo, "Number of Frames not sent to packet logging daemon: %d.",
               static_cast<int>(m_packetLogCtrl->m_uFramesNotSent));
    log->Write(Log::kInfo, "Number of Control Messages Skipped due to throttling: %d.",
               static_cast<int>(m_packetLogCtrl->m_uThrottled));
    if (m_packetLogCtrl->Release() == 0) {
        m_packetLogCtrl = nullptr;
        return;
    }
    log->Write(Log::kError,
               "%s is exiting without having completely freed the Packet Log Control interface.",
               m_appName.c_str());
}
