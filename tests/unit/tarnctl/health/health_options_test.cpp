#include "tarnctl/health/health_options.h"

#include <gtest/gtest.h>

namespace tarnctl {
namespace {

class HealthOptions : public testing::Test {
  protected:
    HealthOptions() {
        AddWithoutOption(m_app, m_without);
        AddPlaceOptions(m_app, m_channel, m_log);
    }

    // Why the words are refused; empty where they are taken.
    std::string Fault(const std::string& words) {
        try {
            m_app.parse(words);
        } catch (const CLI::ParseError& fault) {
            return fault.what();
        }
        return "";
    }

    std::vector<std::string> m_without;
    std::optional<int> m_channel;
    std::optional<std::string> m_log;
    CLI::App m_app;
};

TEST_F(HealthOptions, AreAbsentUnlessTheyAreGiven) {
    EXPECT_EQ("", Fault(""));
    EXPECT_TRUE(m_without.empty());
    EXPECT_FALSE(m_channel.has_value());
    EXPECT_FALSE(m_log.has_value());
}

TEST_F(HealthOptions, TakeEachPeerAndPlace) {
    EXPECT_EQ("", Fault("--without crm --without messages --without secmgr --without packetlog "
                        "--channel 0 --log /x"));
    EXPECT_EQ((std::vector<std::string>{"crm", "messages", "secmgr", "packetlog"}), m_without);
    EXPECT_EQ(0, m_channel);
    EXPECT_EQ("/x", m_log);
}

TEST_F(HealthOptions, NameWhatThereIsInPlaceOfAnUnknownPeer) {
    EXPECT_EQ("--without: snort is none of crm, messages, secmgr and packetlog",
              Fault("--without snort"));
}

TEST_F(HealthOptions, RefuseAChannelThatIsNoNumber) {
    EXPECT_EQ("--channel: -1 is no whole number from 0 to 2147483647", Fault("--channel -1"));
}

}  // namespace
}  // namespace tarnctl
