#include "daemon/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/file_text.h"
#include "support/temp_dir.h"

namespace {

class ProcessTest : public testing::Test {
  protected:
    void WriteFile(const std::string& text) const { ::WriteFile(m_pidFile, text); }
    [[nodiscard]] std::string ReadFile() const { return ::ReadFile(m_pidFile); }

    const TempDir m_folder;
    const std::string m_pidFile = m_folder.File("tarn0.pid");
};

// A child that sleeps until a signal ends it.
class SleepingChild {
  public:
    explicit SleepingChild(bool ignoresTerm = false) {
        m_pid = fork();
        if (m_pid == 0) {
            if (ignoresTerm) {
                signal(SIGTERM, SIG_IGN);
            }
            for (;;) {
                pause();
            }
        }
    }
    ~SleepingChild() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    SleepingChild(const SleepingChild&) = delete;
    SleepingChild& operator=(const SleepingChild&) = delete;
    [[nodiscard]] pid_t Pid() const { return m_pid; }

  private:
    pid_t m_pid;
};

TEST_F(ProcessTest, PidFileHoldsTheNumberAndALineEnd) {
    ASSERT_TRUE(WritePidFile(m_pidFile.c_str()));
    EXPECT_EQ(ReadFile(), std::to_string(getpid()) + "\n");
}

TEST_F(ProcessTest, PidFileReplacesALongerOne) {
    WriteFile("123456789012345678901234567890\nmore\n");
    ASSERT_TRUE(WritePidFile(m_pidFile.c_str()));
    EXPECT_EQ(ReadFile(), std::to_string(getpid()) + "\n");
}

TEST_F(ProcessTest, PidFileInAMissingFolderFails) {
    EXPECT_FALSE(WritePidFile(m_folder.File("missing/tarn0.pid").c_str()));
}

TEST_F(ProcessTest, RemovingThePidFileUnlinksIt) {
    ASSERT_TRUE(WritePidFile(m_pidFile.c_str()));
    EXPECT_EQ(0, RemovePidFile(m_pidFile.c_str()));
    EXPECT_FALSE(std::filesystem::exists(m_pidFile));
    EXPECT_EQ(-1, RemovePidFile(m_pidFile.c_str()));
}

TEST_F(ProcessTest, WithoutAPidFileNothingRunsAndTheNumberStays) {
    int pid = 77;
    EXPECT_FALSE(IsProcessRunning("tarn", m_pidFile.c_str(), &pid));
    EXPECT_EQ(77, pid);
}

TEST_F(ProcessTest, APidFileOfZeroIsNoRunningCopy) {
    WriteFile("0\n");
    int pid = 77;
    EXPECT_FALSE(IsProcessRunning("tarn", m_pidFile.c_str(), &pid));
    EXPECT_EQ(0, pid);
}

TEST_F(ProcessTest, APidFileOfPlainTextIsNoRunningCopy) {
    WriteFile("not a number\n");
    int pid = 77;
    EXPECT_FALSE(IsProcessRunning("tarn", m_pidFile.c_str(), &pid));
    EXPECT_EQ(0, pid);
}

TEST_F(ProcessTest, AnEmptyPidFileIsNoRunningCopy) {
    WriteFile("");
    EXPECT_FALSE(IsProcessRunning("tarn", m_pidFile.c_str(), nullptr));
}

TEST_F(ProcessTest, ThePidFilesNumberIsDecimal) {
    for (const char* text : {"010", "10x", " +10\n"}) {
        WriteFile(text);
        int pid = 0;
        (void)IsProcessRunning("tarn", m_pidFile.c_str(), &pid);  // whether there is a process 10
        EXPECT_EQ(10, pid) << text;
    }
}

TEST_F(ProcessTest, OnlyTheFirst79BytesOfAPidFileCount) {
    WriteFile(std::string(79, ' ') + std::to_string(getpid()));
    EXPECT_FALSE(IsProcessRunning("tarn", m_pidFile.c_str(), nullptr));
}

TEST_F(ProcessTest, KeepsTakingAnyLiveProcessForACopyWhenTheNameCannotBeFound) {
    const SleepingChild child;
    WriteFile(std::to_string(child.Pid()));
    int pid = 0;
    EXPECT_TRUE(IsProcessRunning("no-such-file-in-this-folder", m_pidFile.c_str(), &pid));
    EXPECT_EQ(pid, child.Pid());
}

TEST_F(ProcessTest, AnotherExecutableUnderTheNumberIsNoRunningCopyWhenTheNameIsFound) {
    const SleepingChild child;
    const std::string other = m_folder.Write("other", "x");
    EXPECT_FALSE(IsProcessAlive(other.c_str(), child.Pid()));
    EXPECT_TRUE(IsProcessAlive("/proc/self/exe", child.Pid()));
}

TEST_F(ProcessTest, WithoutANameALiveProcessIsEnough) {
    EXPECT_TRUE(IsProcessAlive(nullptr, getpid()));
    EXPECT_FALSE(IsProcessAlive(nullptr, 0));
}

TEST_F(ProcessTest, ADeadProcessIsNotAlive) {
    pid_t pid = 0;
    {
        const SleepingChild child;
        pid = child.Pid();
    }
    EXPECT_FALSE(IsProcessAlive(nullptr, pid));
}

TEST_F(ProcessTest, AProcessOfAnotherUserIsAlive) {
    // Process 1 belongs to root; to an ordinary user kill gives EPERM, and that counts as alive.
    EXPECT_TRUE(IsProcessAlive("no-such-file-in-this-folder", 1));
    if (getuid() == 0) {
        const SleepingChild child;
        const pid_t asker = fork();
        ASSERT_GE(asker, 0);
        if (asker == 0) {
            constexpr uid_t kNobody = 65534;
            _exit(setuid(kNobody) == 0 && IsProcessAlive(nullptr, child.Pid()) ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(asker, &status, 0), asker);
        EXPECT_EQ(0, status);
    }
}

TEST_F(ProcessTest, StoppingWithoutARunningCopySucceeds) {
    EXPECT_TRUE(StopProcess("tarn", m_pidFile.c_str(), 1));
}

TEST_F(ProcessTest, StoppingWaitsForTheEnd) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        for (;;) {
            pause();
        }
    }
    WriteFile(std::to_string(child));
    // A dead child still has its number until it is waited for.
    signal(SIGCHLD, SIG_IGN);
    EXPECT_TRUE(StopProcess("no-such-file-in-this-folder", m_pidFile.c_str(), 60));
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(ProcessTest, StoppingGivesUpAfterItsTime) {
    const SleepingChild child(true);
    WriteFile(std::to_string(child.Pid()));
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(StopProcess("no-such-file-in-this-folder", m_pidFile.c_str(), 1));
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
}

TEST_F(ProcessTest, StoppingWithZeroSecondsFailsAtOnce) {
    const SleepingChild child;
    WriteFile(std::to_string(child.Pid()));
    EXPECT_FALSE(StopProcess("no-such-file-in-this-folder", m_pidFile.c_str(), 0));
}

TEST_F(ProcessTest, DaemonizeLeavesTheTerminalAndTheFolder) {
    const pid_t parent = fork();
    ASSERT_GE(parent, 0);
    const std::string report = m_folder.File("report");
    if (parent == 0) {
        Daemonize(true);  // the parent of the two leaves here with status 0
        std::array<char, 64> null{};
        std::array<char, 64> folder{};
        (void)!readlink("/proc/self/fd/1", null.data(), null.size() - 1);
        (void)!readlink("/proc/self/cwd", folder.data(), folder.size() - 1);
        const mode_t mask = umask(0);
        std::ofstream(report + ".part")
            << null.data() << ' ' << folder.data() << ' ' << mask << ' ' << (getsid(0) == getpid());
        std::filesystem::rename(report + ".part", report);
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(parent, &status, 0), parent);
    EXPECT_EQ(0, status);
    for (int i = 0; i < 10000 && !std::filesystem::exists(report); ++i) {
        usleep(1000);
    }
    EXPECT_EQ("/dev/null / 18 1", ::ReadFile(report));
}

}  // namespace
