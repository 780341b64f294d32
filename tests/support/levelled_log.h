#pragma once

// What a scenario logs, with the level of each message, which the log file does not hold: levels 1
// to 3 come from the console callback, and 4 from 5 by a second run that lets level 4 pass only.
//
// Threads: the calling test's alone; nothing else logs meanwhile.

#include <cstdarg>
#include <cstdio>
#include <deque>
#include <sstream>
#include <string>
#include <vector>

#include "logging/log.h"
#include "support/log_capture.h"

namespace levelled_log {

using Lines = std::deque<std::string>;

inline Lines& Loud() {
    static Lines lines;
    return lines;
}

__attribute__((format(printf, 2, 0))) inline void KeepLoud(int level, const char* format,
                                                           va_list args) {
    char text[2048];
    std::vsnprintf(text, sizeof(text), format, args);
    std::istringstream lines(std::string(text) + "\n");
    for (std::string line; std::getline(lines, line);) {
        Loud().push_back(std::to_string(level) + " " + line);
    }
}

// The next line of expected, when it has this text.
inline bool Take(Lines& expected, const std::string& text, std::string& taken) {
    if (expected.empty() || expected.front().substr(2) != text) {
        return false;
    }
    taken = expected.front();
    expected.pop_front();
    return true;
}

}  // namespace levelled_log

// Runs a scenario that logs the same each time twice. Returns its messages in order, each as its
// level, a blank and its text.
template <typename Scenario>
std::vector<std::string> LevelledMessages(Scenario scenario) {
    levelled_log::Lines notices;
    std::vector<std::string> lines;
    for (const int level : {vald::Log::kNotice, vald::Log::kDebug}) {
        levelled_log::Loud().clear();
        vald::Log::SetConsole(&levelled_log::KeepLoud, true, true, true);
        const LogCapture log(level);
        scenario();
        vald::Log::SetConsole(nullptr, false, false, false);
        for (const std::string& text : log.Messages()) {
            std::string line;
            if (levelled_log::Take(levelled_log::Loud(), text, line)) {
                // the callback has its level
            } else if (level == vald::Log::kNotice) {
                notices.push_back("4 " + text);
            } else if (!levelled_log::Take(notices, text, line)) {
                line = "5 " + text;
            }
            if (level == vald::Log::kDebug) {
                lines.push_back(line);
            }
        }
    }
    return lines;
}
