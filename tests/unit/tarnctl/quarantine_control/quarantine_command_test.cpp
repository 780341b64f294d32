#include "tarnctl/quarantine_control/quarantine_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "support/temp_dir.h"
#include "tarnctl/common/line_server.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kRule =
    R"({"rule":"ip intruder addr 203.0.113.1 expires 2036-11-12T15:00:00Z","intruder":"203.0.113.1",)"
    R"("victim":null,"whole":true,"issueId":7,"why":null,"asked":2,"expirationTime":2110114800,)"
    R"("secondsLeft":7300,"packets":1,"bytes":60})";

class QuarantineCommandTest : public testing::Test {
  protected:
    // Runs the command against a service that gives this answer.
    int Run(const std::string& answer) {
        m_out.str("");
        m_err.str("");
        std::atomic<bool> isDone = false;
        LineServer server(kLongestOrder);
        EXPECT_EQ("", server.Open(m_options.control));
        std::jthread thread([&] {
            while (!isDone) {
                server.Serve(
                    [&](const LineClient&, const std::string& line) {
                        m_order = Json::parse(line, nullptr, false);
                        return answer;
                    },
                    [](const LineClient&) {});
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        const int status = RunQuarantine(m_options, m_out, m_err);
        isDone = true;
        return status;
    }
    void Say(const char* action, const char* address = "") {
        m_options.action = action;
        m_options.address = address;
    }
    static std::string With(const char* name) {
        return std::string("{\"") + name + "\":[" + kRule + "]";
    }

    const TempDir m_dir;
    QuarantineOptions m_options = [this] {
        QuarantineOptions options;
        options.control = m_dir.File("sock");
        return options;
    }();
    std::ostringstream m_out;
    std::ostringstream m_err;
    Json m_order;
};

TEST_F(QuarantineCommandTest, ListsRulesAsLines) {
    Say("list");
    EXPECT_EQ(0, Run(With("rules") + R"(,"cutsOff":true})"));
    EXPECT_EQ(Json({{"do", "list"}}), m_order);
    EXPECT_EQ(
        "1 rule in force\n"
        "2 h left  1 packet dropped  SID 7  ip intruder addr 203.0.113.1 expires "
        "2036-11-12T15:00:00Z\n",
        m_out.str());
    EXPECT_EQ(0, Run(R"({"rules":[],"cutsOff":false})"));
    EXPECT_EQ("0 rules in force; nothing is cut off\n", m_out.str());
}

TEST_F(QuarantineCommandTest, ShowsAReasonAndWhatIsNotKnown) {
    Say("list");
    Json rule = Json::parse(kRule);
    rule["issueId"] = nullptr;
    rule["packets"] = nullptr;
    rule["why"] = "odd \033[1m";
    EXPECT_EQ(0, Run(Json{{"rules", Json::array({rule})}, {"cutsOff", true}}.dump()));
    EXPECT_THAT(m_out.str(), HasSubstr("2 h left  - dropped  by hand: odd \\x1B[1m  ip intruder"));
}

TEST_F(QuarantineCommandTest, SaysWhetherAnAddressIsCutOff) {
    Say("test", "203.0.113.1");
    const std::string known = With("rules") + R"(,"cutsOff":true,"address":"203.0.113.)";
    EXPECT_EQ(0, Run(known + R"(1","protectedBy":null})"));
    EXPECT_THAT(m_out.str(), HasSubstr("203.0.113.1 is cut off, by 1 rule\n2 h left"));
    EXPECT_EQ(0, Run(known + R"(2","protectedBy":null})"));
    EXPECT_THAT(m_out.str(), HasSubstr("203.0.113.2 is cut off in part, by 1 rule\n"));
    EXPECT_EQ(0, Run(R"({"address":"10.0.0.1","cutsOff":true,"rules":[],"protectedBy":null})"));
    EXPECT_EQ("10.0.0.1 is not cut off\n", m_out.str());
    EXPECT_EQ(0, Run(R"({"address":"10.0.0.1","cutsOff":true,"rules":[],"protectedBy":)"
                     R"({"entry":"10.0.0.0/8","source":"FILE, line 3"}})"));
    EXPECT_EQ("10.0.0.1 is never cut off: 10.0.0.0/8 (FILE, line 3)\n", m_out.str());
}

TEST_F(QuarantineCommandTest, SendsAllThatBelongsToARule) {
    Say("add", "203.0.113.1");
    m_options.duration = "2d";
    m_options.why = "scans";
    EXPECT_EQ(0, Run(R"({"added":)" + std::string(kRule) + "}"));
    EXPECT_EQ(
        Json({{"do", "add"}, {"address", "203.0.113.1"}, {"seconds", 172800}, {"why", "scans"}}),
        m_order);
    EXPECT_THAT(m_out.str(), HasSubstr("in force for 2 h: ip intruder addr 203.0.113.1 "));
}

TEST_F(QuarantineCommandTest, ShowsWhatItHasEnded) {
    Say("remove", "203.0.113.1");
    EXPECT_EQ(0, Run(With("removed") + "}"));
    EXPECT_THAT(m_out.str(), HasSubstr("1 rule ended\n2 h left"));
    Say("flush");
    m_options.yes = true;
    EXPECT_EQ(0, Run(R"({"removed":[]})"));
    EXPECT_EQ("0 rules ended\n", m_out.str());
}

TEST_F(QuarantineCommandTest, DoesNotFlushUnaskedWhereNobodyCanBeAsked) {
    Say("flush");
    EXPECT_EQ(1, Run(R"({"removed":[]})"));
    EXPECT_THAT(m_err.str(), HasSubstr("there is no terminal to ask at; use --yes"));
    EXPECT_TRUE(m_order.is_null());
}

TEST_F(QuarantineCommandTest, HandsTheAnswerOnAsJson) {
    Say("list");
    m_options.json = true;
    const std::string answer = With("rules") + R"(,"cutsOff":true})";
    EXPECT_EQ(0, Run(answer));
    EXPECT_EQ(answer + "\n", m_out.str());
}

TEST_F(QuarantineCommandTest, FailsWhenTheServiceRefusesOrIsNotThere) {
    Say("add", "203.0.113.1");
    EXPECT_EQ(1, Run(R"({"error":"may not"})"));
    EXPECT_EQ("tarnctl quarantine: may not\n", m_err.str());
    m_err.str("");
    EXPECT_EQ(1, RunQuarantine(m_options, m_out, m_err));
    EXPECT_THAT(m_err.str(), HasSubstr("no quarantine is there; start tarnctl secmgr --nft"));
}

TEST_F(QuarantineCommandTest, IsUsedWronglyWithoutAnAddressOrWithOneTooMany) {
    Say("test");
    EXPECT_EQ(2, RunQuarantine(m_options, m_out, m_err));
    Say("list", "203.0.113.1");
    EXPECT_EQ(2, RunQuarantine(m_options, m_out, m_err));
    EXPECT_THAT(m_err.str(), HasSubstr("test needs an address\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("list takes no address\n"));
}

TEST(ParseDurationOf, TakesANumberWithAUnit) {
    EXPECT_EQ(90, ParseDuration("90"));
    EXPECT_EQ(90, ParseDuration("90s"));
    EXPECT_EQ(1800, ParseDuration("30m"));
    EXPECT_EQ(7200, ParseDuration("2h"));
    EXPECT_EQ(604800, ParseDuration("7d"));
    EXPECT_EQ(3153600000, ParseDuration("36500d"));
    for (const char* const word : {"", "h", "0", "-1h", "1w", "1hh", "1.5h", " 1h", "36501d",
                                   "99999999999999999999", "9223372036854775807d"}) {
        EXPECT_EQ(0, ParseDuration(word)) << word;
    }
}

}  // namespace
}  // namespace tarnctl
