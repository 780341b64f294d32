#include "tarnctl/secmgr/quarantine_control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "support/temp_dir.h"
#include "tarnctl/common/line_link.h"
#include "unit/tarnctl/quarantine/scripted_engine.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

class QuarantineControlTest : public testing::Test {
  protected:
    QuarantineControlTest() {
        m_settings.nft = true;
        m_settings.nftEngine = ScriptedEngine::Maker(m_dir.Path());
        m_settings.objectionToNetwork = [] { return std::string(); };
        m_settings.hostAddresses = [] { return std::vector<std::string>{"10.9.9.9"}; };
        m_settings.never = {"10.1.0.0/16"};
        m_settings.neverFile = {m_dir.Write("never", "# ours\n\n10.2.0.0/16  # the office\n")};
    }
    void SetUp() override {
        m_enforcer = std::make_unique<RuleEnforcer>(
            m_settings, [this](const std::string& text) { m_told.push_back(text); });
        ASSERT_EQ("", m_enforcer->Begin());
        m_control = std::make_unique<QuarantineControl>(
            *m_enforcer, [this](const std::string& text) { m_told.push_back(text); },
            [this](uid_t user) { return m_mayChange && user == getuid(); });
        ASSERT_EQ("", m_control->Open(m_path));
    }
    // The answer to an order. The client has a thread of its own, as it waits.
    Json Ask(const std::string& order) {
        Json answer;
        std::atomic<bool> isDone = false;
        std::jthread client([&] {
            LineLink link("quarantine", "");
            EXPECT_EQ("", link.Open(m_path));
            EXPECT_EQ("", link.Ask(order, answer));
            isDone = true;
        });
        while (!isDone) {
            m_control->Serve();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return answer;
    }
    Json Add(const std::string& address, const std::string& more = R"("seconds":600)") {
        return Ask(R"({"do":"add","address":")" + address + "\"," + more + "}");
    }
    std::string PutRule(const std::string& pieces) {
        QuarantineParts parts;
        const std::string text = pieces + " expires " + UtcText(std::time(nullptr) + 600);
        EXPECT_EQ("", ParseQuarantineText(text, parts)) << text;
        return m_enforcer->PutIntoForce(parts, text, 77);
    }
    static std::vector<std::string> Intruders(const Json& rules) {
        std::vector<std::string> found;
        for (const Json& rule : rules) {
            found.push_back(rule["intruder"].is_null() ? "-" : rule["intruder"]);
        }
        return found;
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("sock");
    EnforcerSettings m_settings;
    std::vector<std::string> m_told;
    bool m_mayChange = true;
    std::unique_ptr<RuleEnforcer> m_enforcer;
    std::unique_ptr<QuarantineControl> m_control;
};

TEST_F(QuarantineControlTest, ListsWhatIsInForceWithAllThatIsKnown) {
    EXPECT_EQ("", PutRule("ip intruder addr 203.0.113.1"));
    EXPECT_EQ("", PutRule("ip victim addr 203.0.113.2 tcp src port 0 dst port 80"));
    m_dir.Write("listing", R"({"nftables":[{"set":{"name":"ip_saddr","elem":[{"elem":{
        "val":"203.0.113.1","counter":{"packets":4,"bytes":200}}}]}}]})");
    const Json answer = Ask(R"({"do":"list"})");
    EXPECT_TRUE(answer["cutsOff"]);
    ASSERT_EQ(2U, answer["rules"].size());
    const Json& first = answer["rules"][0];
    EXPECT_EQ("203.0.113.1", first["intruder"]);
    EXPECT_TRUE(first["victim"].is_null());
    EXPECT_EQ(77, first["issueId"]);
    EXPECT_TRUE(first["why"].is_null());
    EXPECT_TRUE(first["whole"]);
    EXPECT_EQ(4, first["packets"]);
    EXPECT_EQ(200, first["bytes"]);
    EXPECT_GT(first["secondsLeft"], 500);
    EXPECT_LE(first["secondsLeft"], 600);
    EXPECT_THAT(first["rule"], StartsWith("ip intruder addr 203.0.113.1 expires "));
    const Json& second = answer["rules"][1];
    EXPECT_EQ("203.0.113.2", second["victim"]);
    EXPECT_FALSE(second["whole"]);
    EXPECT_TRUE(second["packets"].is_null());
}

TEST_F(QuarantineControlTest, PutsAnAddressIntoForceAndEndsIt) {
    const Json added =
        Add("2001:DB8:0:0:0:0:0:1", R"("seconds":600,"why":"scans \u00fc\n")")["added"];
    EXPECT_EQ("2001:db8::1", added["intruder"]);
    EXPECT_TRUE(added["issueId"].is_null());
    EXPECT_EQ("scans \xc3\xbc\n", added["why"]);
    EXPECT_THAT(m_told, ElementsAre(StartsWith("put into force by user " +
                                               std::to_string(getuid()) + ": ipv6 intruder")));
    EXPECT_EQ("", PutRule("ipv6 victim addr 2001:db8::1 proto 47"));
    EXPECT_EQ("", PutRule("ip intruder addr 203.0.113.1"));
    const Json removed = Ask(R"({"do":"remove","address":"2001:db8:0::1"})")["removed"];
    EXPECT_THAT(Intruders(removed), ElementsAre("2001:db8::1", "-"));
    EXPECT_EQ(1U, m_enforcer->Table().Rules().size());
    EXPECT_THAT(m_dir.Read("changes"),
                HasSubstr("delete element inet tarn ip6_saddr { 2001:db8::1 }"));
    EXPECT_THAT(m_told.back(), StartsWith("no longer in force (by user "));
    EXPECT_THAT(Ask(R"({"do":"remove","address":"2001:db8::1"})")["removed"], IsEmpty());
}

TEST_F(QuarantineControlTest, EndsEverything) {
    EXPECT_EQ("", PutRule("ip intruder addr 203.0.113.1"));
    EXPECT_EQ("", PutRule("ip intruder addr 203.0.113.2"));
    EXPECT_EQ(2U, Ask(R"({"do":"flush"})")["removed"].size());
    EXPECT_THAT(m_enforcer->Table().Rules(), IsEmpty());
}

TEST_F(QuarantineControlTest, SaysThatTheKernelDidNotEndARule) {
    EXPECT_EQ("", PutRule("ip intruder addr 203.0.113.1"));
    m_dir.Write("fail", "0");
    EXPECT_THAT(Ask(R"({"do":"flush"})")["error"], HasSubstr("no such thing"));
    EXPECT_EQ(1U, m_enforcer->Table().Rules().size());
}

TEST_F(QuarantineControlTest, TellsWhichLineProtectsAnAddress) {
    const auto cover = [this](const char* address) {
        return Ask(std::string(R"({"do":"test","address":")") + address + "\"}")["protectedBy"];
    };
    EXPECT_EQ(Json({{"entry", "10.1.0.0/16"}, {"source", "--never"}}), cover("10.1.2.3"));
    EXPECT_EQ(Json({{"entry", "10.2.0.0/16"}, {"source", m_dir.File("never") + ", line 3"}}),
              cover("::ffff:10.2.0.1"));
    EXPECT_EQ(Json({{"entry", "10.9.9.9"}, {"source", "an address of this host"}}),
              cover("10.9.9.9"));
    EXPECT_EQ(Json({{"entry", "127.0.0.0/8"}, {"source", "always: loopback"}}), cover("127.0.0.1"));
    EXPECT_TRUE(cover("203.0.113.1").is_null());
    EXPECT_THAT(Add("10.1.2.3")["error"], HasSubstr("is never quarantined, as part of 10.1"));
}

TEST_F(QuarantineControlTest, TellsTheRulesThatNameAnAddress) {
    EXPECT_EQ("", PutRule("ip intruder addr 203.0.113.1"));
    EXPECT_EQ("", PutRule("ip intruder addr 203.0.113.2 victim addr 203.0.113.1"));
    EXPECT_EQ("", PutRule("ip intruder addr 203.0.113.3"));
    const Json answer = Ask(R"({"do":"test","address":"203.0.113.1"})");
    EXPECT_EQ("203.0.113.1", answer["address"]);
    EXPECT_THAT(Intruders(answer["rules"]), ElementsAre("203.0.113.1", "203.0.113.2"));
    EXPECT_FALSE(answer["rules"][1]["whole"]);
}

TEST_F(QuarantineControlTest, LetsOthersListAndTestOnly) {
    EXPECT_EQ("", PutRule("ip intruder addr 203.0.113.1"));
    m_mayChange = false;
    for (const char* const order :
         {R"({"do":"flush"})", R"({"do":"remove","address":"203.0.113.1"})",
          R"({"do":"add","address":"203.0.113.2","seconds":5})"}) {
        EXPECT_THAT(Ask(order)["error"], HasSubstr(" may list and test; only root and user "));
    }
    EXPECT_EQ(1U, Ask(R"({"do":"list"})")["rules"].size());
    EXPECT_EQ(1U, Ask(R"({"do":"test","address":"203.0.113.1"})")["rules"].size());
    EXPECT_THAT(m_told, IsEmpty());
}

TEST(IsRootOrOwnUserOf, IsTrueForThemOnly) {
    EXPECT_TRUE(IsRootOrOwnUser(0));
    EXPECT_TRUE(IsRootOrOwnUser(geteuid()));
    EXPECT_FALSE(IsRootOrOwnUser(geteuid() + 1));
    EXPECT_FALSE(IsRootOrOwnUser(static_cast<uid_t>(-1)));
}

TEST_F(QuarantineControlTest, RefusesWhatIsNoOrder) {
    for (const char* const order :
         {"", "list", "[]", "{}", R"({"do":1})", R"({"do":"lst"})", R"({"do":"test"})",
          R"({"do":"test","address":7})", R"({"do":"test","address":"10.0.0"})",
          R"({"do":"add","address":"203.0.113.1"})",
          R"({"do":"add","address":"203.0.113.1","seconds":0})",
          R"({"do":"add","address":"203.0.113.1","seconds":31622401})",
          R"({"do":"add","address":"203.0.113.1","seconds":1e99})",
          R"({"do":"add","address":"203.0.113.1","seconds":18446744073709551615})",
          R"({"do":"add","address":"203.0.113.1","seconds":5,"why":7})", "{\"do\":\"\xff\"}"}) {
        const Json answer = Ask(order);
        EXPECT_TRUE(answer.contains("error") && answer.size() == 1) << order;
    }
    EXPECT_TRUE(Add("203.0.113.1", R"("seconds":5,"why":")" + std::string(1001, 'x') + '"')
                    .contains("error"));
    EXPECT_THAT(m_enforcer->Table().Rules(), IsEmpty());
}

TEST_F(QuarantineControlTest, LetsTheGroupWriteToTheSocket) {
    struct stat file = {};
    ASSERT_EQ(0, stat(m_path.c_str(), &file));
    EXPECT_EQ(0660U, file.st_mode & 0777U);
}

}  // namespace
}  // namespace tarnctl
