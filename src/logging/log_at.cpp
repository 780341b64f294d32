#include "logging/log_at.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "logging/log.h"

namespace {

constexpr unsigned kTextSize = 2048;

std::string Prefix(int level, int line, const char* function) {
    switch (level) {
        case 1:
            return "[ERROR]";
        case 2:
            return "[WARNING]";
        case 3:
            return "[INFO]";
        case 5:
        case 6:
            return std::string("<") + function + ":" + std::to_string(line) + ">";
        default:
            return "";
    }
}

__attribute__((format(printf, 4, 0))) void VFormatBounded(char* out, unsigned size,
                                                          const std::string& prefix,
                                                          const char* format, va_list args) {
    constexpr char kMark[] = ">>>";

    if (size == 0) {
        return;
    }
    char text[kTextSize] = {};
    std::vsnprintf(text, sizeof text, format, args);
    std::string joined = prefix + text;
    if (joined.size() >= size) {
        joined.resize(size - std::min<std::size_t>(size, sizeof kMark));
        joined += kMark;
        joined.resize(std::min<std::size_t>(joined.size(), size - 1));
    }
    std::memset(out, 0, size);
    std::memcpy(out, joined.data(), joined.size());
}

// Deliberate: the finished text stands in the place of a format once more, so "%%" in it comes out
// as "%". Other conversions have no argument left to show and stand as they are.
std::string ReadAsFormat(const char* text) {
    std::string read;
    for (; *text != '\0'; ++text) {
        read += *text;
        if (text[0] == '%' && text[1] == '%') {
            ++text;
        }
    }
    return read;
}

}  // namespace

void LogAt(int level, int line, const char* function, const char* format, ...) {
    if (!vald::Log::Passes(level)) {
        return;
    }
    char text[kTextSize];
    va_list args;
    va_start(args, format);
    VFormatBounded(text, sizeof text, Prefix(level, line, function), format, args);
    va_end(args);
    vald::Log::GetInstance()->Write(level, "%s", ReadAsFormat(text).c_str());
}

void FormatBounded(char* out, unsigned size, const std::string& prefix, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VFormatBounded(out, size, prefix, format, args);
    va_end(args);
}
