#include "tarnctl/common/signals.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

namespace tarnctl {
namespace {

// A request for a stop stays for the life of a process, so each is made in one of its own.
void EndByWhetherStopped(int signal) {
    CatchStopSignals();
    const bool before = StopRequested();
    raise(signal);
    std::exit(!before && StopRequested() ? 42 : 1);
}

TEST(StopSignals, AreThoseOfTheTerminalAndOfItsEnd) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        EXPECT_EXIT(EndByWhetherStopped(signal), testing::ExitedWithCode(42), "");
    }
}

TEST(StopSignals, LeaveAHangupIgnoredThatIsIgnored) {
    EXPECT_EXIT(
        {
            std::signal(SIGHUP, SIG_IGN);
            CatchStopSignals();
            raise(SIGHUP);
            std::exit(StopRequested() ? 1 : 42);
        },
        testing::ExitedWithCode(42), "");
}

TEST(StopSignals, AreIgnoredAtAClosedPipe) {
    EXPECT_EXIT(
        {
            CatchStopSignals();
            raise(SIGPIPE);
            std::exit(StopRequested() ? 1 : 42);
        },
        testing::ExitedWithCode(42), "");
}

TEST(Requests, AreTakenOnceAndAreNoStop) {
    EXPECT_EXIT(
        {
            CatchStopSignals();
            CatchRequests(SIGHUP);
            CatchRequests(SIGUSR1);
            const bool before = TakeRequest(SIGHUP);
            raise(SIGHUP);
            raise(SIGHUP);
            const bool other = TakeRequest(SIGUSR1);
            const bool first = TakeRequest(SIGHUP);
            const bool second = TakeRequest(SIGHUP);
            std::exit(!before && !other && first && !second && !StopRequested() ? 42 : 1);
        },
        testing::ExitedWithCode(42), "");
}

}  // namespace
}  // namespace tarnctl
