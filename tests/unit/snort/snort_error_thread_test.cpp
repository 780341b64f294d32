#include "snort/snort_error_thread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "snort/snort_error_reader.h"
#include "support/crm_message_socket.h"
#include "unit/snort/error_fifo.h"
#include "unit/snort/log_questions.h"
#include "unit/snort/recorded_waits.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr unsigned kLongMs = 60000;

class SnortErrorThreadTest : public testing::Test {
  protected:
    ~SnortErrorThreadTest() override { SnortErrorReader::ReleaseInstance(); }

    // The thread's instance is to be the reader of this test's FIFO.
    void UsePrivateReader() { SnortErrorReader::ReplaceInstance(m_fifo.MakeReader()); }

    // Starts the thread and waits until it reads the FIFO.
    void StartReading(SnortErrorThread& thread) {
        m_fifo.Make();
        UsePrivateReader();
        ASSERT_TRUE(thread.Start(false));
        while (!m_fifo.OpenWriter()) {
            sched_yield();
        }
    }

    static void StopAndJoin(SnortErrorThread& thread) {
        EXPECT_EQ(1, thread.Stop());
        ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    }

    QuestionedLog m_log;
    ErrorFifo m_fifo;
};

TEST_F(SnortErrorThreadTest, SendsWhatItReads) {
    const CrmMessageSocket crm(m_fifo.m_socket);
    SnortErrorThread thread("snorterrorthread", 0);
    StartReading(thread);
    ASSERT_TRUE(m_fifo.Write("ERROR: x\n"));
    EXPECT_EQ("E ERROR in SNORT. Reason: ERROR: x\n", crm.Take(kLongMs));
    StopAndJoin(thread);
    EXPECT_EQ(1, thread.ExitCode());
    EXPECT_EQ(2, m_log.Count("Snort error thread "));
    EXPECT_EQ(1, m_log.Count(" starting."));
    EXPECT_EQ(1, m_log.Count(" exiting"));
}

TEST_F(SnortErrorThreadTest, HearsAStopWithinASecondOfWaiting) {
    SnortErrorThread thread("snorterrorthread", 0);
    StartReading(thread);
    const auto start = steady_clock::now();
    StopAndJoin(thread);
    EXPECT_LT(steady_clock::now() - start, seconds(10));
}

TEST_F(SnortErrorThreadTest, WaitsForTheFifoASecondAtATime) {
    const RecordedWaits waits;
    SnortErrorThread thread("snorterrorthread", 0);
    StartReading(thread);
    while (RecordedWaits::Selects().empty()) {
        sched_yield();
    }
    StopAndJoin(thread);
    for (const long wait : RecordedWaits::Selects()) {
        EXPECT_EQ(1000, wait);
    }
}

TEST_F(SnortErrorThreadTest, SaysNothingOfItselfBelowTheDebugLevel) {
    vald::Log::SetLevel(vald::Log::kNotice);
    const int cpu = sysconf(_SC_NPROCESSORS_ONLN) < 2 ? 0 : 1;
    SnortErrorThread thread("snorterrorthread", cpu);
    StartReading(thread);
    StopAndJoin(thread);
    EXPECT_EQ(std::vector<std::string>{}, m_log.Lines());
}

TEST_F(SnortErrorThreadTest, HearsAStopWhileTheFifoIsMissing) {
    UsePrivateReader();
    SnortErrorThread thread("snorterrorthread", 0);
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.AwaitBegun(kLongMs));
    // A stop that comes before the body has cleared the flag is lost, so ask until it is heard.
    do {
        EXPECT_EQ(1, thread.Stop());
    } while (!thread.Join(100, nullptr));
    EXPECT_EQ(1, thread.ExitCode());
}

TEST_F(SnortErrorThreadTest, HearsAStopWhileTheCrmIsMissing) {
    SnortErrorThread thread("snorterrorthread", 0);
    StartReading(thread);
    ASSERT_TRUE(m_fifo.Write("hello\n"));
    while (m_log.Count("Send SNORT message failed, sleep and retry") == 0) {
        sched_yield();
    }
    const auto start = steady_clock::now();
    StopAndJoin(thread);
    EXPECT_LT(steady_clock::now() - start, seconds(10));
}

TEST_F(SnortErrorThreadTest, ReleasesTheReaderWithItsMessageWhenItEnds) {
    SnortErrorThread thread("snorterrorthread", 0);
    StartReading(thread);
    ASSERT_TRUE(m_fifo.Write("hello\n"));
    while (m_log.Count("Send SNORT message failed, sleep and retry") == 0) {
        sched_yield();
    }
    StopAndJoin(thread);
    EXPECT_EQ("", SnortErrorReader::Instance()->Message());
}

TEST_F(SnortErrorThreadTest, WorksASecondTimeAfterAStop) {
    const CrmMessageSocket crm(m_fifo.m_socket);
    SnortErrorThread thread("snorterrorthread", 0);
    for (const char* const line : {"one\n", "two\n"}) {
        StartReading(thread);
        ASSERT_TRUE(m_fifo.Write(line));
        EXPECT_EQ(std::string("I ") + line, crm.Take(kLongMs));
        StopAndJoin(thread);
    }
}

TEST_F(SnortErrorThreadTest, KeepsTheLineThatEndedItForTheNextStart) {
    const CrmMessageSocket crm(m_fifo.m_socket);
    const std::string line = "ERROR: /etc/snort/rules/snort.rules(1)) text\n";
    SnortErrorThread thread("snorterrorthread", 0);
    StartReading(thread);
    ASSERT_TRUE(m_fifo.Write(line));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    EXPECT_TRUE(thread.IsFinished());
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ("", crm.Take());
    EXPECT_EQ(0, m_log.Count(" exiting"));

    ASSERT_TRUE(thread.Start(false));
    EXPECT_EQ("I " + line, crm.Take(kLongMs));
    ASSERT_TRUE(m_fifo.Write("next\n"));
    EXPECT_EQ("I next\n", crm.Take(kLongMs));
    StopAndJoin(thread);
}

TEST_F(SnortErrorThreadTest, KeepsCpuZeroUnbound) {
    SnortErrorThread thread("snorterrorthread", 0);
    StartReading(thread);
    StopAndJoin(thread);
    EXPECT_EQ(0, m_log.Count("CPU"));
}

TEST_F(SnortErrorThreadTest, RunsOnWhenTheCpuDoesNotExist) {
    for (const int cpu : {1023, 5000}) {
        SnortErrorThread thread("snorterrorthread", cpu);
        StartReading(thread);
        StopAndJoin(thread);
        EXPECT_EQ(1, m_log.Count(" to CPU " + std::to_string(cpu)));
    }
    EXPECT_EQ(2, m_log.Count("Unable to assign Snort error thread "));
    EXPECT_EQ(2, m_log.CountBeginningAt(2, "Unable to assign Snort error thread "));
}

TEST_F(SnortErrorThreadTest, BindsToACpuAboveZero) {
    if (sysconf(_SC_NPROCESSORS_ONLN) < 2) {
        GTEST_SKIP() << "this machine has one CPU";
    }
    SnortErrorThread thread("snorterrorthread", 1);
    StartReading(thread);
    StopAndJoin(thread);
    EXPECT_EQ(1, m_log.Count("Assigned Snort error thread "));
    EXPECT_EQ(1, m_log.Count(" to CPU 1"));
}

TEST_F(SnortErrorThreadTest, ForceQuitEndsAThreadThatWaitsForTheFifo) {
    SnortErrorThread thread("snorterrorthread", 0);
    StartReading(thread);
    thread.ForceQuit();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.Settle(0));
    EXPECT_FALSE(m_fifo.OpenWriter()) << "the reader is released and its FIFO closed";
}

TEST_F(SnortErrorThreadTest, ForceQuitEndsAThreadThatPausesAfterAFailedSend) {
    SnortErrorThread thread("snorterrorthread", 0);
    StartReading(thread);
    ASSERT_TRUE(m_fifo.Write("hello\n"));
    while (m_log.Count("Send SNORT message failed, sleep and retry") == 0) {
        sched_yield();
    }
    thread.ForceQuit();
    EXPECT_TRUE(thread.Settle(0));
    EXPECT_EQ("", SnortErrorReader::Instance()->Message());
}

TEST_F(SnortErrorThreadTest, ForceQuitEndsAThreadThatNeverWaits) {
    for (int i = 0; i < 50; ++i) {
        UsePrivateReader();  // of a FIFO that is not there
        SnortErrorThread thread("snorterrorthread", 0);
        ASSERT_TRUE(thread.Start(false));
        ASSERT_TRUE(thread.AwaitBegun(kLongMs));
        thread.ForceQuit();
        ASSERT_TRUE(thread.Settle(0));
        EXPECT_FALSE(thread.IsRunning());
    }
}

TEST_F(SnortErrorThreadTest, ForceQuitLeavesAnIdleThreadAlone) {
    UsePrivateReader();
    SnortErrorReader::Instance()->Process("owed\n");
    SnortErrorThread thread("snorterrorthread", 0);
    thread.ForceQuit();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.Settle(0));
    EXPECT_EQ("owed\n", SnortErrorReader::Instance()->Message()) << "the reader is the same";
}

}  // namespace
