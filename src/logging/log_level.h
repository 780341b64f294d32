#pragma once

// The levels of the log, and the words for them. A message passes when its level is at most the
// configured one.
//
// Threads: constants only.

namespace log_level {

inline constexpr int kError = 1;
inline constexpr int kWarning = 2;
inline constexpr int kInfo = 3;
inline constexpr int kNotice = 4;
inline constexpr int kDebug = 5;
inline constexpr int kHighest = 6;  // may be configured; no message uses it

struct Words {
    const char* console;  // in front of a message on standard error
    const char* mark;     // in front of a message of LogAt; empty for levels that have none
};

// Numbers without a level of their own have the words of debug.
constexpr Words WordsOf(int level) {
    switch (level) {
        case kError:
            return {"Error: ", "[ERROR]"};
        case kWarning:
            return {"Warning: ", "[WARNING]"};
        case kInfo:
            return {"Info: ", "[INFO]"};
        case kNotice:
            return {"Notice: ", ""};
        default:
            return {"Debug: ", ""};
    }
}

}  // namespace log_level
