#include "logging/log_at.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "logging/log.h"
#include "logging/log_level.h"

namespace {

constexpr unsigned kTextSize = 2048;

// Puts the words in front of a message of this level into `out`, cut to its size.
void BuildPrefix(char* out, size_t size, int level, int line, const char* function) {
    if (level == log_level::kDebug || level == log_level::kHighest) {
        std::snprintf(out, size, "<%s:%d>", function, line);
    } else {
        std::snprintf(out, size, "%s", log_level::WordsOf(level).mark);
    }
}

__attribute__((format(printf, 4, 0))) void VFormatBounded(char* out, unsigned size,
                                                          std::string_view prefix,
                                                          const char* format, va_list args) {
    constexpr std::string_view kMark = ">>>";

    if (size == 0) {
        return;
    }
    char text[kTextSize] = {};
    std::vsnprintf(text, sizeof text, format, args);
    const std::string_view body = text;
    const size_t room = size - 1;  // the last byte is the NUL
    const bool fits = prefix.size() + body.size() <= room;
    const size_t marked = fits ? 0 : std::min(kMark.size(), room);
    const size_t kept = room - marked;

    std::memset(out, 0, size);
    const size_t ofPrefix = prefix.copy(out, kept);
    const size_t ofBody = body.copy(out + ofPrefix, kept - ofPrefix);
    kMark.copy(out + ofPrefix + ofBody, marked);
}

// Deliberate: the finished text takes the place of a format once more, so "%%" in it comes out as
// "%". Other conversions have no argument left to show and stay as they are.
void ReadAsFormat(char* text) {
    char* out = text;
    for (const char* in = text; *in != '\0'; ++in) {
        *out++ = *in;
        if (in[0] == '%' && in[1] == '%') {
            ++in;
        }
    }
    *out = '\0';
}

}  // namespace

void LogAt(int level, int line, const char* function, const char* format, ...) {
    if (!vald::Log::Passes(level)) {
        return;
    }
    char prefix[kTextSize];
    BuildPrefix(prefix, sizeof prefix, level, line, function);
    char text[kTextSize];
    va_list args;
    va_start(args, format);
    VFormatBounded(text, sizeof text, prefix, format, args);
    va_end(args);
    ReadAsFormat(text);
    vald::Log::GetInstance()->Write(level, "%s", text);
}

void FormatBounded(char* out, unsigned size, const std::string& prefix, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VFormatBounded(out, size, prefix, format, args);
    va_end(args);
}
