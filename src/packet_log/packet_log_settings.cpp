// The settings of PacketLogCtrlIF: how names and values reach its fields, and how the packet
// logging daemon learns of them.

#include <cstring>

#include "logging/log.h"
#include "packet_log/packet_log_ctrl_if.h"

using vald::Log;

namespace PacketLogCtrl {
namespace {

// Letters are compared without the locale: names and values are ASCII.
char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// What follows the prefix of a setting's name, or null when it has another one.
const char* KeyAfter(const char* szPrefix, const char* szName) {
    if (szName == nullptr) {
        return nullptr;
    }
    for (; *szPrefix != '\0'; ++szPrefix, ++szName) {
        if (Lower(*szName) != *szPrefix) {
            return nullptr;
        }
    }
    return szName;
}

constexpr const char* kDropLog = "engine.droplog.";
constexpr const char* kRolling = "engine.rollpktcap.";
constexpr const char* kEvidence = "engine.logevidence.";

// One letter of a key; the NUL for all that lie behind its end.
char Letter(const char* szKey, std::size_t uAt) {
    return strnlen(szKey, uAt) == uAt ? szKey[uAt] : '\0';
}

bool BeginsWith(const char* szValue, char cLetter) {
    return szValue != nullptr && Lower(szValue[0]) == cLetter;
}

// One bit for each letter, A being the lowest.
uint32_t InterfaceMask(const char* szLetters) {
    uint32_t uMask = 0;
    for (; szLetters != nullptr && *szLetters != '\0'; ++szLetters) {
        const char cLetter = Lower(*szLetters);
        if (cLetter >= 'a' && cLetter <= 'z') {
            uMask |= uint32_t{1} << (cLetter - 'a');
        }
    }
    return uMask;
}

bool Differ(const LogControlMessage_CaptureSettings& one,
            const LogControlMessage_CaptureSettings& other) {
    return one.uFileFormat != other.uFileFormat || one.uInterfaces != other.uInterfaces ||
           one.uMaxFiles != other.uMaxFiles || one.uMaxFileSize != other.uMaxFileSize;
}

bool AreComplete(const LogControlMessage_CaptureSettings& settings) {
    return settings.uMaxFiles != 0 && settings.uMaxFileSize != 0;
}

}  // namespace

// Deliberate: names are told apart by a prefix and single letters, so that another spelling of a
// setting is taken for it. Engines name their settings differently and mean the same.
int32_t PacketLogCtrlIF::SetIntParameter(const char* szName, uint32_t uValue) {
    if (const char* const szKey = KeyAfter(kDropLog, szName)) {
        return SetDropLogInt(szKey, uValue);
    }
    if (const char* const szKey = KeyAfter(kRolling, szName)) {
        return SetRollingInt(szKey, uValue);
    }
    if (const char* const szKey = KeyAfter(kEvidence, szName)) {
        return SetEvidenceInt(szKey, uValue);
    }
    return 0;
}

int32_t PacketLogCtrlIF::SetDropLogInt(const char* szKey, uint32_t uValue) {
    if (Lower(szKey[0]) == 'm') {
        uint32_t& uSize =
            Lower(Letter(szKey, 3)) == 'k' ? m_dpcPending.uMaxFileSize : m_dpcPending.uMaxFiles;
        // Deliberate: a size of 0 is no size, and the setting counts as known all the same.
        if (uValue != 0) {
            uSize = uValue;
        }
        return 1;
    }
    if (Lower(szKey[0]) == 'f' && Lower(Letter(szKey, 1)) == 'l') {
        m_dpcPending.uInterfaces = uValue;
        return 1;
    }
    return 0;
}

int32_t PacketLogCtrlIF::SetRollingInt(const char* szKey, uint32_t uValue) {
    if (Lower(szKey[0]) != 'm') {
        return 0;
    }
    (Letter(szKey, 3) == 'f' ? m_rpcPending.uMaxFiles : m_rpcPending.uMaxFileSize) = uValue;
    return 1;
}

int32_t PacketLogCtrlIF::SetEvidenceInt(const char* szKey, uint32_t uValue) {
    switch (Lower(szKey[0])) {
        case 'b':
            m_uBufferCtrlSize = uValue;
            return 1;
        case 'c':
            m_uEvidenceCount = uValue;
            return 1;
        case 'm':
            // Deliberate: only a lower-case f stands for files; here the case does count.
            (Letter(szKey, 3) == 'f' ? m_uEvidenceMaxFiles : m_uEvidenceMaxKBytes) = uValue;
            return 1;
        case 's':
            m_uSuppressSeconds = uValue;
            return 1;
        case 't':
            m_uEvidenceTimeout = uValue;
            return 1;
        default:
            return 0;
    }
}

int32_t PacketLogCtrlIF::SetStringParameter(const char* szName, const char* szValue) {
    if (const char* const szKey = KeyAfter(kDropLog, szName)) {
        if (Lower(szKey[0]) == 'e') {
            m_iDpcEnabledPending = BeginsWith(szValue, 't') ? 1 : 0;
            return 1;
        }
        if (Lower(szKey[0]) == 'f' && Lower(Letter(szKey, 1)) == 'o') {
            m_dpcPending.uFileFormat = BeginsWith(szValue, 'p') ? kFormatPcap : 0;
            return 1;
        }
        return 0;
    }
    if (const char* const szKey = KeyAfter(kRolling, szName)) {
        switch (Lower(szKey[0])) {
            case 'e':
                m_iRpcEnabledPending = BeginsWith(szValue, 't') ? 1 : 0;
                return 1;
            case 'f':
                // Deliberate: no value leaves the format alone here and counts as known, while the
                // log evidence format refuses it.
                if (szValue != nullptr) {
                    m_rpcPending.uFileFormat = BeginsWith(szValue, 'p') ? kFormatPcap : 0;
                }
                return 1;
            case 'i':
                m_rpcPending.uInterfaces = InterfaceMask(szValue);
                return 1;
            default:
                return 0;
        }
    }
    const char* const szKey = KeyAfter(kEvidence, szName);
    if (szKey == nullptr || Lower(szKey[0]) != 'f' || szValue == nullptr) {
        return 0;
    }
    m_uEvidenceFormat = BeginsWith(szValue, 'p') ? kFormatPcap : 0;
    return 1;
}

void PacketLogCtrlIF::GetRpcSettings(
    LogControlMessage_ConfigureRollingPacketCapture* pSettings) const {
    *pSettings = m_rpcPending;
}

void PacketLogCtrlIF::GetDpcSettings(
    LogControlMessage_ConfigureDropPacketCapture* pSettings) const {
    *pSettings = m_dpcPending;
}

int32_t PacketLogCtrlIF::ApplyRpcSettings() {
    if (Differ(m_rpcPending, m_rpcApplied) && AreComplete(m_rpcPending)) {
        if (SendControlMessage(&m_rpcPending.head, nullptr, 0) != 0) {
            Log::GetInstance()->Write(
                Log::kWarning,
                "Failed to send the RPC config change message to packet logging daemon.");
            return -1;
        }
        m_rpcApplied = m_rpcPending;
    }
    if (m_iRpcEnabledApplied == m_iRpcEnabledPending) {
        return 0;
    }
    const int32_t iResult = SendRpcState();
    if (iResult != 0) {
        Log::GetInstance()->Write(
            Log::kWarning,
            "Failed sending the RPC Enabled state change message to the packet logging daemon.");
        return -iResult;
    }
    m_iRpcEnabledApplied = m_iRpcEnabledPending;
    return 0;
}

int32_t PacketLogCtrlIF::SendRpcState() {
    if (m_iRpcEnabledPending != 1) {
        return SendBare(kEndRollingPacketCapture);
    }
    LogControlMessage_StartRollingPacketCapture start = m_rpcPending;
    start.head.uType = kStartRollingPacketCapture;
    return SendControlMessage(&start.head, nullptr, 0);
}

int32_t PacketLogCtrlIF::ApplyDpcSettings() {
    if (Differ(m_dpcPending, m_dpcApplied) && AreComplete(m_dpcPending)) {
        if (SendControlMessage(&m_dpcPending.head, nullptr, 0) != 0) {
            Log::GetInstance()->Write(
                Log::kWarning,
                "Failed to send the DPC config change message to packet logging daemon.");
            return -1;
        }
        m_dpcApplied = m_dpcPending;
    }
    if (m_iDpcEnabledApplied == m_iDpcEnabledPending) {
        return 0;
    }
    const int32_t iResult = SendDpcState();
    if (iResult != 0) {
        Log::GetInstance()->Write(
            Log::kWarning,
            "Failed sending the DPC Enabled state change message to the packet logging daemon.");
        return -iResult;
    }
    m_iDpcEnabledApplied = m_iDpcEnabledPending;
    return 0;
}

int32_t PacketLogCtrlIF::SendDpcState() {
    if (m_iDpcEnabledPending != 1) {
        return SendBare(kEndDropPacketCapture);
    }
    LogControlMessage_StartDropPacketCapture start = m_dpcPending;
    start.head.uType = kStartDropPacketCapture;
    return SendControlMessage(&start.head, nullptr, 0);
}

}  // namespace PacketLogCtrl
