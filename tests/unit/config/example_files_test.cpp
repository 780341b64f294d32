// The configuration files that are shipped as examples do what their comments say.

#include <gmock/gmock.h>

#include <string>

#include "support/file_text.h"
#include "unit/config/config_fixture.h"

namespace {

using testing::IsEmpty;

using ExampleFiles = ConfigFixture;

std::string Example(const std::string& name) {
    const std::string content = ReadFile(TARN_SOURCE_DIR "/packaging/examples/" + name);
    EXPECT_NE(content, "") << name;
    return content;
}

TEST_F(ExampleFiles, MainFileHoldsEveryKeyWithItsStartValue) {
    const std::string example = Example("tarn.conf");
    Config::Dump();
    const std::vector<std::string> start = log.Messages();
    ASSERT_EQ(start.size(), 17U);
    for (std::size_t key = 1; key + 1 < start.size(); ++key) {
        EXPECT_NE(example.find("\n" + start[key] + "\n"), std::string::npos) << start[key];
    }
    LoadMain(example);
    Config::Dump();
    std::vector<std::string> twice = start;
    twice.insert(twice.end(), start.begin(), start.end());
    EXPECT_EQ(log.Messages(), twice);
}

TEST_F(ExampleFiles, EventFileGivesTheEntriesItTellsOf) {
    LoadEvents(Example("tarn_event.conf"));
    EXPECT_EQ(Config::s_eventTable.NodeCount(), 5U);

    const auto ping = Config::GetResponseSetting(2100366);
    ASSERT_TRUE(ping);
    EXPECT_EQ(ping->severity, kSeverityLow);
    EXPECT_EQ(ping->userResponseFlags, kUserResponseWithoutRaw);
    EXPECT_EQ(ping->responseFlags, 0U);
    EXPECT_THAT(ping->blockRules, IsEmpty());

    const auto download = Config::GetResponseSetting(2000419);
    ASSERT_TRUE(download);
    EXPECT_EQ(download->severity, kSeverityMedium);
    EXPECT_EQ(download->userResponseFlags, kUserResponseWithRaw);

    const auto shell = Config::GetResponseSetting(2019284);
    ASSERT_TRUE(shell);
    EXPECT_EQ(shell->severity, kSeverityHigh);
    EXPECT_EQ(shell->userResponseFlags, kUserResponseLogEvidence | kUserResponseLogPackets);
    EXPECT_EQ(shell->responseFlags, kResponseQuarantineTraffic | kResponseQuarantineIcmp);
    ASSERT_EQ(shell->blockRules.size(), 1U);
    EXPECT_EQ(shell->blockRules.front().flags, kBlockIntruderAddress);
    EXPECT_EQ(shell->blockRules.front().duration, 600U);

    const auto worm = Config::GetResponseSetting(2001569);
    ASSERT_TRUE(worm);
    ASSERT_EQ(worm->blockRules.size(), 1U);
    EXPECT_EQ(worm->blockRules.front().flags, kBlockIntruderAddress | kBlockVictimPort);
    EXPECT_EQ(worm->blockRules.front().duration, 86400U);

    const auto flood = Config::GetResponseSetting(2008120);
    ASSERT_TRUE(flood);
    ASSERT_EQ(flood->blockRules.size(), 2U);
    EXPECT_EQ(flood->blockRules.front().flags, kBlockIntruderAddress | kBlockIcmpType);
    EXPECT_EQ(flood->blockRules.back().flags, kBlockIntruderAddress | kBlockVictimPort);
    EXPECT_EQ(flood->blockRules.back().rateLimit, 10U);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

}  // namespace
