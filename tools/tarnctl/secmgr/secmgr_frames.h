#pragma once

// The requests in a stream of bytes. docs/formats/security_manager.md describes the frames.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace tarnctl {

// A request to add a quarantine rule.
struct SecmgrRequest {
    uint32_t flags = 0;
    uint32_t issueId = 0;
    std::string text;  // without its terminating NUL
};

class SecmgrFrames {
  public:
    // A rule takes 200 bytes; a body of more than this is taken for a stream that is out of step.
    static constexpr uint32_t kLongestBody = 65536;

    enum class Result {
        kRequest,    // one was taken out
        kNeedsMore,  // there is no whole one
        kMalformed,  // what comes next is none, and Error() says why; it stays so
    };

    // Bytes as they came, in pieces of any length.
    void Append(std::span<const std::byte> bytes);

    [[nodiscard]] Result Next(SecmgrRequest& request);

    // Bytes that do not belong to a whole request so far, or to none at all; they stay until the
    // next call.
    [[nodiscard]] std::span<const std::byte> Waiting() const {
        return std::as_bytes(std::span(m_bytes));
    }

    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    Result Fail(std::string reason);

    std::string m_bytes;
    std::string m_error;
};

}  // namespace tarnctl
