#include "tarnctl/import/file_replacement.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <string>

#include "support/temp_dir.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

class FileReplacementTest : public testing::Test {
  protected:
    FileReplacementTest() { m_path = m_dir.Write("event.conf", "old\n"); }

    FileState State() const {
        FileState state;
        EXPECT_EQ("", ReadState(m_path, state));
        return state;
    }

    size_t FileCount() const {
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path())) {
            count += entry.exists() ? 1 : 0;
        }
        return count;
    }

    // Runs in a process of its own. Returns its exit status.
    static int InChild(const std::function<int()>& work) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(work());
        }
        int status = 0;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFEXITED(status));
        return WEXITSTATUS(status);
    }

    TempDir m_dir;
    std::string m_path;
};

TEST_F(FileReplacementTest, PutsTheNewTextInPlace) {
    EXPECT_EQ("old\n", State().text);
    EXPECT_EQ("", ReplaceFile(State(), "new\n"));
    EXPECT_EQ("new\n", m_dir.Read("event.conf"));
    EXPECT_EQ(1U, FileCount());
}

TEST_F(FileReplacementTest, KeepsModeAndOwner) {
    ASSERT_EQ(0, chmod(m_path.c_str(), 0640));
    const bool isRoot = geteuid() == 0;
    if (isRoot) {
        ASSERT_EQ(0, chown(m_path.c_str(), 1234, 2345));
    }
    EXPECT_EQ("", ReplaceFile(State(), "new\n"));
    struct stat status = {};
    ASSERT_EQ(0, stat(m_path.c_str(), &status));
    EXPECT_EQ(0640U, status.st_mode & 07777U);
    EXPECT_EQ(isRoot ? 1234U : geteuid(), status.st_uid);
    EXPECT_EQ(isRoot ? 2345U : getegid(), status.st_gid);
}

// More than once, since a second may end in between.
TEST_F(FileReplacementTest, IsNewerByWholeSeconds) {
    for (int i = 0; i < 3; ++i) {
        struct stat before = {};
        ASSERT_EQ(0, utimensat(AT_FDCWD, m_path.c_str(), nullptr, 0));
        ASSERT_EQ(0, stat(m_path.c_str(), &before));
        EXPECT_EQ("", ReplaceFile(State(), "new\n"));
        struct stat after = {};
        ASSERT_EQ(0, stat(m_path.c_str(), &after));
        EXPECT_LT(before.st_mtim.tv_sec, after.st_mtim.tv_sec);
    }
}

TEST_F(FileReplacementTest, MakesAFileThatIsNotThere) {
    std::filesystem::remove(m_path);
    const FileState state = State();
    EXPECT_FALSE(state.exists);
    const mode_t mask = umask(027);
    EXPECT_EQ("", ReplaceFile(state, "new\n"));
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(0, stat(m_path.c_str(), &status));
    EXPECT_EQ(0640U, status.st_mode & 07777U);
    EXPECT_EQ("new\n", m_dir.Read("event.conf"));
}

TEST_F(FileReplacementTest, ReplacesTheFileThatALinkNames) {
    std::filesystem::create_symlink("event.conf", m_dir.File("link"));
    FileState state;
    ASSERT_EQ("", ReadState(m_dir.File("link"), state));
    EXPECT_EQ("", ReplaceFile(state, "new\n"));
    EXPECT_EQ("new\n", m_dir.Read("event.conf"));
    EXPECT_TRUE(std::filesystem::is_symlink(m_dir.File("link")));
}

TEST_F(FileReplacementTest, LeavesTheOldFileWhenTheProcessEndsBeforeTheRename) {
    EXPECT_EQ(42, InChild([this] {
                  (void)ReplaceFile(State(), "new\n", [] { _exit(42); });
                  return 0;
              }));
    EXPECT_EQ("old\n", m_dir.Read("event.conf"));
    EXPECT_EQ(2U, FileCount());  // the new file stays beside it
    EXPECT_EQ("", ReplaceFile(State(), "newer\n"));
    EXPECT_EQ("newer\n", m_dir.Read("event.conf"));
}

TEST_F(FileReplacementTest, LeavesTheOldFileWhenThereIsNoRoom) {
    EXPECT_EQ(0, InChild([this] {
                  const FileState state = State();
                  signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit = {4096, 4096};
                  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
                      return 1;
                  }
                  const std::string reason = ReplaceFile(state, std::string(8192, 'x'));
                  return reason.find("File too large") != std::string::npos ? 0 : 2;
              }));
    EXPECT_EQ("old\n", m_dir.Read("event.conf"));
    EXPECT_EQ(1U, FileCount());
}

TEST_F(FileReplacementTest, LeavesAFileThatHasChangedMeanwhile) {
    const FileState state = State();
    m_dir.Write("event.conf", "somebody else's\n");
    EXPECT_THAT(ReplaceFile(state, "new\n"), HasSubstr("has been changed by somebody else"));
    EXPECT_EQ("somebody else's\n", m_dir.Read("event.conf"));
    EXPECT_EQ(1U, FileCount());
}

TEST_F(FileReplacementTest, LeavesAFileThatHasComeMeanwhile) {
    std::filesystem::remove(m_path);
    const FileState state = State();
    m_dir.Write("event.conf", "somebody else's\n");
    EXPECT_THAT(ReplaceFile(state, "new\n"), HasSubstr("has been changed by somebody else"));
    EXPECT_EQ("somebody else's\n", m_dir.Read("event.conf"));
}

TEST_F(FileReplacementTest, RefusesWhatIsNoPlainFile) {
    FileState state;
    EXPECT_EQ("/dev/full is no plain file", ReadState("/dev/full", state));
    EXPECT_EQ(m_dir.Path().string() + " is no plain file", ReadState(m_dir.Path().string(), state));
}

TEST_F(FileReplacementTest, NamesAFolderThatIsNotThere) {
    FileState state;
    EXPECT_EQ("", ReadState(m_dir.File("none/event.conf"), state));
    EXPECT_THAT(ReplaceFile(state, "x"), HasSubstr("make the directory"));
}

}  // namespace
}  // namespace tarnctl
