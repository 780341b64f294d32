#include "tarnctl/secmgr/secmgr_answer.h"

#include <array>
#include <charconv>
#include <cstring>
#include <utility>

#include "quarantine/security_manager_format.h"

namespace tarnctl {
namespace {

using tarn::secmgr::ResponseHeader;
using Kind = SecmgrAnswer::Kind;

constexpr std::array<std::pair<const char*, Kind>, 4> kWords = {{
    {"close", Kind::kClose},
    {"silent", Kind::kSilent},
    {"short", Kind::kShort},
    {"long", Kind::kLong},
}};

constexpr size_t kHalf = sizeof(ResponseHeader) / 2;
constexpr uint32_t kTooMany = 4;

}  // namespace

bool ParseAnswer(const std::string& word, SecmgrAnswer& answer) {
    for (const auto& [name, kind] : kWords) {
        if (word == name) {
            answer = {kind, tarn::secmgr::kStatusAdded};
            return true;
        }
    }
    uint32_t status = 0;
    const char* const end = word.data() + word.size();
    const auto [rest, error] = std::from_chars(word.data(), end, status);
    if (error != std::errc() || rest != end) {
        return false;
    }
    answer = {Kind::kStatus, status};
    return true;
}

std::string AnswerText(const SecmgrAnswer& answer) {
    for (const auto& [name, kind] : kWords) {
        if (answer.kind == kind) {
            return name;
        }
    }
    return std::to_string(answer.status);
}

std::vector<std::byte> AnswerBytes(const SecmgrAnswer& answer) {
    const uint32_t more = answer.kind == Kind::kLong ? kTooMany : 0;
    const ResponseHeader header = {answer.status, more};
    std::vector<std::byte> bytes(sizeof(header) + more);
    std::memcpy(bytes.data(), &header, sizeof(header));
    switch (answer.kind) {
        case Kind::kClose:
        case Kind::kSilent:
            bytes.clear();
            break;
        case Kind::kShort:
            bytes.resize(kHalf);
            break;
        case Kind::kStatus:
        case Kind::kLong:
            break;
    }
    return bytes;
}

bool ClosesConnection(const SecmgrAnswer& answer) {
    return answer.kind == Kind::kClose || answer.kind == Kind::kShort;
}

}  // namespace tarnctl
