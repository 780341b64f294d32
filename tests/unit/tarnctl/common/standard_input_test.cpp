#include "tarnctl/common/standard_input.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <istream>
#include <sstream>
#include <string>
#include <thread>

#include "tarnctl/common/tarn_process.h"

namespace tarnctl {
namespace {

// Standard input is a pipe as long as a test runs.
class StandardInputTest : public testing::Test {
  protected:
    void SetUp() override {
        m_saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
        int ends[2];
        ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
        ASSERT_EQ(STDIN_FILENO, dup2(ends[0], STDIN_FILENO));
        close(ends[0]);
        m_writer = ends[1];
    }
    void TearDown() override {
        End();
        dup2(m_saved, STDIN_FILENO);
        close(m_saved);
    }

    void Send(const std::string& text) {
        ASSERT_EQ(static_cast<ssize_t>(text.size()), write(m_writer, text.data(), text.size()));
    }
    void End() {
        if (m_writer != -1) {
            close(m_writer);
            m_writer = -1;
        }
    }

    std::ostringstream m_err;
    StandardInput m_input{m_err, "test"};
    int m_saved = -1;
    int m_writer = -1;
};

TEST_F(StandardInputTest, ReadsToTheEnd) {
    Send(std::string("one\n\0two", 8));
    End();
    std::string text = "what was there";
    EXPECT_EQ(0, m_input.ReadAll(text));
    EXPECT_EQ(std::string("one\n\0two", 8), text);
    EXPECT_EQ(0, m_input.ReadAll(text));
    EXPECT_EQ("", text);
    EXPECT_EQ("", m_err.str());
}

TEST_F(StandardInputTest, GivesALineBeforeTheNextOneComes) {
    std::istream lines(&m_input);
    std::string line;
    Send("first\n");
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ("first", line);
    Send("second");
    End();
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ("second", line);
    EXPECT_FALSE(std::getline(lines, line));
}

TEST_F(StandardInputTest, IsAFileThatCanBeOpenedMoreThanOnce) {
    Send("text");
    End();
    EXPECT_EQ("/some/file", m_input.PathOf("/some/file"));
    const std::string path = m_input.PathOf("-");
    EXPECT_EQ(path, m_input.PathOf("-"));
    for (int i = 0; i < 2; ++i) {
        std::ifstream file(path);
        std::string text;
        EXPECT_TRUE(std::getline(file, text));
        EXPECT_EQ("text", text);
    }
}

TEST_F(StandardInputTest, IsNoFileWhereItCannotBeRead) {
    close(STDIN_FILENO);
    ASSERT_EQ(STDIN_FILENO, open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string text;
    EXPECT_EQ(EISDIR, m_input.ReadAll(text));
    EXPECT_EQ("", m_input.PathOf("-"));
}

TEST_F(StandardInputTest, SaysOnceThatNothingComes) {
    std::thread writer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(3 * kSilentWait));
        Send("late");
        End();
    });
    std::string text;
    EXPECT_EQ(0, m_input.ReadAll(text));
    writer.join();
    EXPECT_EQ("late", text);
    EXPECT_EQ("tarnctl test: waiting: nothing comes on standard input\n", m_err.str());
}

}  // namespace
}  // namespace tarnctl
