#include "tarnctl/common/line_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "support/temp_dir.h"
#include "tarnctl/feed/control_server.h"

using testing::EndsWith;
using testing::HasSubstr;

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kAdvice = "leave --feeder out if there is none";

class LineLinkTest : public testing::Test {
  protected:
    // Serves until the end of the test, as the feeder does in its loop.
    void Serve(const std::string& answer) {
        ASSERT_EQ("", m_server.Open(m_path));
        m_thread = std::jthread([this, answer](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                m_server.Serve([&answer](const std::string& word) {
                    return word == "counters" ? answer : R"({"word":")" + word + "\"}";
                });
                m_isHeld = m_server.IsHeld();
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.File("feed.sock");
    ControlServer m_server;
    std::atomic<bool> m_isHeld{false};
    LineLink m_link{"feeder", kAdvice};
    Json m_answer;
    std::jthread m_thread;  // the last, so that it ends before what it uses
};

TEST_F(LineLinkTest, HandsOutTheAnswerToEachWord) {
    Serve(R"({"underWay":3})");
    ASSERT_EQ("", m_link.Open(m_path));
    ASSERT_EQ("", m_link.Ask("counters", m_answer));
    EXPECT_EQ(Json({{"underWay", 3}}), m_answer);
    ASSERT_EQ("", m_link.Ask("release", m_answer));
    EXPECT_EQ(Json({{"word", "release"}}), m_answer);
}

TEST_F(LineLinkTest, ALongAnswerComesWhole) {
    const std::string text(100000, 'x');
    Serve(Json({{"text", text}}).dump());
    ASSERT_EQ("", m_link.Open(m_path));
    ASSERT_EQ("", m_link.Ask("counters", m_answer));
    EXPECT_EQ(text, m_answer["text"]);
}

TEST_F(LineLinkTest, TheHoldEndsWithTheLink) {
    Serve("{}");
    {
        LineLink link("feeder", kAdvice);
        ASSERT_EQ("", link.Open(m_path));
        ASSERT_EQ("", link.Ask("hold", m_answer));
        ASSERT_EQ("", link.Ask("counters", m_answer));
        EXPECT_TRUE(m_isHeld);
    }
    while (m_isHeld) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

TEST_F(LineLinkTest, SaysThatNoFeederIsThere) {
    EXPECT_EQ(m_path + ": no feeder is there; leave --feeder out if there is none",
              m_link.Open(m_path));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    m_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    close(fd);  // what a feeder that was killed leaves
    LineLink link("feeder", kAdvice);
    EXPECT_THAT(link.Open(m_path), HasSubstr("no feeder is there"));
}

TEST_F(LineLinkTest, SaysWhatElseIsWrongWithThePath) {
    EXPECT_THAT(m_link.Open(m_dir.File(std::string(200, 'x'))), EndsWith(": File name too long"));
    LineLink link("feeder", kAdvice);
    EXPECT_THAT(link.Open(m_dir.Write("file", "") + "/sock"), EndsWith(": Not a directory"));
}

TEST_F(LineLinkTest, RefusesAnAnswerThatIsNoObject) {
    for (const char* const text : {"[]", "7", "no JSON"}) {
        ControlServer server;
        const std::string path = m_dir.File(std::string("sock") + text[0]);
        ASSERT_EQ("", server.Open(path));
        LineLink link("feeder", kAdvice);
        ASSERT_EQ("", link.Open(path));
        std::jthread thread([&](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                server.Serve([text](const std::string&) { return text; });
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        EXPECT_THAT(link.Ask("counters", m_answer), EndsWith("the answer is none of a feeder"));
    }
}

TEST_F(LineLinkTest, NoticesAFeederThatEnds) {
    auto server = std::make_unique<ControlServer>();
    ASSERT_EQ("", server->Open(m_path));
    ASSERT_EQ("", m_link.Open(m_path));
    server->Serve([](const std::string&) { return "{}"; });
    std::jthread thread([&server] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        server.reset();
    });
    EXPECT_THAT(m_link.Ask("counters", m_answer), EndsWith("the feeder does not answer"));
    thread.join();
    EXPECT_NE("", m_link.Ask("counters", m_answer));
}

}  // namespace
}  // namespace tarnctl
