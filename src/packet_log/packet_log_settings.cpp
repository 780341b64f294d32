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
const char* KeyAfter(const char* prefix, const char* name) {
    if (name == nullptr) {
        return nullptr;
    }
    for (; *prefix != '\0'; ++prefix, ++name) {
        if (Lower(*name) != *prefix) {
            return nullptr;
        }
    }
    return name;
}

constexpr const char* kDropLog = "engine.droplog.";
constexpr const char* kRolling = "engine.rollpktcap.";
constexpr const char* kEvidence = "engine.logevidence.";

// One letter of a key; NUL after its end.
char Letter(const char* key, size_t at) {
    return strnlen(key, at) == at ? key[at] : '\0';
}

bool BeginsWith(const char* value, char letter) {
    return value != nullptr && Lower(value[0]) == letter;
}

// One bit for each letter, A being the lowest.
uint32_t InterfaceMask(const char* letters) {
    uint32_t mask = 0;
    for (; letters != nullptr && *letters != '\0'; ++letters) {
        const char letter = Lower(*letters);
        if (letter >= 'a' && letter <= 'z') {
            mask |= uint32_t{1} << (letter - 'a');
        }
    }
    return mask;
}

uint32_t FormatOf(const char* value) {
    return BeginsWith(value, 'p') ? kFormatPcap : 0;
}

int32_t StateOf(const char* value) {
    return BeginsWith(value, 't') ? 1 : 0;
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

// What the two captures differ in when they are applied.
struct PacketLogCtrlIF::CaptureMessages {
    LogControlType start;
    LogControlType end;
    const char* configNotSent;
    const char* stateNotSent;
};

// Deliberate: a name is recognised by its prefix and single letters, so another spelling of a
// setting is accepted as well. Engines name their settings differently and mean the same.
int32_t PacketLogCtrlIF::SetIntParameter(const char* name, uint32_t value) {
    if (const char* const key = KeyAfter(kDropLog, name)) {
        return SetDropLogInt(key, value);
    }
    if (const char* const key = KeyAfter(kRolling, name)) {
        return SetRollingInt(key, value);
    }
    if (const char* const key = KeyAfter(kEvidence, name)) {
        return SetEvidenceInt(key, value);
    }
    return 0;
}

int32_t PacketLogCtrlIF::SetDropLogInt(const char* key, uint32_t value) {
    LogControlMessage_CaptureSettings& pending = m_dpc.pending;
    if (Lower(key[0]) == 'm') {
        uint32_t& size = Lower(Letter(key, 3)) == 'k' ? pending.uMaxFileSize : pending.uMaxFiles;
        // Deliberate: a size of 0 is ignored, and the setting counts as known all the same.
        if (value != 0) {
            size = value;
        }
        return 1;
    }
    if (Lower(key[0]) == 'f' && Lower(Letter(key, 1)) == 'l') {
        pending.uInterfaces = value;
        return 1;
    }
    return 0;
}

int32_t PacketLogCtrlIF::SetRollingInt(const char* key, uint32_t value) {
    if (Lower(key[0]) != 'm') {
        return 0;
    }
    (Letter(key, 3) == 'f' ? m_rpc.pending.uMaxFiles : m_rpc.pending.uMaxFileSize) = value;
    return 1;
}

int32_t PacketLogCtrlIF::SetEvidenceInt(const char* key, uint32_t value) {
    switch (Lower(key[0])) {
        case 'b':
            m_uBufferCtrlSize = value;
            return 1;
        case 'c':
            m_uEvidenceCount = value;
            return 1;
        case 'm':
            // Deliberate: only a lower-case f means files; the case counts here and nowhere else.
            (Letter(key, 3) == 'f' ? m_uEvidenceMaxFiles : m_uEvidenceMaxKBytes) = value;
            return 1;
        case 's':
            m_uSuppressSeconds = value;
            return 1;
        case 't':
            m_uEvidenceTimeout = value;
            return 1;
        default:
            return 0;
    }
}

int32_t PacketLogCtrlIF::SetStringParameter(const char* name, const char* value) {
    if (const char* const key = KeyAfter(kDropLog, name)) {
        return SetDropLogText(key, value);
    }
    if (const char* const key = KeyAfter(kRolling, name)) {
        return SetRollingText(key, value);
    }
    const char* const key = KeyAfter(kEvidence, name);
    if (key == nullptr || Lower(key[0]) != 'f' || value == nullptr) {
        return 0;
    }
    m_uEvidenceFormat = FormatOf(value);
    return 1;
}

int32_t PacketLogCtrlIF::SetDropLogText(const char* key, const char* value) {
    if (Lower(key[0]) == 'e') {
        m_dpc.enabledPending = StateOf(value);
        return 1;
    }
    if (Lower(key[0]) == 'f' && Lower(Letter(key, 1)) == 'o') {
        m_dpc.pending.uFileFormat = FormatOf(value);
        return 1;
    }
    return 0;
}

int32_t PacketLogCtrlIF::SetRollingText(const char* key, const char* value) {
    switch (Lower(key[0])) {
        case 'e':
            m_rpc.enabledPending = StateOf(value);
            return 1;
        case 'f':
            // Deliberate: a missing value leaves the format unchanged here and counts as known,
            // while the log evidence format refuses it.
            if (value != nullptr) {
                m_rpc.pending.uFileFormat = FormatOf(value);
            }
            return 1;
        case 'i':
            m_rpc.pending.uInterfaces = InterfaceMask(value);
            return 1;
        default:
            return 0;
    }
}

void PacketLogCtrlIF::GetRpcSettings(
    LogControlMessage_ConfigureRollingPacketCapture* settings) const {
    *settings = m_rpc.pending;
}

void PacketLogCtrlIF::GetDpcSettings(LogControlMessage_ConfigureDropPacketCapture* settings) const {
    *settings = m_dpc.pending;
}

int32_t PacketLogCtrlIF::ApplyRpcSettings() {
    static constexpr CaptureMessages kMessages{
        kStartRollingPacketCapture,
        kEndRollingPacketCapture,
        "Failed to send the RPC config change message to packet logging daemon.",
        "Failed sending the RPC Enabled state change message to the packet logging daemon.",
    };
    return Apply(m_rpc, kMessages);
}

int32_t PacketLogCtrlIF::ApplyDpcSettings() {
    static constexpr CaptureMessages kMessages{
        kStartDropPacketCapture,
        kEndDropPacketCapture,
        "Failed to send the DPC config change message to packet logging daemon.",
        "Failed sending the DPC Enabled state change message to the packet logging daemon.",
    };
    return Apply(m_dpc, kMessages);
}

int32_t PacketLogCtrlIF::Apply(Capture& capture, const CaptureMessages& messages) {
    if (Differ(capture.pending, capture.applied) && AreComplete(capture.pending)) {
        if (SendControlMessage(&capture.pending.head, nullptr, 0) != 0) {
            Log::GetInstance()->Write(Log::kWarning, "%s", messages.configNotSent);
            return -1;
        }
        capture.applied = capture.pending;
    }
    if (capture.enabledApplied == capture.enabledPending) {
        return 0;
    }
    const int32_t result = SendState(capture, messages);
    if (result != 0) {
        Log::GetInstance()->Write(Log::kWarning, "%s", messages.stateNotSent);
        return -result;
    }
    capture.enabledApplied = capture.enabledPending;
    return 0;
}

int32_t PacketLogCtrlIF::SendState(const Capture& capture, const CaptureMessages& messages) {
    if (capture.enabledPending != 1) {
        return SendBare(messages.end);
    }
    LogControlMessage_CaptureSettings start = capture.pending;
    start.head.uType = messages.start;
    return SendControlMessage(&start.head, nullptr, 0);
}

}  // namespace PacketLogCtrl
