#include "tarnctl/common/config_file_options.h"

#include <gtest/gtest.h>

namespace tarnctl {
namespace {

class ConfigFileOptions : public testing::Test {
  protected:
    ConfigFileOptions() { AddConfigFileOptions(m_app, m_config, m_events, m_state); }

    std::string m_config = "/tarn.conf";
    std::string m_events = "/tarn_event.conf";
    std::string m_state = "/tarn.state";
    CLI::App m_app;
};

TEST_F(ConfigFileOptions, KeepTheDefaults) {
    m_app.parse("");
    EXPECT_EQ("/tarn.conf", m_config);
    EXPECT_EQ("/tarn_event.conf", m_events);
    EXPECT_EQ("/tarn.state", m_state);
}

TEST_F(ConfigFileOptions, TakeTheLettersOfTheDaemon) {
    m_app.parse("-c a -n b --state c");
    EXPECT_EQ("a", m_config);
    EXPECT_EQ("b", m_events);
    EXPECT_EQ("c", m_state);
}

TEST_F(ConfigFileOptions, TakeWords) {
    m_app.parse("--events b --config a");
    EXPECT_EQ("a", m_config);
    EXPECT_EQ("b", m_events);
}

TEST_F(ConfigFileOptions, ShowTheirDefaults) {
    for (const char* const name : {"-c", "-n", "--state"}) {
        EXPECT_EQ("FILE", m_app.get_option(name)->get_type_name());
    }
    EXPECT_EQ("/tarn_event.conf", m_app.get_option("-n")->get_default_str());
}

}  // namespace
}  // namespace tarnctl
