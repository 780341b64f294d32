#include "tarnctl/secmgr/secmgr_frames.h"

#include <cstring>
#include <utility>

#include "quarantine/security_manager_format.h"
#include "tarnctl/common/counted.h"

namespace tarnctl {

using tarn::secmgr::AddQuarantineRules;
using tarn::secmgr::RequestHeader;

void SecmgrFrames::Append(std::span<const std::byte> bytes) {
    m_bytes.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

SecmgrFrames::Result SecmgrFrames::Next(SecmgrRequest& request) {
    RequestHeader header = {};
    if (m_bytes.size() < sizeof(header)) {
        return Result::kNeedsMore;
    }
    std::memcpy(&header, m_bytes.data(), sizeof(header));
    // Both words are looked at before the body is waited for: in a stream that is out of step it
    // might never come.
    if (header.command != tarn::secmgr::kCommandAddQuarantineRules) {
        return Fail("command " + std::to_string(header.command) + " is unknown");
    }
    AddQuarantineRules head = {};
    if (header.bodyLength < sizeof(head) + 2 || header.bodyLength > kLongestBody) {
        return Fail("a body of " + Counted(header.bodyLength, "byte") + " holds no rule");
    }
    if (m_bytes.size() - sizeof(header) < header.bodyLength) {
        return Result::kNeedsMore;
    }
    std::memcpy(&head, m_bytes.data() + sizeof(header), sizeof(head));
    const std::string text =
        m_bytes.substr(sizeof(header) + sizeof(head), header.bodyLength - sizeof(head));
    if (text.find('\0') != text.size() - 1) {
        return Fail(text.back() == '\0' ? "a NUL within the rule text"
                                        : "a rule text without a NUL at its end");
    }
    request = {head.flags, head.issueId, text.substr(0, text.size() - 1)};
    m_bytes.erase(0, sizeof(header) + header.bodyLength);
    return Result::kRequest;
}

SecmgrFrames::Result SecmgrFrames::Fail(std::string reason) {
    m_error = std::move(reason);
    return Result::kMalformed;
}

}  // namespace tarnctl
