#include "tarnctl/common/daemon_process.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "support/temp_dir.h"
#include "unit/tarnctl/common/named_process.h"

namespace tarnctl {
namespace {

// Daemons of other tests may run on this machine, so that only what a FIFO of this test decides can
// be asserted.
class FindDaemonTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, mkfifo(m_fifo.c_str(), 0600)); }

    const TempDir m_dir;
    const std::string m_fifo = m_dir.File("alerts.fifo");
};

TEST_F(FindDaemonTest, IsTheOneThatReadsTheFifo) {
    const NamedProcess other("tarn");
    const NamedProcess reader("tarn", m_fifo);
    const NamedProcess another("tarn");
    ASSERT_TRUE(other.IsReady() && reader.IsReady() && another.IsReady());
    const auto found = FindDaemon(m_fifo);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(reader.Pid(), found->pid);
    EXPECT_TRUE(found->readsFifo);
}

TEST_F(FindDaemonTest, OfTwoThatDoNotReadItNoneIsTaken) {
    const NamedProcess one("tarn");
    const NamedProcess two("tarn");
    ASSERT_TRUE(one.IsReady() && two.IsReady());
    EXPECT_FALSE(FindDaemon(m_fifo).has_value());
}

TEST_F(FindDaemonTest, AnotherProgramThatReadsTheFifoIsNoDaemon) {
    for (const char* const name : {"tarnctl", "tar", "a) R (tarn", "TARN"}) {
        const NamedProcess reader(name, m_fifo);
        ASSERT_TRUE(reader.IsReady());
        const auto found = FindDaemon(m_fifo);
        EXPECT_FALSE(found.has_value() && found->pid == reader.Pid()) << name;
    }
}

TEST_F(FindDaemonTest, OneThatHasEndedIsNoDaemon) {
    const NamedProcess ended("tarn", m_fifo);
    ASSERT_TRUE(ended.IsReady());
    ended.End();
    const auto found = FindDaemon(m_fifo);
    EXPECT_FALSE(found.has_value() && found->pid == ended.Pid());
}

TEST_F(FindDaemonTest, WithoutAFifoNobodyReadsIt) {
    const NamedProcess one("tarn", m_fifo);
    ASSERT_TRUE(one.IsReady());
    const auto found = FindDaemon(m_dir.File("missing"));
    EXPECT_FALSE(found.has_value() && found->readsFifo);
}

int64_t Now() {
    return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

// The clock of the process list has steps of a hundredth of a second, and the two clocks that the
// time is made of are read one after the other.
constexpr int64_t kSteps = 30'000'000;

TEST(NewestThreadStartTest, IsThatOfTheThreadThatBeganLast) {
    // The steps of the clock have to show that the thread is younger than the process.
    std::this_thread::sleep_for(std::chrono::nanoseconds(2 * kSteps));
    const int64_t before = Now();
    int64_t start = 0;
    std::jthread([&start] { start = NewestThreadStart(getpid()); }).join();
    EXPECT_GE(start, before - kSteps);
    EXPECT_LE(start, Now() + kSteps);
}

TEST(NewestThreadStartTest, IsNothingWithoutAProcess) {
    NamedProcess process("any");
    ASSERT_TRUE(process.IsReady());
    EXPECT_NE(0, NewestThreadStart(process.Pid()));
    const pid_t pid = process.Pid();
    process.End();
    EXPECT_EQ(0, NewestThreadStart(pid));
    process.Reap();
    EXPECT_EQ(0, NewestThreadStart(pid));
}

TEST(ProcessEndTest, SeesTheEndOfAProcessBeforeItIsReaped) {
    const NamedProcess process("any");
    ASSERT_TRUE(process.IsReady());
    ProcessEnd end;
    EXPECT_FALSE(end.IsWatching());
    EXPECT_FALSE(end.HasEnded());
    ASSERT_TRUE(end.Watch(process.Pid()));
    EXPECT_TRUE(end.IsWatching());
    EXPECT_FALSE(end.HasEnded());
    process.End();
    EXPECT_TRUE(end.HasEnded());
    pollfd entry = {end.Descriptor(), POLLIN, 0};
    EXPECT_EQ(1, poll(&entry, 1, 0));
    end.Forget();
    EXPECT_FALSE(end.IsWatching());
    EXPECT_FALSE(end.HasEnded());
}

TEST(ProcessEndTest, DoesNotWatchWhatIsGone) {
    NamedProcess process("any");
    ASSERT_TRUE(process.IsReady());
    const pid_t pid = process.Pid();
    process.End();
    process.Reap();
    ProcessEnd end;
    EXPECT_FALSE(end.Watch(pid));
    EXPECT_FALSE(end.IsWatching());
}

TEST(ProcessEndTest, WatchesOneProcessAfterAnother) {
    const NamedProcess first("any");
    const NamedProcess second("any");
    ASSERT_TRUE(first.IsReady() && second.IsReady());
    ProcessEnd end;
    ASSERT_TRUE(end.Watch(first.Pid()));
    ASSERT_TRUE(end.Watch(second.Pid()));
    first.End();
    EXPECT_FALSE(end.HasEnded());
    second.End();
    EXPECT_TRUE(end.HasEnded());
}

}  // namespace
}  // namespace tarnctl
