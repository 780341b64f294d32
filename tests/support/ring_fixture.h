#pragma once

// What the tests of the ring share: a path of their own, a report callback that remembers, and
// messages as vectors of bytes.

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "ring/shm_event_pipe.h"
#include "support/temp_dir.h"

using Bytes = std::vector<unsigned char>;

struct RingReport {
    std::string className;
    std::string method;
    int64_t level;
    std::string text;
    bool operator==(const RingReport&) const = default;
};

class RingTest : public testing::Test {
  protected:
    RingTest() { s_reports.clear(); }

    // A message of the given length whose bytes follow each other from `first`.
    static Bytes Counting(uint32_t length, unsigned char first = 1) {
        Bytes message(length);
        for (unsigned char& byte : message) {
            byte = first++;
        }
        return message;
    }

    static ShmPipeResult Write(ShmEventPipe& pipe, const Bytes& message) {
        const auto length = static_cast<uint32_t>(message.size());
        return pipe.write(message.data(), &length);
    }

    // What one read of a buffer of this capacity gives.
    struct Outcome {
        ShmPipeResult result;
        uint32_t status;
        Bytes message;
        bool operator==(const Outcome&) const = default;
    };
    static Outcome Read(ShmEventPipe& pipe, uint32_t capacity = 4096) {
        Outcome outcome{PIPE_OK, 99, Bytes(capacity)};
        uint32_t size = capacity;
        outcome.result = pipe.read(outcome.message.data(), &size, &outcome.status);
        outcome.message.resize(size);
        return outcome;
    }

    static int Remember(const char* className, const char* method, int64_t level,
                        const char* format, ...) __attribute__((format(printf, 4, 5))) {
        char text[256];
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        s_reports.push_back({className, method, level, text});
        return 1;
    }

    static inline std::vector<RingReport> s_reports;
    const TempDir m_dir;
    const std::string m_path = m_dir.File("ring");
};

inline void PrintTo(const RingReport& report, std::ostream* out) {
    *out << report.className << "::" << report.method << " [" << report.level << "] "
         << report.text;
}
