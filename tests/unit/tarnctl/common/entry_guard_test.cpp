#include "tarnctl/common/entry_guard.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "config/config.h"
#include "support/temp_dir.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

class EntryGuardTest : public testing::Test {
  protected:
    EntryGuardTest() {
        m_dir.Write("tarn.conf", "tarn.engine.crm = 5\n");
        WriteEvents("se.7.severity = low\nse.7.msg = Seven\n", 1000);
    }

    // Writes the event file with this modification time, in seconds.
    void WriteEvents(const std::string& text, time_t second, long nanosecond = 0) const {
        m_dir.Write("events", text);
        SetTime("events", second, nanosecond);
    }
    void SetTime(const std::string& name, time_t second, long nanosecond = 0) const {
        const timespec times[2] = {{second, nanosecond}, {second, nanosecond}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, m_dir.File(name).c_str(), times, 0));
    }

    const TempDir m_dir;
    const int m_formerChannel = Config::s_engineCrm;
    EntryGuard m_guard{{m_dir.File("tarn.conf"), m_dir.File("events"), m_dir.File("state")}};

    void TearDown() override {
        Config::s_engineCrm = m_formerChannel;
        Config::s_stateFile = tarn::paths::kStateFile;
    }
};

TEST_F(EntryGuardTest, HasTheEntriesThatTheLoaderMakes) {
    WriteEvents("se.7.severity = low\nse.7.msg = Seven\nse.8.colour = red\nse.9.rule = abc\n",
                1000);
    ASSERT_EQ("", m_guard.Load());
    EXPECT_TRUE(m_guard.HasEntry(7));
    EXPECT_FALSE(m_guard.HasEntry(8));
    EXPECT_TRUE(m_guard.HasEntry(9));
    EXPECT_EQ(2U, m_guard.Count());
    EXPECT_EQ(5, EntryGuard::Channel());
    EXPECT_EQ(5U, m_guard.TextBytes(7));
    EXPECT_EQ(3U, m_guard.TextBytes(9));
    EXPECT_EQ(0U, m_guard.TextBytes(8));
}

TEST_F(EntryGuardTest, KeepsWhatIsInForceUntilTheDaemonReads) {
    ASSERT_EQ("", m_guard.Load());
    EXPECT_EQ("", m_guard.Changed());
    WriteEvents("se.8.severity = low\n", 2000);
    EXPECT_EQ(m_dir.File("events"), m_guard.Changed());
    EXPECT_TRUE(m_guard.HasEntry(7));
    EXPECT_FALSE(m_guard.HasEntry(8));
    ASSERT_EQ("", m_guard.LoadChanged());
    EXPECT_FALSE(m_guard.HasEntry(7));
    EXPECT_TRUE(m_guard.HasEntry(8));
}

TEST_F(EntryGuardTest, LikeTheDaemonSkipsAFileWhoseTimeIsTheSameSecond) {
    ASSERT_EQ("", m_guard.Load());
    WriteEvents("se.8.severity = low\n", 1000, 5);
    ASSERT_EQ("", m_guard.LoadChanged());
    EXPECT_TRUE(m_guard.HasEntry(7));
    EXPECT_FALSE(m_guard.HasEntry(8));
}

TEST_F(EntryGuardTest, LikeTheDaemonReadsAFileThatHasBecomeOlder) {
    ASSERT_EQ("", m_guard.Load());
    WriteEvents("se.8.severity = low\n", 900);
    ASSERT_EQ("", m_guard.LoadChanged());
    EXPECT_TRUE(m_guard.HasEntry(8));
}

TEST_F(EntryGuardTest, ReadsTheMainFileAloneWhenThatHasChanged) {
    ASSERT_EQ("", m_guard.Load());
    m_dir.Write("tarn.conf", "tarn.engine.crm = 6\n");
    SetTime("tarn.conf", 5000);
    EXPECT_EQ(m_dir.File("tarn.conf"), m_guard.Changed());
    ASSERT_EQ("", m_guard.LoadChanged());
    EXPECT_EQ(6, EntryGuard::Channel());
    EXPECT_TRUE(m_guard.HasEntry(7));
}

TEST_F(EntryGuardTest, KnowsWhetherAFileWasChangedAfterALoad) {
    ASSERT_EQ("", m_guard.Load());
    struct stat status = {};
    ASSERT_EQ(0, stat(m_dir.File("events").c_str(), &status));
    const int64_t changed = status.st_ctim.tv_sec * int64_t{1'000'000'000} + status.st_ctim.tv_nsec;
    EXPECT_EQ("", m_guard.NewerThan(changed));
    EXPECT_EQ(m_dir.File("events"), m_guard.NewerThan(changed - 1));
}

TEST_F(EntryGuardTest, NamesAFileThatCannotBeRead) {
    std::filesystem::remove(m_dir.File("events"));
    EXPECT_THAT(m_guard.Load(), HasSubstr(m_dir.File("events") + ": No such file"));
}

TEST_F(EntryGuardTest, KnowsTheMostQuarantineRulesOfAnEntry) {
    const std::string rule = ".quarantine.rule = quarantine-intruder-address\n";
    WriteEvents("se.7" + rule + "se.7" + rule + "se.8" + rule, 1000);
    ASSERT_EQ("", m_guard.Load());
    EXPECT_EQ(2U, m_guard.MostBlockRules());
    WriteEvents("se.8" + rule, 2000);
    ASSERT_EQ("", m_guard.LoadChanged());
    EXPECT_EQ(1U, m_guard.MostBlockRules());
}

TEST_F(EntryGuardTest, SaysWhatHasChanged) {
    WriteEvents("se.7.msg = Seven\nse.8.msg = Eight\nse.9.msg = Nine\n", 1000);
    ASSERT_EQ("", m_guard.Load());
    const EntryGuard::Policies before = m_guard.CurrentPolicies();
    WriteEvents("se.7.msg = Seven\nse.8.msg = Ate\nse.10.msg = Ten\n", 2000);
    ASSERT_EQ("", m_guard.LoadChanged());
    const nlohmann::ordered_json changes = m_guard.ChangesSince(before);
    EXPECT_EQ(3, changes["entries"]);
    ASSERT_EQ(1U, changes["added"].size());
    EXPECT_EQ(10, changes["added"][0]["signature"]);
    ASSERT_EQ(1U, changes["removed"].size());
    EXPECT_EQ(9, changes["removed"][0]["signature"]);
    ASSERT_EQ(1U, changes["changed"].size());
    EXPECT_EQ(8, changes["changed"][0]["signature"]);
    EXPECT_THAT(changes["changed"][0]["before"].get<std::string>(), HasSubstr("Eight"));
    EXPECT_THAT(changes["changed"][0]["policy"].get<std::string>(), HasSubstr("Ate"));
}

}  // namespace
}  // namespace tarnctl
