#pragma once

// Client end of the security manager's command socket. It hands over one quarantine rule text at a
// time, waits for the answer, and resets the channel once when an exchange fails. EventBridge holds
// one by value. docs/formats/security_manager.md describes the frames.
//
// Threads: no lock; only the thread that processes events uses it, and all waits block that thread.
// It may be cancelled in those waits (see RequestClient).

#include <cstddef>
#include <cstdint>
#include <string>

#include "paths.h"
#include "quarantine/request_client.h"

class DbtComm {
  public:
    static constexpr int32_t kTimeoutSeconds = 5;

    // The limit, in seconds, holds for connecting and for awaiting an answer. Connects to nothing.
    explicit DbtComm(std::string socketPath = tarn::paths::kSecurityManagerSocket,
                     int32_t timeoutSeconds = kTimeoutSeconds);
    // Closes the channel when it is open.
    ~DbtComm();
    DbtComm(const DbtComm&) = delete;
    DbtComm& operator=(const DbtComm&) = delete;

    // Connects. Returns 0, also when it was open already, or -1.
    [[nodiscard]] int Open();

    // Disconnects; a channel that is not open is only logged.
    void Close();

    // Sends one command, opening the channel first when it is closed, and awaits the answer when
    // both out pointers are given. Returns 0, or -1. *response is then the caller's, to be given
    // back with RequestClient::FreeResponse; it is null after a failure to receive.
    [[nodiscard]] int SendCommand(uint32_t command, const void* payload, size_t length,
                                  uint8_t** response, uint64_t* responseLength);

    // Adds a rule in the words of QuarantineRule. Callers outside give 0 for failures, the number
    // of attempts that failed so far. Returns 0 when the rule was added, -1 for a null or empty
    // text, -2 when it was not added: refused, or failed on the one retry as well.
    [[nodiscard]] int AddQuarantineRules(uint32_t flags, const char* rule, uint32_t issueId,
                                         int failures);

  private:
    int ResetAndRetry(uint32_t flags, const char* rule, uint32_t issueId, int failures);

    int32_t m_timeout;  // seconds
    bool m_opened = false;
    RequestClient m_client;
    const std::string m_socketPath;
};
