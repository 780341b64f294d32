#pragma once

// Opens the log on a file of its own for the life of the object and yields the messages in it. The
// file does not hold the levels; a test of a message's level asks what a lower one lets pass.
//
// Threads: made and destroyed while no other thread logs.

#include <sstream>
#include <string>
#include <vector>

#include "logging/log.h"
#include "support/temp_dir.h"

class LogCapture {
  public:
    explicit LogCapture(int level = vald::Log::kDebug) {
        vald::Log::Destroy();
        vald::Log::GetInstance()->Open("tarn_test", m_dir.File("log").c_str(), level, 1 << 30, 1);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() {
        vald::Log::Destroy();
        vald::Log::SetLevel(vald::Log::kNotice);  // where every program starts
    }

    // The messages so far, without the time and thread in front of them.
    std::vector<std::string> Messages() const {
        std::vector<std::string> messages;
        std::istringstream lines(Text());
        for (std::string line; std::getline(lines, line);) {
            // "2026/11/12 14:12:01.123 T:140 text"
            const size_t thread = line.find(" T:");
            const size_t text = line.find(' ', thread + 3);
            messages.push_back(text == std::string::npos ? line : line.substr(text + 1));
        }
        return messages;
    }

    // Whether a text is anywhere in the messages so far.
    bool Contains(const std::string& text) const { return Text().find(text) != std::string::npos; }

    // The whole file.
    std::string Text() const { return m_dir.Read("log"); }

  private:
    TempDir m_dir;
};
