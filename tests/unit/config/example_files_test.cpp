// The configuration files that are shipped as examples do what their comments say.

#include <gmock/gmock.h>

#include <string>

#include "support/file_text.h"
#include "support/source_dir.h"
#include "unit/config/config_fixture.h"

namespace {

using testing::IsEmpty;

using ExampleFiles = ConfigFixture;

std::string Example(const std::string& name) {
    const std::string content = ReadFile(SourceDir() + "/packaging/examples/" + name);
    EXPECT_NE("", content) << name;
    return content;
}

TEST_F(ExampleFiles, MainFileHoldsEveryKeyWithItsStartValue) {
    const std::string example = Example("tarn.conf");
    Config::Dump();
    const std::vector<std::string> start = log.Messages();
    ASSERT_EQ(17U, start.size());
    for (size_t key = 1; key + 1 < start.size(); ++key) {
        EXPECT_NE(std::string::npos, example.find("\n" + start[key] + "\n")) << start[key];
    }
    LoadMain(example);
    Config::Dump();
    std::vector<std::string> twice = start;
    twice.insert(twice.end(), start.begin(), start.end());
    EXPECT_EQ(twice, log.Messages());
}

TEST_F(ExampleFiles, EventFileGivesTheEntriesThatItDescribes) {
    LoadEvents(Example("tarn_event.conf"));
    EXPECT_EQ(5U, Config::s_eventTable.NodeCount());

    const auto ping = Config::GetResponseSetting(2100366);
    ASSERT_TRUE(ping);
    EXPECT_EQ(kSeverityLow, ping->severity);
    EXPECT_EQ(kUserResponseWithoutRaw, ping->userResponseFlags);
    EXPECT_EQ(0U, ping->responseFlags);
    EXPECT_THAT(ping->blockRules, IsEmpty());

    const auto download = Config::GetResponseSetting(2000419);
    ASSERT_TRUE(download);
    EXPECT_EQ(kSeverityMedium, download->severity);
    EXPECT_EQ(kUserResponseWithRaw, download->userResponseFlags);

    const auto shell = Config::GetResponseSetting(2019284);
    ASSERT_TRUE(shell);
    EXPECT_EQ(kSeverityHigh, shell->severity);
    EXPECT_EQ(kUserResponseLogEvidence | kUserResponseLogPackets, shell->userResponseFlags);
    EXPECT_EQ(kResponseQuarantineTraffic | kResponseQuarantineIcmp, shell->responseFlags);
    ASSERT_EQ(1U, shell->blockRules.size());
    EXPECT_EQ(kBlockIntruderAddress, shell->blockRules.front().flags);
    EXPECT_EQ(600U, shell->blockRules.front().duration);

    const auto worm = Config::GetResponseSetting(2001569);
    ASSERT_TRUE(worm);
    ASSERT_EQ(1U, worm->blockRules.size());
    EXPECT_EQ(kBlockIntruderAddress | kBlockVictimPort, worm->blockRules.front().flags);
    EXPECT_EQ(86400U, worm->blockRules.front().duration);

    const auto flood = Config::GetResponseSetting(2008120);
    ASSERT_TRUE(flood);
    ASSERT_EQ(2U, flood->blockRules.size());
    EXPECT_EQ(kBlockIntruderAddress | kBlockIcmpType, flood->blockRules.front().flags);
    EXPECT_EQ(kBlockIntruderAddress | kBlockVictimPort, flood->blockRules.back().flags);
    EXPECT_EQ(10U, flood->blockRules.back().rateLimit);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

}  // namespace
