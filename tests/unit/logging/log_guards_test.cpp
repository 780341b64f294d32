// The guards that keep handlers and cancels out of the log.

#include "logging/log_guards.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <thread>
#include <vector>

namespace {

struct Handled {
    int signal;
    int code;
    int value;
};

std::vector<Handled> s_handled;  // of the thread that a test sends signals to

void Handle(int signal, siginfo_t* info, void*) {
    if (HoldBack(signal, info)) {
        return;
    }
    s_handled.push_back({signal, info->si_code, info->si_value.sival_int});
}

class LogGuards : public testing::Test {
  protected:
    LogGuards() {
        s_handled.clear();
        s_handled.reserve(32);
        struct sigaction action {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = &Handle;
        for (size_t i = 0; i < kSignals.size(); ++i) {
            sigaction(kSignals[i], &action, &m_former[i]);
        }
    }
    ~LogGuards() override {
        for (size_t i = 0; i < kSignals.size(); ++i) {
            sigaction(kSignals[i], &m_former[i], nullptr);
        }
    }

    static void Queue(int signal, int value) {
        sigval what{};
        what.sival_int = value;
        ASSERT_EQ(0, pthread_sigqueue(pthread_self(), signal, what));
    }

    // The signals that were handled, in the order of their numbers.
    static std::vector<int> Signals() {
        std::vector<int> signals;
        for (const Handled& handled : s_handled) {
            signals.push_back(handled.signal);
        }
        std::sort(signals.begin(), signals.end());
        return signals;
    }

    static constexpr std::array kSignals{SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM};
    std::array<struct sigaction, kSignals.size()> m_former{};
};

TEST_F(LogGuards, HoldNothingBackOutside) {
    EXPECT_FALSE(HoldBack(SIGHUP, nullptr));
    raise(SIGHUP);
    EXPECT_EQ(std::vector{SIGHUP}, Signals());
    { const UndisturbedByHandlers guard; }
    EXPECT_FALSE(HoldBack(SIGHUP, nullptr));
    EXPECT_EQ(1u, s_handled.size());
}

TEST_F(LogGuards, HoldEachHandlerThatLogsBackUntilTheThreadIsOutside) {
    {
        const UndisturbedByHandlers guard;
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR2}) {
            raise(signal);
        }
        EXPECT_TRUE(s_handled.empty());
    }
    EXPECT_EQ((std::vector{SIGHUP, SIGINT, SIGQUIT, SIGUSR2, SIGTERM}), Signals());
}

TEST_F(LogGuards, DoNotHoldOtherSignalsBack) {
    const UndisturbedByHandlers guard;
    raise(SIGUSR1);
    EXPECT_EQ(std::vector{SIGUSR1}, Signals());
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        EXPECT_FALSE(HoldBack(signal, nullptr)) << signal;
    }
}

TEST_F(LogGuards, NestAndHoldBackUntilTheLastIsLeft) {
    {
        const UndisturbedByHandlers outer;
        {
            const UndisturbedByHandlers inner;
            raise(SIGHUP);
        }
        EXPECT_TRUE(s_handled.empty());
        raise(SIGINT);
        EXPECT_TRUE(s_handled.empty());
    }
    EXPECT_EQ((std::vector{SIGHUP, SIGINT}), Signals());
}

TEST_F(LogGuards, KeepTheDetailsOfTheFirstSignalOfAKind) {
    {
        const UndisturbedByHandlers guard;
        Queue(SIGTERM, 17);
        Queue(SIGTERM, 18);
        Queue(SIGUSR2, 19);
    }
    ASSERT_EQ((std::vector{SIGUSR2, SIGTERM}), Signals());
    for (const Handled& handled : s_handled) {
        EXPECT_EQ(SI_QUEUE, handled.code);
        EXPECT_EQ(handled.signal == SIGTERM ? 17 : 19, handled.value);
    }
}

TEST_F(LogGuards, SendASignalWithoutDetailsAsOneOfAUser) {
    {
        const UndisturbedByHandlers guard;
        Queue(SIGHUP, 17);
    }
    {
        const UndisturbedByHandlers guard;
        EXPECT_TRUE(HoldBack(SIGHUP, nullptr));
    }
    ASSERT_EQ(2u, s_handled.size());
    EXPECT_EQ(SI_USER, s_handled[1].code);
    EXPECT_EQ(0, s_handled[1].value);
}

TEST_F(LogGuards, HoldBackAgainAfterTheyHaveBeenLeft) {
    for (int i = 0; i < 3; ++i) {
        const UndisturbedByHandlers guard;
        raise(SIGHUP);
    }
    EXPECT_EQ(3u, s_handled.size());
}

TEST_F(LogGuards, HoldBackOnTheirOwnThreadOnly) {
    const UndisturbedByHandlers guard;
    std::thread([] {
        EXPECT_FALSE(HoldBack(SIGHUP, nullptr));
        raise(SIGHUP);
    }).join();
    EXPECT_EQ(1u, s_handled.size());
}

TEST_F(LogGuards, LetNoCancelLandInside) {
    static bool s_reachedTheEnd;
    s_reachedTheEnd = false;
    std::thread thread([] {
        {
            const UndisturbedByHandlers guard;
            pthread_cancel(pthread_self());
            pthread_testcancel();
            s_reachedTheEnd = true;
        }
        pthread_testcancel();
        s_reachedTheEnd = false;
    });
    thread.join();
    EXPECT_TRUE(s_reachedTheEnd);
}

TEST_F(LogGuards, BlockTheSignalsAroundTheCallsOfTheLibrary) {
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    {
        const Uninterrupted guard;
        raise(SIGHUP);
        raise(SIGTERM);
        EXPECT_TRUE(s_handled.empty());
    }
    EXPECT_EQ((std::vector{SIGHUP, SIGTERM}), Signals());
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
    }
}

}  // namespace
