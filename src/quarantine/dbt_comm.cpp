#include "quarantine/dbt_comm.h"

#include <cstdarg>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "logging/log.h"
#include "quarantine/security_manager_format.h"
#include "threads/cancellation.h"

using vald::Log;

namespace {

using tarn::secmgr::ResponseHeader;

// Passes a report of the client to the log unchanged.
__attribute__((format(printf, 3, 4))) void LogClientReport(uint64_t, uint32_t level,
                                                           const char* format, ...) {
    va_list args;
    va_start(args, format);
    Log::GetInstance()->VWrite(static_cast<int>(level), format, args);
    va_end(args);
}

// Deliberate: the answer of a cancelled exchange, or a part of it, may still arrive, and the next
// rule would take it for its own. The socket is therefore closed while the cancelled thread
// unwinds. The channel stays marked as open: the next rule fails to send, resets the channel and is
// retried.
class ClosedOnUnwinding {
  public:
    explicit ClosedOnUnwinding(RequestClient& client) : m_client(&client) {}
    ~ClosedOnUnwinding() {
        if (m_client != nullptr) {
            m_client->Disconnect();
        }
    }
    ClosedOnUnwinding(const ClosedOnUnwinding&) = delete;
    ClosedOnUnwinding& operator=(const ClosedOnUnwinding&) = delete;

    void Done() { m_client = nullptr; }

  private:
    RequestClient* m_client;
};

}  // namespace

DbtComm::DbtComm(std::string socketPath, int32_t timeoutSeconds)
    : m_timeout(timeoutSeconds), m_socketPath(std::move(socketPath)) {
    m_client.SetLog(&LogClientReport, 0);
}

DbtComm::~DbtComm() {
    const CancellationOff off;
    if (m_opened) {
        Close();
    }
}

int DbtComm::Open() {
    if (m_opened) {
        Log::GetInstance()->Write(
            Log::kInfo, "DbtComm attempts to open command channel but it has been opened already.");
        return 0;
    }
    ClosedOnUnwinding guard(m_client);
    const bool connected = m_client.Connect(m_socketPath.c_str(), m_timeout);
    guard.Done();
    if (!connected) {
        Log::GetInstance()->Write(Log::kError, "DbtComm failed to open command channel.");
        return -1;
    }
    Log::GetInstance()->Write(Log::kDebug, "DbtComm opened command channel.");
    m_opened = true;
    return 0;
}

void DbtComm::Close() {
    if (!m_opened) {
        Log::GetInstance()->Write(
            Log::kInfo, "DbtComm attempts to close command channel but it was not opened.");
        return;
    }
    m_client.Disconnect();
    Log::GetInstance()->Write(Log::kDebug, "DbtComm closed command channel.");
    m_opened = false;
}

// Deliberate: a failed exchange leaves the channel marked as open. Only the retry resets it, so the
// rule after a failed retry first fails in the same way and is then retried on a new channel.
int DbtComm::SendCommand(uint32_t command, const void* payload, size_t length, uint8_t** response,
                         uint64_t* responseLength) {
    if (!m_opened) {
        Log::GetInstance()->Write(
            Log::kNotice, "DbtComm command channel is not opened. Open it before sending command.");
        if (Open() != 0) {
            Log::GetInstance()->Write(Log::kError, "DbtComm command channel cannot to opened.");
            return -1;
        }
    }
    if (!m_client.SendRequest(command, payload, length)) {
        Log::GetInstance()->Write(Log::kError, "DbtComm failed to send command.");
        return -1;
    }
    if (response == nullptr || responseLength == nullptr) {
        return 0;
    }
    ClosedOnUnwinding guard(m_client);
    const bool received = m_client.ReceiveResponse(response, responseLength, m_timeout);
    guard.Done();
    if (!received) {
        Log::GetInstance()->Write(Log::kError, "DbtComm failed to receive command response.");
        return -1;
    }
    return 0;
}

int DbtComm::AddQuarantineRules(uint32_t flags, const char* rule, uint32_t issueId, int failures) {
    if (rule == nullptr || *rule == '\0') {
        return -1;
    }
    Log::GetInstance()->Write(Log::kDebug,
                              "DbtComm is trying to add quarantine rule(s) after %d failure(s): %s",
                              failures, rule);
    Log::GetInstance()->Write(Log::kDebug, "issueIdRef=%u", issueId);

    const tarn::secmgr::AddQuarantineRules head{flags, issueId};
    const size_t textBytes = std::strlen(rule) + 1;
    const size_t length = sizeof(head) + textBytes;
    std::unique_ptr<uint8_t[]> payload(new (std::nothrow) uint8_t[length]);
    if (payload == nullptr) {
        Log::GetInstance()->Write(
            Log::kError, "DbtComm failed to allocate memory of size %d for adding quarantine rules",
            static_cast<int>(length));
        return -2;
    }
    std::memcpy(payload.get(), &head, sizeof(head));
    std::memcpy(payload.get() + sizeof(head), rule, textBytes);

    uint8_t* received = nullptr;
    uint64_t receivedLength = 0;
    const int sent = SendCommand(tarn::secmgr::kCommandAddQuarantineRules, payload.get(), length,
                                 &received, &receivedLength);
    std::unique_ptr<uint8_t[], RequestClient::ResponseDeleter> response(received);
    payload.reset();
    if (sent != 0) {
        Log::GetInstance()->Write(Log::kWarning,
                                  "DbtComm failed to send add quarantine rule request.");
        return ResetAndRetry(flags, rule, issueId, failures);
    }
    Log::GetInstance()->Write(Log::kDebug, "DbtComm received response of size %d.",
                              static_cast<int>(receivedLength));

    ResponseHeader answer{};
    const bool isValid = receivedLength == sizeof(answer);
    if (isValid) {
        std::memcpy(&answer, response.get(), sizeof(answer));
    }
    response.reset();
    if (!isValid) {
        Log::GetInstance()->Write(
            Log::kWarning,
            "Invalid response received by DbtComm for add quarantine rules request.");
        return ResetAndRetry(flags, rule, issueId, failures);
    }
    if (answer.status != tarn::secmgr::kStatusAdded) {
        Log::GetInstance()->Write(Log::kWarning, "Failed to add quarantine rules: %u",
                                  answer.status);
        return -2;  // a refusal is an answer, so it is not retried
    }
    Log::GetInstance()->Write(Log::kDebug, "Quarantine rules are added successfully.");
    return 0;
}

int DbtComm::ResetAndRetry(uint32_t flags, const char* rule, uint32_t issueId, int failures) {
    if (failures > 0) {
        return -2;
    }
    Log::GetInstance()->Write(Log::kNotice,
                              "DbtComm will reset command channel and retry operation.");
    Close();
    if (Open() != 0) {
        Log::GetInstance()->Write(
            Log::kError, "DbtComm aborts retry because command channel cannot to reopened.");
        return -2;
    }
    return AddQuarantineRules(flags, rule, issueId, failures + 1);
}
