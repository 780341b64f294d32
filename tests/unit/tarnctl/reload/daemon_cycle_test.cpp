#include "tarnctl/reload/daemon_cycle.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "support/temp_dir.h"
#include "unit/tarnctl/common/fifo_reader.h"
#include "unit/tarnctl/common/named_process.h"

using namespace std::chrono_literals;

namespace tarnctl {
namespace {

// The PID file has a fixed path. A daemon that it names would be taken, so that these tests are for
// a machine on which none runs as a service; daemons in a sandbox have a PID file of their own.
class DaemonCycleTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, mkfifo(m_fifo.c_str(), 0600)); }

    // What the daemon does at a hangup.
    NamedProcess::OnHangup OpensAnew() const {
        return [fifo = m_fifo](int& fd) {
            close(fd);
            fd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        };
    }

    const TempDir m_dir;
    const std::string m_fifo = m_dir.File("alerts.fifo");
    DaemonCycle m_cycle{m_fifo, 200ms};
};

TEST_F(DaemonCycleTest, FindsTheReaderOfTheFifoAndSeesItOpenThatAnew) {
    const NamedProcess daemon("tarn", m_fifo, OpensAnew());
    ASSERT_TRUE(daemon.IsReady());
    ASSERT_EQ("", m_cycle.Find());
    EXPECT_EQ(daemon.Pid(), m_cycle.Pid());
    EXPECT_EQ("", m_cycle.Run());
}

TEST_F(DaemonCycleTest, SendsAHangupAgainThatWasLost) {
    const NamedProcess daemon("tarn", m_fifo, [opens = OpensAnew(), count = 0](int& fd) mutable {
        if (++count == 3) {
            opens(fd);
        }
    });
    ASSERT_TRUE(daemon.IsReady());
    ASSERT_EQ("", m_cycle.Find());
    EXPECT_EQ("", m_cycle.Run());
}

TEST_F(DaemonCycleTest, GivesUpAfterThreeHangups) {
    const std::string marks = m_dir.Write("marks", "");
    const NamedProcess daemon("tarn", m_fifo, [marks](int& /*fd*/) {
        const int file = open(marks.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        (void)!write(file, "H", 1);
        close(file);
    });
    ASSERT_TRUE(daemon.IsReady());
    ASSERT_EQ("", m_cycle.Find());
    EXPECT_EQ("tarn does not begin a new cycle; see its log", m_cycle.Run());
    EXPECT_EQ("HHH", m_dir.Read("marks"));
}

TEST_F(DaemonCycleTest, ToOpenItOnceMoreIsNoNewCycle) {
    const NamedProcess daemon("tarn", m_fifo, [fifo = m_fifo](int& /*fd*/) {
        (void)open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    });
    ASSERT_TRUE(daemon.IsReady());
    ASSERT_EQ("", m_cycle.Find());
    EXPECT_EQ("tarn does not begin a new cycle; see its log", m_cycle.Run());
}

TEST_F(DaemonCycleTest, ToCloseItIsNoNewCycle) {
    const NamedProcess daemon("tarn", m_fifo, [](int& fd) { close(fd); });
    ASSERT_TRUE(daemon.IsReady());
    ASSERT_EQ("", m_cycle.Find());
    EXPECT_EQ("tarn does not begin a new cycle; see its log", m_cycle.Run());
}

TEST_F(DaemonCycleTest, SeesThatTheDaemonEnds) {
    const NamedProcess daemon("tarn", m_fifo, [](int& /*fd*/) { _exit(4); });
    ASSERT_TRUE(daemon.IsReady());
    DaemonCycle cycle(m_fifo, 60s);
    ASSERT_EQ("", cycle.Find());
    EXPECT_EQ("tarn has ended instead of reading its files; see its log", cycle.Run());
}

TEST_F(DaemonCycleTest, AFifoIsNeededToSeeANewCycle) {
    const NamedProcess daemon("tarn", m_fifo, OpensAnew());
    ASSERT_TRUE(daemon.IsReady());
    ASSERT_EQ("", m_cycle.Find());
    unlink(m_fifo.c_str());
    EXPECT_THAT(m_cycle.Run(), testing::StartsWith(m_fifo + ": No such file or directory"));
}

TEST_F(DaemonCycleTest, AFeederIsWhoeverHasTheFifoForItself) {
    EXPECT_FALSE(m_cycle.HasFeeder());
    const FifoReader reader(m_fifo);
    EXPECT_FALSE(m_cycle.HasFeeder());
    const int feeder = open(m_fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_FALSE(m_cycle.HasFeeder());
    ASSERT_EQ(0, flock(feeder, LOCK_EX | LOCK_NB));
    EXPECT_TRUE(m_cycle.HasFeeder());
    close(feeder);
    EXPECT_FALSE(m_cycle.HasFeeder());
}

}  // namespace
}  // namespace tarnctl
