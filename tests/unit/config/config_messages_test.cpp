// What the loader says before the log is open, and what the end of the process leaves alone.

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "config/config.h"
#include "config/event_rule_table.h"
#include "logging/log.h"
#include "support/temp_dir.h"

namespace {

// Set in a child process that is to examine the table after all static objects are gone.
std::weak_ptr<Node>* examined = nullptr;

// Is made before the static objects of the other files, and so destroyed after them.
struct Examiner {
    ~Examiner() {
        if (examined != nullptr) {
            // Asked first: a look into a table that is gone may find anything.
            const bool isAlive = !examined->expired();
            _exit(isAlive && Config::s_eventTable.Find(7) != nullptr ? 0 : 1);
        }
    }
};
[[gnu::init_priority(101)]] Examiner examiner;

TEST(ConfigEnd, LeavesTheEventTableToAThreadThatOutlivesTheStaticObjects) {
    EXPECT_EXIT(
        {
            Config::Initialize();
            (void)Config::ApplyEventSetting("se.7.msg", "seven");
            if (!Config::s_eventTable.Commit()) {
                _exit(2);
            }
            examined = new std::weak_ptr<Node>(Config::s_eventTable.Find(7));
            std::exit(3);
        },
        testing::ExitedWithCode(0), "");
}

class ConfigMessages : public testing::Test {
  protected:
    ConfigMessages() { vald::Log::Destroy(); }

    static std::string Said(const char* line, int level = vald::Log::kNotice) {
        vald::Log::SetLevel(level);
        testing::internal::CaptureStderr();
        Config::ParseLine(line, Config::kMainFile);
        vald::Log::SetLevel(vald::Log::kNotice);
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(ConfigMessages, OfTheFirstLoadReachStandardError) {
    EXPECT_EQ("Warning: Config file entry is missing value: 'word'\n", Said("word"));
    EXPECT_EQ("Warning: Config file entry is missing parameter name: '=3'\n", Said("=3"));
}

TEST_F(ConfigMessages, OfTheTimeoutReachStandardErrorAsNotices) {
    const std::string begin = "Notice: Tuning parameter: 'tarn.evidencelog.file.timeout = ";
    EXPECT_EQ(begin + "4' is out of range (5-30), setting it to 5 minutes.\n",
              Said("tarn.evidencelog.file.timeout = 4"));
    EXPECT_EQ(begin + "31' is out of range (5-30), setting it to 30 minutes.\n",
              Said("tarn.evidencelog.file.timeout = 31"));
    EXPECT_EQ("", Said("tarn.evidencelog.file.timeout = 4", vald::Log::kInfo));
    EXPECT_EQ("", Said("tarn.evidencelog.file.timeout = 31", vald::Log::kInfo));
    EXPECT_TRUE(Config::ApplySetting("tarn.evidencelog.file.timeout", "15"));
}

TEST_F(ConfigMessages, OfBrokenLinesAreWarnings) {
    EXPECT_EQ("", Said("word", vald::Log::kError));
    EXPECT_EQ("", Said("=3", vald::Log::kError));
}

}  // namespace
