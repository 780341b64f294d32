#include "threads/thread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr unsigned kLongMs = 60000;  // a limit that a working thread never meets

// Runs whatever the test gives it; Stop opens the gate at which a waiting body waits.
class ScriptedThread : public Thread {
  public:
    explicit ScriptedThread(std::function<int()> body)
        : Thread("scripted"), m_body(std::move(body)) {
        m_stopGate.Init();
        m_stopGate.Close();
    }
    ~ScriptedThread() override { m_stopGate.Destroy(); }

    int Stop() override {
        m_stopGate.Open(true);
        return 1;
    }
    int Run() override { return m_body(); }
    void OnException(const std::exception& e) override { m_caught = e.what(); }

    int WaitForStop() {
        (void)m_stopGate.Wait();
        return 7;
    }
    bool ForceQuit() { return CancelAndJoin(); }

    std::string m_caught;

  private:
    Gate m_stopGate;
    std::function<int()> m_body;
};

std::vector<int> CpusOfThisThread() {
    cpu_set_t mask;
    CPU_ZERO(&mask);
    EXPECT_EQ(0, pthread_getaffinity_np(pthread_self(), sizeof mask, &mask));
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<size_t>(cpu), &mask)) {
            cpus.push_back(cpu);
        }
    }
    return cpus;
}

TEST(BindCallingThreadToCpu, LeavesTheThreadOnThatCpuAlone) {
    for (const int cpu : CpusOfThisThread()) {
        std::thread([cpu] {
            EXPECT_TRUE(BindCallingThreadToCpu(cpu));
            EXPECT_EQ(std::vector<int>{cpu}, CpusOfThisThread());
        }).join();
    }
}

TEST(BindCallingThreadToCpu, RefusesOneThatIsNotThereAndLeavesTheMaskAlone) {
    const std::vector<int> before = CpusOfThisThread();
    for (const int cpu : {-1, CPU_SETSIZE - 1, CPU_SETSIZE, 5000}) {
        EXPECT_FALSE(BindCallingThreadToCpu(cpu)) << cpu;
        EXPECT_EQ(before, CpusOfThisThread()) << cpu;
    }
}

TEST(ThreadStart, RunsTheBodyAndKeepsItsResult) {
    ScriptedThread thread([] { return 42; });
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(0U, thread.Handle());
    ASSERT_TRUE(thread.Start(false));
    void* result = nullptr;
    ASSERT_TRUE(thread.Join(kLongMs, &result));
    EXPECT_EQ(42, reinterpret_cast<long>(result));
    EXPECT_EQ(42, thread.ExitCode());
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.IsFinished());
}

TEST(ThreadStart, RefusesASecondStartWhileTheThreadLives) {
    ScriptedThread* self = nullptr;
    ScriptedThread thread([&self] { return self->WaitForStop(); });
    self = &thread;
    ASSERT_TRUE(thread.Start(false));
    const pthread_t handle = thread.Handle();
    EXPECT_FALSE(thread.Start(false));
    EXPECT_EQ(handle, thread.Handle());
    thread.Stop();
    ASSERT_TRUE(thread.Join(nullptr));
    EXPECT_EQ(7, thread.ExitCode());
}

TEST(ThreadStart, ShowsAsNotRunningUntilItsFirstLine) {
    ScriptedThread thread([] { return 0; });
    EXPECT_FALSE(thread.AwaitBegun(0));
    // Not running before the start, and possibly so for a moment after it: the flag is the new
    // thread's own. A stop that is only asked of running threads therefore passes it by.
    EXPECT_FALSE(thread.IsRunning());
    ASSERT_TRUE(thread.Start(false));
    EXPECT_TRUE(thread.AwaitBegun(kLongMs));
    EXPECT_TRUE(thread.IsRunning() || thread.IsFinished());
    ASSERT_TRUE(thread.Join(nullptr));
}

TEST(ThreadStart, ShowsAsRunningFromThereUntilItsEnd) {
    ScriptedThread* self = nullptr;
    ScriptedThread thread([&self] { return self->WaitForStop(); });
    self = &thread;
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.AwaitBegun(kLongMs));
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_FALSE(thread.IsFinished());
    thread.Stop();
    ASSERT_TRUE(thread.Join(nullptr));
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.IsFinished());
}

// A thread that runs again does not count as ended, whatever the former one left.
TEST(ThreadStart, ForgetsTheFormerThread) {
    bool waits = false;
    ScriptedThread* self = nullptr;
    ScriptedThread thread([&] { return waits ? self->WaitForStop() : 1; });
    self = &thread;
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(nullptr));
    waits = true;
    ASSERT_TRUE(thread.Start(false));
    EXPECT_FALSE(thread.IsFinished());
    EXPECT_FALSE(thread.Join(0, nullptr));
    EXPECT_FALSE(thread.Settle(0));
    EXPECT_FALSE(thread.Start(false));
    thread.Stop();
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    EXPECT_EQ(7, thread.ExitCode());
}

int DetachState(const Thread& thread) {
    pthread_attr_t attributes;
    EXPECT_EQ(0, pthread_getattr_np(thread.Handle(), &attributes));
    int state = -1;
    pthread_attr_getdetachstate(&attributes, &state);
    pthread_attr_destroy(&attributes);
    return state;
}

TEST(ThreadStart, MakesAThreadThatNobodyCanJoinOnlyWhenItIsToBeDetached) {
    for (const bool detached : {false, true}) {
        ScriptedThread* self = nullptr;
        ScriptedThread thread([&self] { return self->WaitForStop(); });
        self = &thread;
        ASSERT_TRUE(thread.Start(detached));
        EXPECT_EQ(detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE,
                  DetachState(thread));
        thread.Stop();
        ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    }
}

TEST(ThreadStart, WorksAgainAfterAJoinWithANewHandle) {
    std::atomic<int> runs{0};
    ScriptedThread thread([&runs] { return ++runs; });
    for (int expected = 1; expected <= 20; ++expected) {
        ASSERT_TRUE(thread.Start(false));
        EXPECT_NE(0U, thread.Handle());
        ASSERT_TRUE(thread.Join(nullptr));
        EXPECT_EQ(expected, thread.ExitCode());
    }
}

TEST(ThreadStart, WorksAgainForAFinishedThreadThatNobodyJoined) {
    std::atomic<int> runs{0};
    ScriptedThread thread([&runs] { return ++runs; });
    for (int expected = 1; expected <= 20; ++expected) {
        while (expected > 1 && !thread.IsFinished()) {
            usleep(100);
        }
        ASSERT_TRUE(thread.Start(false));
    }
    ASSERT_TRUE(thread.Join(nullptr));
    EXPECT_EQ(20, runs);
}

// While this object lives no thread can be made: none gets a stack of this size.
class NoNewThreads {
  public:
    NoNewThreads() {
        pthread_getattr_default_np(&m_former);
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        pthread_attr_setstacksize(&huge, size_t{1} << 60);
        pthread_setattr_default_np(&huge);
        pthread_attr_destroy(&huge);
    }
    ~NoNewThreads() {
        pthread_setattr_default_np(&m_former);
        pthread_attr_destroy(&m_former);
    }
    NoNewThreads(const NoNewThreads&) = delete;
    NoNewThreads& operator=(const NoNewThreads&) = delete;

  private:
    pthread_attr_t m_former{};
};

TEST(ThreadStart, ThatFailsOpensTheGateAndMayBeTriedAgain) {
    ScriptedThread thread([] { return 5; });
    {
        const NoNewThreads none;
        ASSERT_FALSE(thread.Start(true));
    }
    EXPECT_EQ(0U, thread.Handle());
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_FALSE(thread.IsFinished());
    EXPECT_TRUE(thread.Join(nullptr)) << "a waiter on a detached thread does not hang";
    ASSERT_TRUE(thread.Start(true));
    while (!thread.IsFinished()) {
        usleep(100);
    }
    EXPECT_EQ(5, thread.ExitCode());
    ASSERT_TRUE(thread.Settle(kLongMs));
}

TEST(ThreadStart, AfterAFailedOneClosesTheGateAgain) {
    ScriptedThread* self = nullptr;
    ScriptedThread thread([&self] { return self->WaitForStop(); });
    self = &thread;
    {
        const NoNewThreads none;
        ASSERT_FALSE(thread.Start(true));
    }
    ASSERT_TRUE(thread.Start(true));
    EXPECT_FALSE(thread.Join(0, nullptr)) << "the thread still runs";
    EXPECT_FALSE(thread.Settle(0));
    thread.Cancel();
    EXPECT_TRUE(thread.Join(kLongMs, nullptr)) << "the cancel was heard";
    EXPECT_TRUE(thread.IsFinished());
}

TEST(ThreadStart, KeepsRefusingAfterARestartThatFailed) {
    ScriptedThread thread([] { return 5; });
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(nullptr));
    {
        const NoNewThreads none;
        ASSERT_FALSE(thread.Start(false));
    }
    EXPECT_NE(0U, thread.Handle());
    EXPECT_FALSE(thread.IsFinished());
    EXPECT_FALSE(thread.AwaitBegun(kLongMs)) << "there is nothing to wait for";
    EXPECT_FALSE(thread.Start(false));
    EXPECT_TRUE(thread.Settle(0));
}

TEST(ThreadJoin, OfZeroMillisecondsFailsAtOnceOnARunningThread) {
    ScriptedThread* self = nullptr;
    ScriptedThread thread([&self] { return self->WaitForStop(); });
    self = &thread;
    ASSERT_TRUE(thread.Start(false));
    EXPECT_FALSE(thread.Join(0, nullptr));
    thread.Stop();
    EXPECT_TRUE(thread.Join(kLongMs, nullptr));
}

TEST(ThreadJoin, FailsForAThreadThatWasNeverStarted) {
    ScriptedThread thread([] { return 0; });
    EXPECT_FALSE(thread.Join(0, nullptr));
    EXPECT_FALSE(thread.Join(nullptr));
    EXPECT_TRUE(thread.Settle(0));
}

TEST(ThreadJoin, OfADetachedThreadGoesThroughTheGate) {
    ScriptedThread* self = nullptr;
    ScriptedThread thread([&self] { return self->WaitForStop(); });
    self = &thread;
    ASSERT_TRUE(thread.Start(true));
    void* result = &thread;
    EXPECT_FALSE(thread.Join(10, &result));
    thread.Stop();
    EXPECT_TRUE(thread.Join(kLongMs, &result));
    EXPECT_EQ(&thread, result) << "the result of a detached thread is not filled in";
    EXPECT_TRUE(thread.Join(nullptr));
}

TEST(ThreadJoin, KeepsADetachedThreadDetachedForLaterStarts) {
    bool waits = false;
    ScriptedThread* self = nullptr;
    ScriptedThread thread([&] { return waits ? self->WaitForStop() : 3; });
    self = &thread;
    ASSERT_TRUE(thread.Start(true));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    waits = true;
    ASSERT_TRUE(thread.Start(false));
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, DetachState(thread));
    thread.Stop();
    void* result = &thread;
    ASSERT_TRUE(thread.Join(kLongMs, &result));
    EXPECT_EQ(&thread, result);
    ASSERT_TRUE(thread.Settle(kLongMs));
}

TEST(ThreadBody, ThatThrowsEndsTheThreadThroughOnException) {
    ScriptedThread thread([]() -> int { throw std::out_of_range("too far"); });
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    EXPECT_EQ("too far", thread.m_caught);
    EXPECT_TRUE(thread.IsFinished());
    EXPECT_EQ(0, thread.ExitCode());
}

TEST(ThreadBody, ThatThrowsAnythingElseGivesAnUnhandledException) {
    ScriptedThread thread([]() -> int { throw 5; });
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    EXPECT_EQ("Unhandled Exception", thread.m_caught);
    EXPECT_TRUE(thread.IsFinished());
}

TEST(ThreadBody, ThatThrowsKeepsTheFormerExitCode) {
    int run = 0;
    ScriptedThread thread([&run]() -> int {
        if (++run == 2) {
            throw std::runtime_error("second");
        }
        return 9;
    });
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(nullptr));
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(nullptr));
    EXPECT_EQ(9, thread.ExitCode());
}

TEST(ThreadCancel, EndsTheThreadAndOpensTheGate) {
    ScriptedThread* self = nullptr;
    ScriptedThread thread([&self] { return self->WaitForStop(); });
    self = &thread;
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.AwaitBegun(kLongMs));
    thread.Cancel();
    void* result = &thread;
    EXPECT_TRUE(thread.Join(kLongMs, &result));
    EXPECT_EQ(&thread, result) << "the result of a detached thread is not filled in";
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ("", thread.m_caught) << "a cancel is no exception of the body";
}

TEST(ThreadCancel, LeavesAFinishedThreadAlone) {
    ScriptedThread thread([] { return 1; });
    ASSERT_TRUE(thread.Start(true));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    thread.Cancel();
    EXPECT_EQ(1, thread.ExitCode());
}

TEST(ThreadCancel, BeforeAnyStartDoesNothing) {
    ScriptedThread thread([] { return 1; });
    thread.Cancel();
    EXPECT_EQ(0U, thread.Handle());
}

TEST(ThreadCancelAndJoin, EndsAWaitingThread) {
    ScriptedThread* self = nullptr;
    ScriptedThread thread([&self] { return self->WaitForStop(); });
    self = &thread;
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.AwaitBegun(kLongMs));
    EXPECT_TRUE(thread.ForceQuit());
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.Settle(0));
}

TEST(ThreadCancelAndJoin, GivesUpOnAThreadThatDoesNotLetItselfBeCancelled) {
    std::atomic<bool> release{false};
    ScriptedThread thread([&release] {
        int former = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former);
        while (!release) {
            usleep(1000);
        }
        return 0;
    });
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.AwaitBegun(kLongMs));
    const auto begun = steady_clock::now();
    EXPECT_FALSE(thread.ForceQuit());
    EXPECT_GE(steady_clock::now() - begun, seconds(1)) << "it had its time to end";
    EXPECT_LT(steady_clock::now() - begun, seconds(10));
    EXPECT_FALSE(thread.Settle(0));
    release = true;
    EXPECT_TRUE(thread.Settle(kLongMs));
}

TEST(ThreadPriority, ReportsWhatTheSystemSays) {
    ScriptedThread* self = nullptr;
    ScriptedThread thread([&self] { return self->WaitForStop(); });
    self = &thread;
    ASSERT_TRUE(thread.Start(false));
    int priority = -1;
    EXPECT_EQ(0, thread.GetPriority(&priority));
    EXPECT_EQ(0, priority);
    const int failure = thread.SetPriority(1);
    if (failure == 0) {
        EXPECT_EQ(0, thread.GetPriority(&priority));
        EXPECT_EQ(1, priority);
        int policy = -1;
        sched_param parameters{};
        EXPECT_EQ(0, pthread_getschedparam(thread.Handle(), &policy, &parameters));
        EXPECT_EQ(SCHED_FIFO, policy);
    } else {
        EXPECT_EQ(EPERM, failure);
    }
    EXPECT_EQ(EINVAL, thread.SetPriority(1000));
    thread.Stop();
    ASSERT_TRUE(thread.Join(nullptr));
}

TEST(ThreadPriority, IsRefusedWithoutAThreadThatRuns) {
    ScriptedThread thread([] { return 0; });
    int priority = -1;
    EXPECT_EQ(ESRCH, thread.SetPriority(1));
    EXPECT_EQ(ESRCH, thread.GetPriority(&priority));
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(nullptr));
    EXPECT_EQ(ESRCH, thread.SetPriority(1));
    EXPECT_EQ(ESRCH, thread.GetPriority(&priority));
    EXPECT_EQ(-1, priority);
}

}  // namespace
