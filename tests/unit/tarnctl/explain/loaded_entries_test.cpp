#include "tarnctl/explain/loaded_entries.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>

#include "config/config.h"
#include "support/temp_dir.h"
#include "tarnctl/common/standard_input.h"

namespace {

using tarnctl::EntryBlock;
using tarnctl::LoadedEntries;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class LoadedEntriesTest : public testing::Test {
  protected:
    void SetUp() override { Write("tarn.conf", "tarn.evidencelog.maxfiles = 7\n"); }

    void Write(const std::string& name, const std::string& text) {
        std::ofstream(m_dir.File(name)) << text;
    }
    std::string Load(const std::string& events) {
        Write("events", events);
        return m_entries.Load({m_dir.File("tarn.conf"), m_dir.File("events"), m_dir.File("state")},
                              m_input);
    }

    TempDir m_dir;
    std::ostringstream m_err;
    tarnctl::StandardInput m_input{m_err, "test"};
    LoadedEntries m_entries;
};

TEST_F(LoadedEntriesTest, FindsAnEntryWithItsLines) {
    ASSERT_EQ("",
              Load("# a comment\nse.7.msg = Seven\n\n  se.7.severity = high\nse.8.msg = Eight\n"));
    ASSERT_NE(nullptr, LoadedEntries::Find(7));
    EXPECT_EQ("Seven", LoadedEntries::Find(7)->eventName);
    EXPECT_EQ(nullptr, LoadedEntries::Find(9));
    EXPECT_EQ(7, Config::s_evidenceMaxFiles) << "the configuration file is read too";

    const auto& blocks = m_entries.Blocks(7);
    ASSERT_THAT(blocks, SizeIs(1));
    EXPECT_TRUE(blocks[0].isInForce);
    ASSERT_THAT(blocks[0].lines, SizeIs(2));
    EXPECT_EQ(m_dir.File("events"), blocks[0].lines[0].file);
    EXPECT_EQ(2u, blocks[0].lines[0].line);
    EXPECT_EQ(1u, blocks[0].lines[0].column);
    EXPECT_EQ("se.7.msg", blocks[0].lines[0].name);
    EXPECT_EQ("Seven", blocks[0].lines[0].value);
    EXPECT_EQ(4u, blocks[0].lines[1].line);
    EXPECT_EQ(3u, blocks[0].lines[1].column);
    EXPECT_TRUE(m_entries.Blocks(8).at(0).isInForce) << "the end of the file closes an entry";
    EXPECT_THAT(m_entries.Blocks(9), IsEmpty());
}

TEST_F(LoadedEntriesTest, TellsASecondBlockOfAnIdFromTheOneInForce) {
    ASSERT_EQ("", Load("se.7.msg = First\nse.8.msg = Eight\nse.7.msg = Second\n"));
    const auto& blocks = m_entries.Blocks(7);
    ASSERT_THAT(blocks, SizeIs(2));
    EXPECT_TRUE(blocks[0].isInForce);
    EXPECT_FALSE(blocks[1].isInForce);
    EXPECT_EQ("First", LoadedEntries::Find(7)->eventName);
}

TEST_F(LoadedEntriesTest, MarksALineThatWasDropped) {
    ASSERT_EQ("", Load("se.7.msg = Seven\nse.7.severity = urgent\n"));
    const auto& lines = m_entries.Blocks(7).at(0).lines;
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_TRUE(lines[0].isApplied);
    EXPECT_FALSE(lines[1].isApplied);
}

TEST_F(LoadedEntriesTest, ReadsTheStateFileFirst) {
    Write("state", "se.7.msg = Of the state file\n");
    ASSERT_EQ("", Load("se.8.msg = Eight\nse.7.msg = Seven\n"));
    EXPECT_EQ("Of the state file", LoadedEntries::Find(7)->eventName);
    EXPECT_EQ(m_dir.File("state"), m_entries.Blocks(7).at(0).lines.at(0).file);
}

TEST_F(LoadedEntriesTest, NamesAFileThatCannotBeRead) {
    EXPECT_THAT(
        m_entries.Load({m_dir.File("tarn.conf"), m_dir.File("none"), m_dir.File("state")}, m_input),
        HasSubstr(m_dir.File("none")));
    EXPECT_THAT(
        m_entries.Load({m_dir.File("none"), m_dir.File("events"), m_dir.File("state")}, m_input),
        HasSubstr(m_dir.File("none")));
}

TEST_F(LoadedEntriesTest, LeavesNoObserverBehind) {
    ASSERT_EQ("", Load("se.7.msg = Seven\n"));
    EXPECT_EQ(nullptr, Config::s_observer);
}

}  // namespace
