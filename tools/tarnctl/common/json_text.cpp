#include "tarnctl/common/json_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <nlohmann/json.hpp>

#include "quarantine/address_text.h"
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
    size_t done = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '"' || text[at] == '\\') {
            to.append(text, done, at - done);
            to += '\\';
            done = at;
        }
    }
    to.append(text, done);
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
    if (m_to.back() != '{') {
        m_to += ',';
    }
    m_to += '"';
    m_to += name;
    m_to.append("\":", 2);
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

void JsonText::Ipv4(std::string_view name, uint32_t address) {
    Name(name);
    m_to += '"';
    for (int shift = 24; shift >= 0; shift -= 8) {
        constexpr size_t kLongest = 3;  // digits of a byte
        std::array<char, kLongest> digits;
        const uint32_t byte = address >> shift & 0xFF;
        m_to.append(digits.data(),
                    std::to_chars(digits.data(), digits.data() + digits.size(), byte).ptr);
        m_to += shift == 0 ? '"' : '.';
    }
}

// Most reports have no address of the second kind.
void JsonText::Ipv6(std::string_view name, std::span<const uint8_t, 16> address) {
    const bool isZero =
        std::all_of(address.begin(), address.end(), [](uint8_t byte) { return byte == 0; });
    Name(name);
    m_to += '"';
    m_to += isZero ? "::" : Ipv6Text(address);
    m_to += '"';
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
