#include "tarnctl/show/json_line.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <nlohmann/json.hpp>

#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

constexpr size_t kUsualLength = 512;
constexpr uint32_t kMicroseconds = 1'000'000;  // in a second
constexpr size_t kFractionDigits = 6;

// A text that stands in JSON as it is.
bool IsPlain(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char letter) {
        return letter >= ' ' && letter <= '~' && letter != '"' && letter != '\\';
    });
}

}  // namespace

void JsonLine::AddKey(std::string_view key) {
    if (m_text.empty()) {
        m_text.reserve(kUsualLength);
    }
    m_text += m_text.empty() ? "{\"" : ",\"";
    m_text += key;
    m_text += "\":";
}

void JsonLine::AddRaw(std::string_view key, std::string_view value) {
    AddKey(key);
    m_text += value;
}

void JsonLine::AddNumber(std::string_view key, uint64_t number) {
    std::array<char, 20> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    AddRaw(key, {digits.data(), static_cast<size_t>(end - digits.data())});
}

void JsonLine::AddText(std::string_view key, std::string_view text) {
    if (!IsPlain(text)) {
        AddRaw(key, TextAsJson(text).dump());
        return;
    }
    AddKey(key);
    m_text += '"';
    m_text += text;
    m_text += '"';
}

void JsonLine::AddTextOrNull(std::string_view key, std::string_view text) {
    text.empty() ? AddNull(key) : AddText(key, text);
}

void JsonLine::AddTime(std::string_view key, uint32_t second, uint32_t microsecond) {
    if (microsecond == 0) {
        second == 0 ? AddNull(key) : AddNumber(key, second);
        return;
    }
    // Below one second the shortest form of a number may be one with an exponent, and a fraction of
    // more than a second is no fraction.
    if (second == 0 || microsecond >= kMicroseconds) {
        AddRaw(key, TimeAsJson(second, microsecond).dump());
        return;
    }
    AddNumber(key, second);
    std::array<char, kFractionDigits> digits;
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit, microsecond /= 10) {
        *digit = static_cast<char>('0' + microsecond % 10);
    }
    const std::string_view fraction(digits.data(), digits.size());
    m_text += '.';
    m_text += fraction.substr(0, fraction.find_last_not_of('0') + 1);
}

void JsonLine::AddBytes(std::string_view key, std::span<const std::byte> bytes) {
    AddKey(key);
    m_text += '"';
    m_text += Base64(bytes);
    m_text += '"';
}

std::string JsonLine::Finish() {
    m_text += m_text.empty() ? "{}" : "}";
    return std::move(m_text);
}

}  // namespace tarnctl
