#include "tarnctl/quarantine/nft_worker.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>

#include "support/temp_dir.h"
#include "unit/tarnctl/quarantine/scripted_engine.h"

namespace tarnctl {
namespace {

using Kind = NftAnswer::Kind;
using Task = NftWorker::Task;

class NftWorkerTest : public testing::Test {
  protected:
    NftAnswer Ask(const std::string& script, uint32_t onlyAt = 0) {
        return m_worker.Ask(Task::kChange, script, NftWorker::Clock::now() + kPatience, onlyAt);
    }

    static constexpr std::chrono::seconds kPatience{20};
    TempDir m_dir;
    NftWorker m_worker{ScriptedEngine::Maker(m_dir.Path())};
};

TEST_F(NftWorkerTest, HasAChangeCarriedOutAndTellsTheGenerations) {
    const NftAnswer answer = Ask("add\n");
    EXPECT_EQ(Kind::kDone, answer.kind);
    EXPECT_EQ(100U, answer.before);
    EXPECT_EQ(101U, answer.after);
    EXPECT_EQ("add\n", m_dir.Read("changes"));
}

TEST_F(NftWorkerTest, HandsAQuestionOnAndItsAnswerBackWhateverTheirLength) {
    const std::string script(3000000, 'x');
    const NftAnswer answer =
        m_worker.Ask(Task::kQuery, script, NftWorker::Clock::now() + kPatience);
    EXPECT_EQ(Kind::kDone, answer.kind);
    EXPECT_EQ(script, answer.text);
}

TEST_F(NftWorkerTest, TellsTheReasonOfAFailure) {
    m_dir.Write("fail", "0");
    const NftAnswer answer = Ask("add\n");
    EXPECT_EQ(Kind::kFailed, answer.kind);
    EXPECT_EQ("Error: no such thing\nand more\n", answer.text);
    EXPECT_EQ(answer.before, answer.after);
}

TEST_F(NftWorkerTest, AsksForTheGenerationOnlyByAnEmptyScript) {
    EXPECT_EQ(100U, Ask("").after);
    EXPECT_FALSE(std::filesystem::exists(m_dir.File("changes")));
}

TEST_F(NftWorkerTest, CarriesNothingOutAtAnotherGenerationThanIsWanted) {
    EXPECT_EQ(Kind::kStale, Ask("add\n", 99).kind);
    EXPECT_FALSE(std::filesystem::exists(m_dir.File("changes")));
    EXPECT_EQ(Kind::kDone, Ask("add\n", 100).kind);
}

TEST_F(NftWorkerTest, DoesNotTakeAProcessKilledByASignalForSuccess) {
    m_dir.Write("die", "0");
    const NftAnswer answer = Ask("add\n");
    EXPECT_EQ(Kind::kGivenUp, answer.kind);
    EXPECT_EQ("the process that changes the table has ended", answer.text);
    std::filesystem::remove(m_dir.File("die"));
    EXPECT_EQ(Kind::kDone, Ask("add\n").kind) << "another takes its place";
}

TEST_F(NftWorkerTest, GivesUpInTime) {
    m_dir.Write("hang", "0");
    const auto start = NftWorker::Clock::now();
    const NftAnswer answer =
        m_worker.Ask(Task::kChange, "add\n", start + std::chrono::milliseconds(200));
    EXPECT_EQ(Kind::kGivenUp, answer.kind);
    EXPECT_EQ("no answer of the kernel in time", answer.text);
    EXPECT_LT(NftWorker::Clock::now() - start, kPatience / 2);
    std::filesystem::remove(m_dir.File("hang"));
    EXPECT_EQ(Kind::kDone, Ask("add\n").kind) << "another takes its place";
}

TEST_F(NftWorkerTest, ReplacesAProcessThatDiedBetweenTwoScripts) {
    ASSERT_EQ(Kind::kDone, Ask("one\n").kind);
    const pid_t first = m_worker.Process();
    kill(first, SIGKILL);
    siginfo_t info = {};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(first), &info, WEXITED | WNOWAIT));
    EXPECT_EQ(Kind::kDone, Ask("two\n").kind);
    EXPECT_NE(first, m_worker.Process());
}

TEST_F(NftWorkerTest, HoldsNoDescriptorOfItsCaller) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    ASSERT_EQ(Kind::kDone, Ask("add\n").kind);
    close(ends[1]);
    char byte = 0;
    EXPECT_EQ(0, read(ends[0], &byte, 1)) << "nobody can write any more";
    close(ends[0]);
}

TEST_F(NftWorkerTest, HeedsNoSignalThatIsMeantForItsCaller) {
    ASSERT_EQ(Kind::kDone, Ask("one\n").kind);
    const pid_t process = m_worker.Process();
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2}) {
        kill(process, number);
        EXPECT_EQ(Kind::kDone, Ask("two\n").kind) << number;
    }
    EXPECT_EQ(process, m_worker.Process());
}

TEST(NftWorkerEnd, TakesItsProcessAlong) {
    const TempDir dir;
    pid_t process = -1;
    {
        NftWorker worker(ScriptedEngine::Maker(dir.Path()));
        ASSERT_EQ(
            Kind::kDone,
            worker.Ask(Task::kChange, "add\n", NftWorker::Clock::now() + std::chrono::seconds(20))
                .kind);
        process = worker.Process();
    }
    EXPECT_EQ(-1, kill(process, 0));
    EXPECT_EQ(ESRCH, errno);
}

// Otherwise it could still change the table that the caller's successor has made.
TEST_F(NftWorkerTest, TakesItsProcessAlongWhenTheCallerIsKilledInTheMiddle) {
    m_dir.Write("hang", "0");
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1)) << "so that it can be waited for";
    const pid_t caller = fork();
    if (caller == 0) {
        (void)Ask("add\n");  // does not come back in time
        _exit(0);
    }
    const auto began = std::chrono::steady_clock::now();
    while (m_dir.Read("changes").empty()) {
        const timespec pause = {.tv_sec = 0, .tv_nsec = 1000000};
        nanosleep(&pause, nullptr);
    }
    kill(caller, SIGKILL);
    ASSERT_EQ(caller, waitpid(caller, nullptr, 0));
    int status = 0;
    ASSERT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_LT(std::chrono::steady_clock::now() - began, kPatience);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace
}  // namespace tarnctl
