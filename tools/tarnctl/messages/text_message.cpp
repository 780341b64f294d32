#include "tarnctl/messages/text_message.h"

#include <array>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>

#include "crm/crm_message_format.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;
using tarn::crm::MessageHeader;
using tarn::crm::MessageKind;

const char* KindName(bool isError) {
    return isError ? "error" : "information";
}

std::string WrongHeader(const MessageHeader& header, size_t size) {
    if (header.type != tarn::crm::kMessageType) {
        return "its type is " + std::to_string(header.type) + " and not " +
               std::to_string(tarn::crm::kMessageType);
    }
    if (header.length != size) {
        return "its length says " + Counted(header.length, "byte");
    }
    if (header.kind != MessageKind::kError && header.kind != MessageKind::kInformation) {
        return "its kind is " + std::to_string(static_cast<uint32_t>(header.kind));
    }
    return {};
}

}  // namespace

std::string DecodeTextMessage(std::span<const std::byte> bytes, TextMessage& message) {
    if (bytes.size() <= sizeof(MessageHeader)) {
        return "it is shorter than any message";
    }
    if (bytes.size() > tarn::crm::kMessageBytes) {
        return "it is longer than any message";
    }
    MessageHeader header{};
    std::memcpy(&header, bytes.data(), sizeof(header));
    std::string reason = WrongHeader(header, bytes.size());
    if (!reason.empty()) {
        return reason;
    }
    const auto* const text = reinterpret_cast<const char*>(bytes.data() + sizeof(header));
    const size_t size = bytes.size() - sizeof(header);
    const size_t length = strnlen(text, size);
    // A text that was cut takes all the room and has no NUL.
    if (length + 1 != size && (length != size || size != tarn::crm::kTextBytes)) {
        return length == size ? "its text has no end" : "there are bytes after its text";
    }
    message.time = header.time;
    message.isError = header.kind == MessageKind::kError;
    message.text.assign(text, length);
    return {};
}

std::string TextMessageAsLine(const TextMessage& message, const Display& display) {
    std::string_view text = message.text;
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    const std::array<Cell, 3> cells = {
        Cell{TimeText(message.time), Color::kNone, 19},
        Cell{KindName(message.isError), message.isError ? Color::kRed : Color::kNone, 11},
        Cell{ForTerminal(text)},
    };
    return LineOf(cells, display);
}

std::string TextMessageAsJson(const TextMessage& message) {
    return Json{
        {"time", TimeAsJson(message.time)},
        {"kind", KindName(message.isError)},
        {"text", TextAsJson(message.text)},
    }
        .dump();
}

}  // namespace tarnctl
