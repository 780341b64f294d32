#include "tarnctl/crm/json_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <nlohmann/json.hpp>

#include "tarnctl/common/text_forms.h"

namespace tarnctl {

namespace {

bool IsPrintable(std::string_view text) {
    bool isPrintable = true;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        isPrintable &= byte >= 0x20 && byte < 0x7F;
    }
    return isPrintable;
}

// A string of printable ASCII, in which only two letters are not their own.
void AppendPrintable(std::string& to, std::string_view text) {
    to += '"';
    while (true) {
        const size_t plain = text.find_first_of("\"\\");
        to += text.substr(0, plain);
        if (plain == std::string_view::npos) {
            break;
        }
        to += '\\';
        to += text[plain];
        text.remove_prefix(plain + 1);
    }
    to += '"';
}

}  // namespace

bool IsUtf8(std::string_view text) {
    return IsPrintable(text) || TextAsJson(text).is_string();
}

void AppendTextAsJson(std::string& to, std::string_view text) {
    if (IsPrintable(text)) {
        AppendPrintable(to, text);
    } else {
        to += TextAsJson(text).dump();
    }
}

void JsonText::Open() {
    m_to += '{';
}

void JsonText::Open(std::string_view name) {
    Name(name);
    m_to += '{';
}

void JsonText::Name(std::string_view name) {
    m_to += m_to.back() == '{' ? "\"" : ",\"";
    m_to += name;
    m_to += "\":";
}

void JsonText::Number(std::string_view name, uint64_t value) {
    constexpr size_t kLongest = 20;  // digits of 2^64 - 1
    std::array<char, kLongest> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    Name(name);
    m_to.append(digits.data(), end);
}

void JsonText::NumberUnlessZero(std::string_view name, uint64_t value) {
    if (value != 0) {
        Number(name, value);
    }
}

void JsonText::Raw(std::string_view name, std::string_view value) {
    Name(name);
    m_to += value;
}

void JsonText::Text(std::string_view name, std::string_view text) {
    Name(name);
    if (IsPrintable(text)) {
        AppendPrintable(m_to, text);
        return;
    }
    using Json = nlohmann::ordered_json;
    m_to += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

void JsonText::TextUnlessEmpty(std::string_view name, std::string_view text) {
    if (!text.empty()) {
        Name(name);
        AppendTextAsJson(m_to, text);
    }
}

void JsonText::HexUnlessZero(std::string_view name, std::span<const uint8_t> bytes) {
    if (std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; })) {
        return;
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    Name(name);
    m_to += '"';
    for (const uint8_t byte : bytes) {
        m_to += kDigits[byte >> 4];
        m_to += kDigits[byte & 0xF];
    }
    m_to += '"';
}

}  // namespace tarnctl
