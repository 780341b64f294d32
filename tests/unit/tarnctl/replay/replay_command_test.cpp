#include "tarnctl/replay/replay_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/temp_dir.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/signals.h"
#include "unit/tarnctl/common/fifo_reader.h"
#include "unit/tarnctl/common/unified2_files.h"

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

namespace tarnctl {
namespace {

class ReplayTest : public testing::Test {
  protected:
    ReplayTest() {
        std::signal(SIGPIPE, SIG_IGN);
        m_options.fifo = m_dir.File("alerts.fifo");
        m_options.rate = 0;
        EXPECT_EQ(0, mkfifo(m_options.fifo.c_str(), 0600));
    }
    // Plays a file with this content to a reader and returns the exit status.
    int Play(const std::string& content) {
        m_options.file = m_dir.Write("alerts.u2", content);
        const FifoReader reader(m_options.fifo);
        auto received = std::async(std::launch::async, [&reader] { return reader.ReadAll(); });
        const int status = RunReplay(m_options, m_out, m_err);
        // A replay that never opened the FIFO leaves its reader without an end to see.
        const int ending = open(m_options.fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        EXPECT_NE(-1, ending);
        close(ending);
        m_received = received.get();
        return status;
    }

    TempDir m_dir;
    ReplayOptions m_options;
    std::ostringstream m_out;
    std::ostringstream m_err;
    std::string m_received;
};

// The seconds of the clock that replay reads. time() may be a tick behind it.
uint32_t SystemSeconds() {
    return static_cast<uint32_t>(
        std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
}

// The big-endian word at an offset.
uint32_t BigWordAt(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) {
        value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
    }
    return value;
}

TEST_F(ReplayTest, SendsWithThePresentTimeWhatBelongsTogether) {
    const u2test::Alert alert;
    const u2test::Packet packet;
    const u2test::ExtraData extra;
    const std::string content = AsText(u2test::Framed(104, alert.Payload())) +
                                AsText(u2test::Framed(110, extra.Payload())) +
                                AsText(u2test::Framed(2, packet.Payload()));
    m_options.now = true;
    const uint32_t before = SystemSeconds();
    EXPECT_EQ(kExitFine, Play(content));
    const uint32_t after = SystemSeconds();
    ASSERT_EQ(content.size(), m_received.size());
    const size_t extraAt = 8 + 60;
    const size_t packetAt = extraAt + 8 + extra.Payload().size();
    const uint32_t second = BigWordAt(m_received, 8 + 8);
    const uint32_t microsecond = BigWordAt(m_received, 8 + 12);
    EXPECT_GE(second, before);
    EXPECT_LE(second, after);
    EXPECT_LT(microsecond, 1000000U);
    EXPECT_EQ(second, BigWordAt(m_received, extraAt + 8 + 16));
    EXPECT_EQ(second, BigWordAt(m_received, packetAt + 8 + 8));
    EXPECT_EQ(second, BigWordAt(m_received, packetAt + 8 + 12));
    EXPECT_EQ(microsecond, BigWordAt(m_received, packetAt + 8 + 16));
    std::string rest = m_received;
    rest.replace(16, 8, content, 16, 8);
    rest.replace(extraAt + 24, 4, content, extraAt + 24, 4);
    rest.replace(packetAt + 16, 12, content, packetAt + 16, 12);
    EXPECT_EQ(content, rest) << "nothing else has changed";
}

TEST_F(ReplayTest, LeavesTheTimeOfRecordsThatHaveNoPlaceForIt) {
    m_options.now = true;
    const std::string content = Alert() + Record(66, 40) + Record(2, 7) + Record(110, 3);
    EXPECT_EQ(kExitFine, Play(content));
    ASSERT_EQ(content.size(), m_received.size());
    EXPECT_EQ(content.substr(68), m_received.substr(68));
}

TEST_F(ReplayTest, SendsEveryRecordOfTheFile) {
    const std::string content = Alert() + Packet(1400) + AlertIpv6() + Packet(60000);
    EXPECT_EQ(kExitFine, Play(content));
    EXPECT_EQ(m_received, content);
    EXPECT_THAT(m_out.str(), StartsWith("sent 4 records with 2 alerts, " +
                                        std::to_string(content.size()) + " bytes, in "));
    EXPECT_EQ("", m_err.str());
}

TEST_F(ReplayTest, PlaysTheFileAsOftenAsAskedWithTheSameIds) {
    m_options.loop = 3;
    const std::string content = Alert() + Packet(10);
    EXPECT_EQ(kExitFine, Play(content));
    EXPECT_EQ(m_received, content + content + content);
    EXPECT_THAT(m_out.str(), StartsWith("sent 6 records with 3 alerts, "));
}

TEST_F(ReplayTest, SummarisesInJson) {
    m_options.json = true;
    EXPECT_EQ(kExitFine, Play(Alert() + Packet(10)));
    const json summary = json::parse(m_out.str());
    EXPECT_EQ(2, summary["records"]);
    EXPECT_EQ(1, summary["alerts"]);
    EXPECT_EQ(68 + 46, summary["bytes"]);
    EXPECT_GE(summary["seconds"], 0.0);
    EXPECT_TRUE(summary["error"].is_null());
}

TEST_F(ReplayTest, SendsWhatIsWholeOfATruncatedFileAndSaysWhereItEnds) {
    EXPECT_EQ(kExitFailure, Play(Alert() + Packet(100).substr(0, 20)));
    EXPECT_EQ(m_received, Alert());
    EXPECT_THAT(m_err.str(), HasSubstr("the file is truncated: the record at offset 68 has 12 of "
                                       "128 bytes of payload; what comes before it was sent\n"));
    EXPECT_THAT(m_out.str(), StartsWith("sent 1 record with 1 alert, 68 bytes"));
}

TEST_F(ReplayTest, SendsNothingOfAForeignFile) {
    EXPECT_EQ(kExitFailure, Play("#!/bin/sh\necho this is a script\n"));
    EXPECT_EQ("", m_received);
    EXPECT_THAT(m_err.str(), HasSubstr("not a unified2 file"));
}

TEST_F(ReplayTest, KeepsTheRateOfAlertsAndLetsTheirRecordsFollowAtOnce) {
    m_options.rate = 100;
    std::string content;
    for (int i = 0; i < 6; ++i) {
        content += Alert() + Packet(1) + Packet(2) + Packet(3);
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kExitFine, Play(content));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(m_received, content);
}

TEST_F(ReplayTest, FailsWithoutAReader) {
    m_options.file = m_dir.Write("alerts.u2", Alert());
    m_options.json = true;
    EXPECT_EQ(kExitFailure, RunReplay(m_options, m_out, m_err));
    EXPECT_THAT(m_err.str(),
                HasSubstr("nobody is reading; start tarn, or wait for it with --wait"));
    EXPECT_THAT(std::string(json::parse(m_out.str())["error"]), HasSubstr("nobody is reading"));
}

TEST_F(ReplayTest, FailsWithoutAFile) {
    m_options.file = m_dir.File("none.u2");
    EXPECT_EQ(kExitFailure, RunReplay(m_options, m_out, m_err));
    EXPECT_THAT(m_err.str(), HasSubstr("none.u2: No such file or directory"));
}

TEST_F(ReplayTest, DrawsItsBarOnATerminalOnly) {
    EXPECT_EQ(kExitFine, Play(Alert()));
    EXPECT_EQ("", m_err.str());
    m_options.errorIsTerminal = true;
    m_options.width = 80;
    EXPECT_EQ(kExitFine, Play(Alert()));
    EXPECT_THAT(m_err.str(), HasSubstr("[##############################] 100% 1 alert"));
}

// The flag stays set for the life of a process, so this case has one of its own.
TEST_F(ReplayTest, FailsWhenItIsInterrupted) {
    m_options.file = m_dir.Write("alerts.u2", Alert() + Alert());
    const FifoReader reader(m_options.fifo);
    EXPECT_EXIT(
        {
            CatchStopSignals();
            std::raise(SIGTERM);
            const int status = RunReplay(m_options, m_out, m_err);
            _exit(status == kExitFailure &&
                          m_err.str().find("interrupted; the rest has not") != std::string::npos
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tarnctl
