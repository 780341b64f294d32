#include "unit/logging/syslog_stand_in.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <mutex>

namespace syslog_stand_in {

namespace {

struct Kept {
    int priority;
    const char* text;
};

// Signal handlers log too, so that a line is kept without the heap.
std::mutex s_mutex;
char s_texts[1 << 21];
size_t s_textsUsed = 0;
Kept s_lines[1 << 13];
size_t s_lineCount = 0;
std::vector<Opening> s_openings;
int s_closings = 0;
void (*s_hook)() = nullptr;

void __attribute__((format(printf, 2, 0))) Record(int priority, const char* format, va_list args) {
    void (*hook)() = nullptr;
    {
        const std::lock_guard lock(s_mutex);
        char* text = s_texts + s_textsUsed;
        const size_t room = sizeof s_texts - s_textsUsed;
        const auto length = static_cast<size_t>(vsnprintf(text, room, format, args));
        if (length >= room || s_lineCount == std::size(s_lines)) {
            std::abort();  // a test that logs this much needs a larger stand-in
        }
        s_textsUsed += length + 1;
        s_lines[s_lineCount++] = {priority, text};
        hook = s_hook;
    }
    if (hook != nullptr) {
        hook();
    }
    // The real one connects to a socket that may be missing, and says so here.
    errno = ENOENT;
}

}  // namespace

void Clear() {
    const std::lock_guard lock(s_mutex);
    s_textsUsed = 0;
    s_lineCount = 0;
    s_openings.clear();
    s_closings = 0;
    s_hook = nullptr;
}

std::vector<Line> Lines() {
    const std::lock_guard lock(s_mutex);
    std::vector<Line> lines;
    for (size_t i = 0; i < s_lineCount; ++i) {
        lines.push_back({s_lines[i].priority, s_lines[i].text});
    }
    return lines;
}

std::vector<Opening> Openings() {
    const std::lock_guard lock(s_mutex);
    return s_openings;
}

int Closings() {
    const std::lock_guard lock(s_mutex);
    return s_closings;
}

void Inside(void (*hook)()) {
    const std::lock_guard lock(s_mutex);
    s_hook = hook;
}

}  // namespace syslog_stand_in

using namespace syslog_stand_in;

extern "C" {

void openlog(const char* name, int options, int facility) {
    const std::lock_guard lock(s_mutex);
    s_openings.push_back({name, options, facility});
    errno = ENOENT;
}

void closelog() {
    const std::lock_guard lock(s_mutex);
    ++s_closings;
    errno = ENOENT;
}

void __attribute__((format(printf, 2, 3))) syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Record(priority, format, args);
    va_end(args);
}

// What a hardened build calls instead.
void __attribute__((format(printf, 3, 4)))
__syslog_chk(int priority, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Record(priority, format, args);
    va_end(args);
}
}
