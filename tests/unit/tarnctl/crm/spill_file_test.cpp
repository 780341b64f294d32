#include "tarnctl/crm/spill_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <deque>
#include <filesystem>
#include <memory>

#include "support/temp_dir.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

class SpillFileTest : public testing::Test {
  protected:
    void Open(uint64_t limit) {
        m_spill.reset();
        m_spill = std::make_unique<SpillFile>(m_path, limit);
        ASSERT_EQ("", m_spill->Open());
    }

    const TempDir m_folder;
    const std::string m_path = m_folder.File("spill");
    std::unique_ptr<SpillFile> m_spill;
};

TEST_F(SpillFileTest, YieldsLinesInTheirOrder) {
    Open(100);
    EXPECT_TRUE(m_spill->IsEmpty());
    EXPECT_EQ("", m_spill->Front());
    ASSERT_TRUE(m_spill->Append("a\nbb\n"));
    ASSERT_TRUE(m_spill->Append("ccc\n"));
    EXPECT_EQ(3U, m_spill->Waiting());
    EXPECT_EQ("a\nbb\nccc\n", m_spill->Front());
    m_spill->Take(2);
    EXPECT_EQ("bb\nccc\n", m_spill->Front());
    EXPECT_EQ(2U, m_spill->Waiting());
    m_spill->Take(7);
    EXPECT_TRUE(m_spill->IsEmpty());
    EXPECT_EQ(0U, m_spill->Waiting());
    EXPECT_EQ(0U, m_spill->Lost());
}

TEST_F(SpillFileTest, CountsAsLostWhatFindsNoRoom) {
    Open(10);
    ASSERT_TRUE(m_spill->Append("aaaa\nbbbb\nc\n"));
    EXPECT_EQ(1U, m_spill->Lost());
    EXPECT_EQ("aaaa\nbbbb\n", m_spill->Front());
    ASSERT_TRUE(m_spill->Append("d\n"));
    EXPECT_EQ(2U, m_spill->Lost());
    m_spill->Take(5);
    ASSERT_TRUE(m_spill->Append("eeeee\nf\n"));
    EXPECT_EQ(4U, m_spill->Lost());
    EXPECT_EQ("bbbb\n", m_spill->Front());
    EXPECT_EQ(1U, m_spill->Waiting());
}

TEST_F(SpillFileTest, GoesOnAfterItsProcessHasEnded) {
    Open(10);
    ASSERT_TRUE(m_spill->Append("aaa\nbbb\nccc\n"));
    EXPECT_EQ("aaa\nbbb\n", m_spill->Front());
    m_spill->Take(4);
    ASSERT_TRUE(m_spill->Append("dd\n"));  // over the end of the ring
    Open(1000);
    EXPECT_EQ("bbb\ndd\n", m_spill->Front());
    EXPECT_EQ(2U, m_spill->Waiting());
    EXPECT_EQ(1U, m_spill->Lost());
    ASSERT_TRUE(m_spill->Append("eee\n"));
    EXPECT_EQ(2U, m_spill->Lost());  // the old limit holds while lines wait
    m_spill->Take(7);
    ASSERT_TRUE(m_spill->Append("a line that needs the new limit\n"));
    EXPECT_EQ(2U, m_spill->Lost());
}

TEST_F(SpillFileTest, GivesItsRoomBackWhenNothingWaits) {
    Open(10000);
    const auto empty = std::filesystem::file_size(m_path);
    ASSERT_TRUE(m_spill->Append(std::string(5000, 'x') + "\n"));
    EXPECT_EQ(empty + 5001, std::filesystem::file_size(m_path));
    m_spill->Take(m_spill->Front().size());
    EXPECT_EQ(empty, std::filesystem::file_size(m_path));
}

TEST_F(SpillFileTest, YieldsALineThatIsLongerThanWhatIsReadAtOnce) {
    Open(1 << 22);
    const std::string line = std::string(1 << 20, 'x') + "\n";
    ASSERT_TRUE(m_spill->Append(line + "y\n"));
    EXPECT_EQ(line, std::string(m_spill->Front()).substr(0, line.size()));
}

// A queue in memory is the measure of a file that its lines go round many times.
TEST_F(SpillFileTest, IsAQueueHoweverOftenItGoesRound) {
    Open(997);
    std::deque<std::string> queue;
    uint64_t state = 1;
    uint64_t lost = 0;
    uint64_t bytes = 0;
    for (int i = 0; i < 5000; ++i) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        if (state >> 63 == 0) {
            const std::string line =
                std::to_string(i) + std::string(state >> 56 & 0x7F, 'x') + "\n";
            ASSERT_TRUE(m_spill->Append(line));
            if (bytes + line.size() <= 997) {
                bytes += line.size();
                queue.push_back(line);
            } else {
                ++lost;
            }
        } else if (!queue.empty()) {
            ASSERT_TRUE(m_spill->Front().starts_with(queue.front()));
            m_spill->Take(queue.front().size());
            bytes -= queue.front().size();
            queue.pop_front();
        }
        if (i % 100 == 0) {
            Open(997);
        }
        ASSERT_EQ(queue.size(), m_spill->Waiting());
        ASSERT_EQ(lost, m_spill->Lost());
    }
    EXPECT_GT(lost, 0U);
}

TEST_F(SpillFileTest, RefusesWhatIsNone) {
    m_folder.Write("spill", "something of somebody's that is much longer than a header is\n");
    EXPECT_THAT(SpillFile(m_path, 10).Open(), HasSubstr("is no spill file"));
    EXPECT_THAT(SpillFile(m_folder.File("none/spill"), 10).Open(), HasSubstr("make the directory"));
    m_folder.Write("short", "tarnspl1");
    EXPECT_THAT(SpillFile(m_folder.File("short"), 10).Open(), HasSubstr("is no spill file"));
    EXPECT_EQ("tarnspl1", m_folder.Read("short"));
}

TEST_F(SpillFileTest, IsForOneProcess) {
    Open(10);
    EXPECT_THAT(SpillFile(m_path, 10).Open(), HasSubstr("another tarnctl uses this spill file"));
}

TEST_F(SpillFileTest, KeepsAndLosesNothingOnAFullDisk) {
    Open(1000);
    ASSERT_TRUE(m_spill->Append("a\n"));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old = {};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit full = old;
    full.rlim_cur = std::filesystem::file_size(m_path);
    setrlimit(RLIMIT_FSIZE, &full);
    EXPECT_FALSE(m_spill->Append("b\n"));
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_THAT(m_spill->Error(), HasSubstr(m_path));
    EXPECT_EQ(1U, m_spill->Waiting());
    EXPECT_EQ(0U, m_spill->Lost());
    EXPECT_TRUE(m_spill->Append("c\n"));
    EXPECT_EQ("", m_spill->Error());
    EXPECT_EQ("a\nc\n", m_spill->Front());
}

}  // namespace
}  // namespace tarnctl
