#pragma once

// The log as the tests of this folder question it: every message, and the level of those that are
// loud enough for the console callback, which are the levels 1 to 3.
//
// Threads: the test's own.

#include <algorithm>
#include <string>
#include <vector>

#include "support/levelled_log.h"
#include "support/log_capture.h"

class QuestionedLog {
  public:
    explicit QuestionedLog(int level = vald::Log::kDebug) : m_capture(level) {
        levelled_log::Loud().clear();
        vald::Log::SetConsole(&levelled_log::KeepLoud, true, true, true);
    }
    ~QuestionedLog() { vald::Log::SetConsole(nullptr, false, false, false); }
    QuestionedLog(const QuestionedLog&) = delete;
    QuestionedLog& operator=(const QuestionedLog&) = delete;

    // The messages so far, in order.
    [[nodiscard]] std::vector<std::string> Lines() const { return m_capture.Messages(); }

    // The number of messages that hold `text`.
    [[nodiscard]] long Count(const std::string& text) const {
        const auto lines = Lines();
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
    }

    // The number of messages of this level, 1 to 3, that are `text`.
    [[nodiscard]] long CountAt(int level, const std::string& text) const {
        const auto& loud = levelled_log::Loud();
        return std::count(loud.begin(), loud.end(), std::to_string(level) + " " + text);
    }

    // The number of messages of this level, 1 to 3, that begin with `text`.
    [[nodiscard]] long CountBeginningAt(int level, const std::string& text) const {
        const auto& loud = levelled_log::Loud();
        return std::count_if(loud.begin(), loud.end(), [&](const std::string& line) {
            return line.starts_with(std::to_string(level) + " " + text);
        });
    }

  private:
    LogCapture m_capture;
};
