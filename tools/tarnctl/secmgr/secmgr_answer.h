#pragma once

// How the security manager answers a request: rightly, or wrongly on purpose.
//
// Threads: pure functions.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarnctl {

inline constexpr uint32_t kStatusRefused = 3;

struct SecmgrAnswer {
    enum class Kind {
        kStatus,  // a right answer with a status
        kClose,   // none, and the connection is closed
        kSilent,  // none
        kShort,   // half of an answer, and the connection is closed: with it open, the client
                  // would wait for the rest without a limit
        kLong,    // an answer with four bytes too many
    };

    Kind kind = Kind::kStatus;
    uint32_t status = 0;  // of kStatus and kLong
};

// From "close", "silent", "short", "long" or a status in decimal. False for anything else.
[[nodiscard]] bool ParseAnswer(const std::string& word, SecmgrAnswer& answer);

// The word that ParseAnswer takes.
[[nodiscard]] std::string AnswerText(const SecmgrAnswer& answer);

// The bytes that go to the client.
[[nodiscard]] std::vector<std::byte> AnswerBytes(const SecmgrAnswer& answer);

// Whether the connection is closed afterwards.
[[nodiscard]] bool ClosesConnection(const SecmgrAnswer& answer);

}  // namespace tarnctl
