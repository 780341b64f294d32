#pragma once

// A client of a request and response socket with a stand-in for its peer, and what the client
// reports. Shared by the tests of RequestClient.
//
// Threads: the test's own; the stand-in runs on one of its own.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quarantine/request_client.h"
#include "support/stream_peer.h"
#include "support/temp_dir.h"

constexpr int32_t kLimit = 1;          // seconds, where the limit is meant to run out
constexpr int32_t kPlentyOfTime = 60;  // where it is not

// The bytes 0, 1, 2 and so on.
inline StreamPeer::Bytes Iota(size_t length) {
    StreamPeer::Bytes bytes(length);
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(i);
    }
    return bytes;
}

inline size_t OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// The number that the next descriptor gets, by which a test knows the client's own.
inline int NextDescriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

class RequestClientTest : public testing::Test {
  protected:
    using Bytes = StreamPeer::Bytes;
    using Session = StreamPeer::Session;

    RequestClientTest() { m_client.SetLog(&KeepReport, reinterpret_cast<uint64_t>(&m_reports)); }

    // A client that is connected to a stand-in with this script.
    void ConnectTo(StreamPeer::Script script) {
        m_peer = std::make_unique<StreamPeer>(m_path, std::move(script));
        ASSERT_TRUE(m_client.Connect(m_path.c_str(), kPlentyOfTime));
    }

    bool Receive(int32_t timeout = kPlentyOfTime) {
        uint8_t* buffer = nullptr;
        const bool received = m_client.ReceiveResponse(&buffer, &m_size, timeout);
        m_response.reset(buffer);
        return received;
    }
    bool ReceiveRecords(uint64_t recordSize) {
        uint8_t* buffer = nullptr;
        const bool received = m_client.ReceiveRecords(&buffer, &m_size, recordSize, kPlentyOfTime);
        m_response.reset(buffer);
        return received;
    }
    Bytes Response() const { return {m_response.get(), m_response.get() + m_size}; }

    static void KeepReport(uint64_t context, uint32_t level, const char* format, ...)
        __attribute__((format(printf, 3, 4))) {
        char text[256];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof(text), format, args);
        va_end(args);
        reinterpret_cast<std::vector<std::string>*>(context)->push_back(std::to_string(level) +
                                                                        " " + text);
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("peer");
    std::vector<std::string> m_reports;
    std::unique_ptr<StreamPeer> m_peer;
    RequestClient m_client;
    std::unique_ptr<uint8_t[], RequestClient::ResponseDeleter> m_response;
    uint64_t m_size = 77;
};
