#include "tarnctl/common/text_forms.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

namespace tarnctl {

namespace {

// Writes a number into the last places of `to`, with zeros in front.
void PutDigits(std::span<char> to, unsigned number) {
    for (auto digit = to.rbegin(); digit != to.rend(); ++digit, number /= 10) {
        *digit = static_cast<char>('0' + number % 10);
    }
}

}  // namespace

// A line each for many millions of records has a time, and strftime(3) would take longer for it
// than all else in the line takes.
std::string TimeText(uint64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    tm parts = {};
    if (localtime_r(&time, &parts) == nullptr) {
        return std::to_string(seconds);
    }
    constexpr int kEpoch = 1900;
    constexpr int kLastYear = 9999;
    const int year = parts.tm_year + kEpoch;
    if (year < kEpoch || year > kLastYear) {
        std::array<char, 64> text = {};
        (void)strftime(text.data(), text.size(), "%F %T", &parts);
        return text.data();
    }
    std::string text = "YYYY-mm-dd HH:MM:SS";
    PutDigits(std::span(text).first(4), static_cast<unsigned>(year));
    size_t at = 5;
    for (const int part :
         {parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec}) {
        PutDigits(std::span(text).subspan(at, 2), static_cast<unsigned>(part));
        at += 3;
    }
    return text;
}

std::string TimeText(uint64_t seconds, uint32_t microseconds) {
    constexpr size_t kFraction = 6;  // digits
    std::string text = TimeText(seconds) + '.';
    const size_t digits = std::max(kFraction, std::to_string(microseconds).size());
    text.append(digits, '0');
    PutDigits(std::span(text).last(digits), microseconds);
    return text;
}

nlohmann::ordered_json TimeAsJson(uint64_t seconds, uint32_t microseconds) {
    if (seconds == 0 && microseconds == 0) {
        return nullptr;
    }
    if (microseconds == 0) {
        return seconds;
    }
    constexpr double kSecond = 1e6;  // in microseconds
    return static_cast<double>(seconds) + microseconds / kSecond;
}

std::string ForTerminal(std::string_view text) {
    std::string safe;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte >= 0x20 && byte < 0x7F && byte != '\\') {
            safe += letter;
            continue;
        }
        std::array<char, 8> escape = {};
        std::snprintf(escape.data(), escape.size(), "\\x%02X", byte);
        safe += escape.data();
    }
    return safe;
}

// JSON texts are Unicode and what comes off a wire need not be. The encoder refuses such a
// string, and then its bytes are given instead of something that only resembles them.
nlohmann::ordered_json TextAsJson(std::string_view text) {
    nlohmann::ordered_json value = text;
    try {
        (void)value.dump();  // only to learn whether it can be encoded
    } catch (const nlohmann::ordered_json::type_error&) {
        value = nlohmann::ordered_json{
            {"base64", Base64(std::as_bytes(std::span(text.data(), text.size())))}};
    }
    return value;
}

std::string Base64(std::span<const std::byte> bytes) {
    static constexpr char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text((bytes.size() + 2) / 3 * 4, '=');
    char* to = text.data();
    size_t at = 0;
    for (; at + 3 <= bytes.size(); at += 3) {
        const uint32_t group = std::to_integer<uint32_t>(bytes[at]) << 16 |
                               std::to_integer<uint32_t>(bytes[at + 1]) << 8 |
                               std::to_integer<uint32_t>(bytes[at + 2]);
        *to++ = kDigits[group >> 18];
        *to++ = kDigits[group >> 12 & 0x3F];
        *to++ = kDigits[group >> 6 & 0x3F];
        *to++ = kDigits[group & 0x3F];
    }
    const size_t left = bytes.size() - at;
    if (left != 0) {
        const uint32_t group = std::to_integer<uint32_t>(bytes[at]) << 16 |
                               (left == 2 ? std::to_integer<uint32_t>(bytes[at + 1]) << 8 : 0U);
        *to++ = kDigits[group >> 18];
        *to++ = kDigits[group >> 12 & 0x3F];
        if (left == 2) {
            *to = kDigits[group >> 6 & 0x3F];
        }
    }
    return text;
}

std::string HexDigits(std::span<const std::byte> bytes) {
    std::string text;
    for (const std::byte byte : bytes) {
        std::array<char, 4> digits = {};
        std::snprintf(digits.data(), digits.size(), " %02x", std::to_integer<unsigned>(byte));
        text += digits.data();
    }
    return text;
}

std::string MalformedAsJson(const std::string& reason, std::span<const std::byte> bytes) {
    return nlohmann::ordered_json{{"malformed", reason}, {"bytes", Base64(bytes)}}.dump();
}

}  // namespace tarnctl
