#include "tarnctl/messages/messages_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "crm/msg_comm.h"
#include "support/temp_dir.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/signals.h"
#include "unit/tarnctl/common/lines_of.h"

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;

namespace tarnctl {
namespace {

class MessagesCommandTest : public testing::Test {
  protected:
    MessagesCommandTest() {
        m_options.socketPath = m_dir.File("crm");
        m_options.timeout = 0.2;
    }

    int Run() { return RunMessages(m_options, m_out, m_err); }

    // Runs the command while `send` sends on a channel like the daemon's, whose first message is
    // tried until somebody receives it.
    int RunWith(const std::function<void(MsgComm&)>& send) {
        m_options.timeout = 20;
        std::thread daemon([&] {
            MsgComm channel(m_options.socketPath);
            (void)channel.Open();
            while (channel.SendInfoMessage("first\n") != 0) {
                std::this_thread::yield();
            }
            send(channel);
        });
        const int status = Run();
        daemon.join();
        return status;
    }

    std::vector<std::string> Lines() const { return LinesOf(m_out); }

    TempDir m_dir;
    MessagesOptions m_options;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(MessagesCommandTest, ShowsALineForEachMessageInOrder) {
    m_options.count = 3;
    EXPECT_EQ(kExitFine, RunWith([](MsgComm& channel) {
                  (void)channel.SendErrorMessage("ERROR in SNORT. Reason: x\n");
                  (void)channel.SendInfoMessage("last");
              }));
    ASSERT_EQ(3U, Lines().size());
    EXPECT_THAT(Lines()[0], EndsWith("  information  first"));
    EXPECT_THAT(Lines()[1], EndsWith("  error  ERROR in SNORT. Reason: x"));
    EXPECT_THAT(Lines()[2], EndsWith("  information  last"));
    EXPECT_EQ("tarnctl messages: receiving at " + m_options.socketPath +
                  "\ntarnctl messages: 3 messages\n",
              m_err.str());
}

TEST_F(MessagesCommandTest, ShowsJsonLines) {
    m_options.json = true;
    m_options.count = 2;
    EXPECT_EQ(kExitFine,
              RunWith([](MsgComm& channel) { (void)channel.SendErrorMessage("bad\n"); }));
    ASSERT_EQ(2U, Lines().size());
    EXPECT_EQ("information", json::parse(Lines()[0])["kind"]);
    EXPECT_EQ("bad\n", json::parse(Lines()[1])["text"]);
}

TEST_F(MessagesCommandTest, EndsAfterTheQuietSeconds) {
    EXPECT_EQ(kExitFine, Run());
    EXPECT_THAT(m_err.str(), EndsWith("tarnctl messages: 0 messages\n"));
    EXPECT_NE(0, access(m_options.socketPath.c_str(), F_OK)) << "its socket is gone";
}

TEST_F(MessagesCommandTest, SkipsWhatIsNoMessageWithItsBytesAndShowsTheNext) {
    m_options.json = true;
    m_options.count = 2;
    EXPECT_EQ(kExitFailure, RunWith([](MsgComm& channel) {
                  (void)channel.Send("\x01\x02", 2);
                  (void)channel.SendInfoMessage("last");
              }));
    ASSERT_EQ(3U, Lines().size());
    EXPECT_EQ("AQI=", json::parse(Lines()[1])["bytes"]);
    EXPECT_THAT(m_err.str(), HasSubstr("tarnctl messages: malformed message of 2 bytes skipped: "
                                       "it is shorter than any message: 01 02\n"));
    EXPECT_THAT(m_err.str(), EndsWith("tarnctl messages: 2 messages, 1 malformed\n"));
}

TEST_F(MessagesCommandTest, FailsWhenTheSocketCannotBeHad) {
    m_options.socketPath = m_dir.File("none/crm");
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_EQ("tarnctl messages: " + m_options.socketPath +
                  ": No such file or directory; make the directory " + m_dir.File("none") +
                  " first\n",
              m_err.str());
}

TEST_F(MessagesCommandTest, FailsWhenTheOutputTakesNoMore) {
    m_out.setstate(std::ios::badbit);
    EXPECT_EQ(kExitFailure, RunWith([](MsgComm&) {}));
    EXPECT_THAT(m_err.str(), HasSubstr("the last message was taken and not shown"));
}

// The flag stays set for the life of a process, so this case has one of its own.
TEST_F(MessagesCommandTest, EndsWithItsCountAtCtrlC) {
    m_options.timeout = 0;
    EXPECT_EXIT(
        {
            CatchStopSignals();
            std::raise(SIGINT);
            _exit(Run() == kExitFine && m_err.str().ends_with("tarnctl messages: 0 messages\n") &&
                          access(m_options.socketPath.c_str(), F_OK) != 0
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tarnctl
