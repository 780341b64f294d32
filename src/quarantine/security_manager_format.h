#pragma once

// What passes over the security manager's command socket: the frame of a request and of an answer,
// and the one command that is in use, adding quarantine rules. docs/formats/security_manager.md
// describes all of it, docs/formats/quarantine_rule.md the text that it carries.
//
// A request is a RequestHeader and a body, an answer a ResponseHeader and a body. All words are 32
// bits in host byte order, since both ends run on one machine.
//
// Threads: no state; anyone may include it.

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace tarn::secmgr {

inline constexpr uint32_t kCommandAddQuarantineRules = 11;
inline constexpr uint32_t kStatusAdded = 15;  // any other status is a refusal

// Comes before each request.
struct RequestHeader {
    uint32_t command;
    uint32_t bodyLength;  // bytes that follow this header
};

// Comes before each answer.
struct ResponseHeader {
    uint32_t status;
    uint32_t bodyLength;  // bytes that follow, or the number of records for a list of records
};

// The body of command 11 begins with this; the rule text and its terminating NUL follow.
struct AddQuarantineRules {
    uint32_t flags;    // the meaning lies with the security manager; events send 1
    uint32_t issueId;  // of the event that asks for the rule
};

static_assert(sizeof(RequestHeader) == 8);
static_assert(offsetof(RequestHeader, command) == 0);
static_assert(offsetof(RequestHeader, bodyLength) == 4);
static_assert(std::is_trivially_copyable_v<RequestHeader>);
static_assert(std::is_standard_layout_v<RequestHeader>);
static_assert(std::has_unique_object_representations_v<RequestHeader>);

static_assert(sizeof(ResponseHeader) == 8);
static_assert(offsetof(ResponseHeader, status) == 0);
static_assert(offsetof(ResponseHeader, bodyLength) == 4);
static_assert(std::is_trivially_copyable_v<ResponseHeader>);
static_assert(std::is_standard_layout_v<ResponseHeader>);
static_assert(std::has_unique_object_representations_v<ResponseHeader>);

static_assert(sizeof(AddQuarantineRules) == 8);
static_assert(offsetof(AddQuarantineRules, flags) == 0);
static_assert(offsetof(AddQuarantineRules, issueId) == 4);
static_assert(std::is_trivially_copyable_v<AddQuarantineRules>);
static_assert(std::is_standard_layout_v<AddQuarantineRules>);
static_assert(std::has_unique_object_representations_v<AddQuarantineRules>);

}  // namespace tarn::secmgr
