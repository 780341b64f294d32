#include "tarnctl/reload/kept_entries.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

KeptEntries Example() {
    KeptEntries entries;
    entries.mark = {42, "/var/tmp/ring-1", 1'700'000'000'123'456'789, "/etc/tarn.conf",
                    "/etc/events.conf"};
    entries.policies = {{7, "severity 1"}, {4294967295, ""}};
    return entries;
}

class KeptEntriesTest : public testing::Test {
  protected:
    const TempDir m_dir;
    const std::string m_path = m_dir.File("reload");
    KeptEntries m_entries;
};

TEST_F(KeptEntriesTest, ComeBackAsTheyWereKept) {
    ASSERT_EQ("", KeepEntries(m_path, Example()));
    ASSERT_EQ("", LoadKeptEntries(m_path, m_entries));
    EXPECT_EQ(Example().mark, m_entries.mark);
    EXPECT_EQ(Example().policies, m_entries.policies);
}

TEST_F(KeptEntriesTest, TheFolderIsMadeButNotTheOneAboveIt) {
    EXPECT_EQ("", KeepEntries(m_dir.File("tarn/reload"), Example()));
    EXPECT_EQ("", LoadKeptEntries(m_dir.File("tarn/reload"), m_entries));
    EXPECT_EQ(Example().mark, m_entries.mark);
    EXPECT_THAT(KeepEntries(m_dir.File("a/b/reload"), Example()),
                HasSubstr("No such file or directory"));
}

TEST_F(KeptEntriesTest, WhereNothingIsKeptThereIsNoMark) {
    m_entries = Example();
    EXPECT_EQ("", LoadKeptEntries(m_path, m_entries));
    EXPECT_EQ(CycleMark(), m_entries.mark);
    EXPECT_TRUE(m_entries.policies.empty());
}

TEST_F(KeptEntriesTest, EachPartOfTheMarkTellsCyclesApart) {
    const CycleMark mark = Example().mark;
    for (std::string CycleMark::*const part :
         {&CycleMark::ring, &CycleMark::configFile, &CycleMark::eventFile}) {
        CycleMark other = mark;
        other.*part += "x";
        EXPECT_NE(mark, other);
    }
    CycleMark other = mark;
    ++other.time;
    EXPECT_NE(mark, other);
    other = mark;
    ++other.daemon;
    EXPECT_NE(mark, other);
}

TEST_F(KeptEntriesTest, AnythingElseIsNothingThatWasKept) {
    for (const char* const text :
         {"", "[]", "{}", R"({"version":2})", R"({"version":1})",
          R"({"version":2,"daemon":1,"ring":"r","time":5,"configFile":"c","eventFile":"e",)"
          R"("entries":[]})",
          R"({"version":1,"daemon":1,"ring":"r","time":5,"configFile":"c","eventFile":"e",)"
          R"("entries":[{"signature":"seven","policy":"p"}]})"}) {
        m_dir.Write("reload", text);
        m_entries = Example();
        EXPECT_EQ(m_path + ": not what a reload has kept", LoadKeptEntries(m_path, m_entries))
            << text;
        EXPECT_EQ(CycleMark(), m_entries.mark) << text;
        EXPECT_TRUE(m_entries.policies.empty()) << text;
    }
}

TEST_F(KeptEntriesTest, SaysThatTheFileCannotBeRead) {
    m_dir.Write("folder", "no folder");
    EXPECT_THAT(LoadKeptEntries(m_dir.File("folder/reload"), m_entries),
                HasSubstr("Not a directory"));
}

}  // namespace
}  // namespace tarnctl
