#include "tarnctl/ring/ring_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/golden_bytes.h"
#include "support/independent_ring.h"
#include "support/private_channel.h"
#include "support/ring_fixture.h"
#include "unit/tarnctl/common/lines_of.h"
#include "unit/tarnctl/rings/ring_side.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Json = nlohmann::json;

namespace tarnctl {
namespace {

class RingCommandTest : public testing::Test {
  protected:
    RingCommandTest() {
        EXPECT_TRUE(m_writer.Open(true));
        m_raw = std::make_unique<IndependentRing>(m_path);
        m_options.rings = {m_name};
        m_options.interval = 0;
        m_options.force = true;
    }
    void Put(const Bytes& message) {
        const auto length = static_cast<uint32_t>(message.size());
        ASSERT_EQ(PIPE_OK, m_writer.write(message.data(), &length));
    }
    int Run(const char* action) {
        m_options.action = action;
        m_out = {};
        m_err = {};
        return RunRing(m_options, m_out, m_err);
    }

    const PrivateChannel m_channel;
    const std::string m_name = "crm" + std::to_string(m_channel.Id()) + "-1";
    const std::string m_path = m_channel.RingBase() + "-1";
    ShmEventPipe m_writer{WRITER, m_path, 0x40000};
    std::unique_ptr<IndependentRing> m_raw;
    RingOptions m_options;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(RingCommandTest, ShowsHeadAndMessagesAndTakesNothing) {
    Put(GoldenBytes("event_report_minimal.txt"));
    Put({1, 2, 3});
    const std::vector<unsigned char> before = m_raw->Bytes();
    EXPECT_EQ(0, Run("show"));
    const std::vector<std::string> lines = LinesOf(m_out);
    ASSERT_EQ(4U, lines.size());
    EXPECT_EQ(m_name + "  " + m_path, lines[0]);
    EXPECT_THAT(lines[1], HasSubstr("2 messages in "));
    EXPECT_THAT(lines[1], HasSubstr("read index 0, write index "));
    EXPECT_THAT(lines[2], HasSubstr("SID "));
    EXPECT_THAT(lines[3], HasSubstr("3 bytes  01 02 03"));
    EXPECT_EQ(before, m_raw->Bytes());
}

TEST_F(RingCommandTest, ShowsAsManyMessagesAsItIsAskedFor) {
    for (int i = 0; i < 30; ++i) {
        Put({1, 2, 3});
    }
    EXPECT_EQ(0, Run("show"));
    EXPECT_THAT(m_out.str(), HasSubstr("and 10 more; --count 0 shows all"));
    m_options.count = 0;
    EXPECT_EQ(0, Run("show"));
    EXPECT_EQ(32U, LinesOf(m_out).size());
}

TEST_F(RingCommandTest, ShowsARingAsOneObject) {
    m_options.json = true;
    Put({1, 2, 3});
    EXPECT_EQ(0, Run("show"));
    EXPECT_EQ(Json::parse(R"({"name":")" + m_name + R"(","path":")" + m_path +
                          R"(","kind":"reports","size":262136,"readIndex":0,"writeIndex":8,
                             "used":8,"messages":1,"fault":null,
                             "listed":[{"offset":0,"length":3,"bytes":"AQID"}]})"),
              Json::parse(m_out.str()));
}

TEST_F(RingCommandTest, FindsNothingWrongWithAHealthyRing) {
    Put({1, 2, 3});
    EXPECT_EQ(0, Run("check"));
    EXPECT_EQ(m_name + ": fine, 1 message in 8 bytes\n", m_out.str());
}

TEST_F(RingCommandTest, NamesAStuckRingAndWhatToDo) {
    Put({1, 2, 3});
    m_raw->Poke(8, 0);
    EXPECT_EQ(1, Run("check"));
    EXPECT_THAT(
        LinesOf(m_out),
        ElementsAre(m_name + ": stuck: the length word at offset 0 is 0 and the write index is 8",
                    HasSubstr("no reader gets past it"),
                    "  stop the reader and run: tarnctl ring repair " + m_name));
    const RingSide reader(m_path, PROT_READ | PROT_WRITE, "reader");
    EXPECT_EQ(1, Run("check"));
    EXPECT_THAT(m_out.str(), HasSubstr("  mapped by reader ("));
    m_options.json = true;
    EXPECT_EQ(1, Run("check"));
    EXPECT_EQ("no-length", Json::parse(m_out.str()).at("fault").at("kind"));
}

TEST_F(RingCommandTest, CannotCheckARingThatIsNotThere) {
    m_options.rings.push_back("/var/tmp/no-such-ring");
    EXPECT_EQ(2, Run("check"));
    EXPECT_THAT(m_err.str(), HasSubstr("No such file"));
    EXPECT_THAT(m_out.str(), HasSubstr("fine"));
    m_raw->Poke(4, 3);
    EXPECT_EQ(2, Run("check"));
    EXPECT_THAT(m_out.str(), HasSubstr("stuck"));
}

TEST_F(RingCommandTest, RepairsAndSaysWhatWasLost) {
    Put({1, 2, 3});
    m_raw->Poke(8, 0);
    EXPECT_EQ(0, Run("repair"));
    EXPECT_THAT(m_out.str(), HasSubstr("8 bytes of messages that waited are lost"));
    EXPECT_EQ(0, Run("check"));
    m_options.json = true;
    EXPECT_EQ(0, Run("repair"));
    EXPECT_EQ("healthy", Json::parse(m_out.str()).at("outcome"));
    EXPECT_EQ(0, Json::parse(m_out.str()).at("lostBytes"));
}

TEST_F(RingCommandTest, SaysWhyItDoesNotRepair) {
    Put({1, 2, 3});
    m_raw->Poke(8, 0);
    const RingSide reader(m_path, PROT_READ | PROT_WRITE, "reader");
    EXPECT_EQ(1, Run("repair"));
    EXPECT_THAT(m_err.str(), HasSubstr("tarnctl ring: " + m_path + ": reader ("));
    EXPECT_EQ("", m_out.str());
}

TEST_F(RingCommandTest, EmptiesARingWhenItIsSure) {
    Put({1, 2, 3});
    const int input = dup(STDIN_FILENO);
    ASSERT_NE(nullptr, freopen("/dev/null", "r", stdin));
    EXPECT_EQ(1, Run("reset"));
    EXPECT_THAT(m_err.str(), HasSubstr("there is no terminal to ask at; use --yes"));
    EXPECT_EQ(8U, m_raw->Word(4));
    m_options.yes = true;
    EXPECT_EQ(0, Run("reset"));
    EXPECT_THAT(m_out.str(), HasSubstr("8 bytes of messages that waited are lost"));
    EXPECT_EQ(0U, m_raw->Word(4));
    dup2(input, STDIN_FILENO);
    close(input);
}

TEST_F(RingCommandTest, WantsTheNameOfARingToChange) {
    m_options.rings.clear();
    EXPECT_EQ(1, Run("repair"));
    EXPECT_THAT(m_err.str(), HasSubstr("name the ring to repair"));
    EXPECT_EQ(1, Run("reset"));
    EXPECT_THAT(m_err.str(), HasSubstr("name the ring to reset"));
    m_options.rings = {"nonsense"};
    EXPECT_EQ(1, Run("show"));
    EXPECT_THAT(m_err.str(), HasSubstr("nonsense is no ring"));
    EXPECT_EQ(2, Run("check"));
}

TEST_F(RingCommandTest, TakesTheHalfOfAChannelThatIsThere) {
    m_options.rings = {"crm" + std::to_string(m_channel.Id())};
    EXPECT_EQ(0, Run("show"));
    EXPECT_THAT(m_out.str(), HasSubstr("-1\n"));
    EXPECT_THAT(m_out.str(), Not(HasSubstr("-0\n")));
    m_options.rings = {"crm99999999"};
    EXPECT_EQ(1, Run("show"));
    EXPECT_THAT(m_err.str(), HasSubstr("there is no such ring"));
}

TEST_F(RingCommandTest, LooksAtAllRingsHereWithoutAName) {
    m_options.rings.clear();
    (void)Run("check");
    EXPECT_THAT(m_out.str(), HasSubstr(m_name + ": fine"));
}

}  // namespace
}  // namespace tarnctl
