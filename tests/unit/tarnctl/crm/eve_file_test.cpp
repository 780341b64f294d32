#include "tarnctl/crm/eve_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/file_text.h"
#include "support/temp_dir.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

constexpr std::string_view kTwo = "{\"timestamp\":1}\n{\"timestamp\":2}\n";
constexpr size_t kOne = kTwo.size() / 2;  // bytes of a line

// The most bytes that a file of this process may have, until the end of a test: a disk that is
// full.
class FileLimit {
  public:
    explicit FileLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_old);
        rlimit limit = m_old;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileLimit() { setrlimit(RLIMIT_FSIZE, &m_old); }
    FileLimit(const FileLimit&) = delete;
    FileLimit& operator=(const FileLimit&) = delete;

  private:
    rlimit m_old = {};
};

class EveFileTest : public testing::Test {
  protected:
    // As in tarnctl, where a reader that is gone shows as EPIPE.
    EveFileTest() { std::signal(SIGPIPE, SIG_IGN); }

    void Write(const std::string& text) const { std::ofstream(m_path, std::ios::binary) << text; }
    std::string Text() const { return ReadFile(m_path); }
    // Offers until the sink tries again after a failure.
    static size_t TakeLater(EveFile& sink, std::string_view lines) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        size_t taken = 0;
        while ((taken = sink.Take(lines)) == 0 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return taken;
    }

    const TempDir m_folder;
    const std::string m_path = m_folder.File("eve.json");
};

TEST_F(EveFileTest, AppendsWholeLines) {
    Write("before\n");
    EveFile sink(m_path);
    EXPECT_EQ("", sink.Open());
    EXPECT_EQ(kTwo.size(), sink.Take(kTwo));
    EXPECT_EQ("before\n" + std::string(kTwo), Text());
    EXPECT_EQ("", sink.Error());
    EXPECT_EQ("eve", sink.Kind());
    EXPECT_EQ(m_path, sink.Target());
}

TEST_F(EveFileTest, MakesAFileThatOthersDoNotRead) {
    EveFile sink(m_path);
    const mode_t mask = umask(0);
    EXPECT_EQ("", sink.Open());
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(0, stat(m_path.c_str(), &status));
    EXPECT_EQ(0640U, status.st_mode & 0777U);
}

TEST_F(EveFileTest, TakesBackTheHalfLineOfAKilledWriter) {
    Write(std::string(kTwo) + "{\"timestamp\":\"2025");
    EveFile sink(m_path);
    EXPECT_EQ("", sink.Open());
    EXPECT_EQ(kTwo, Text());
}

TEST_F(EveFileTest, TakesBackAHalfLineThatIsLong) {
    Write(std::string(kTwo) + "{\"timestamp\":\"" + std::string(200000, 'x'));
    EveFile sink(m_path);
    EXPECT_EQ("", sink.Open());
    EXPECT_EQ(kTwo, Text());
}

TEST_F(EveFileTest, TakesBackAHalfLineAtTheStartOfTheFile) {
    Write("{\"timest");
    EveFile sink(m_path);
    EXPECT_EQ("", sink.Open());
    EXPECT_EQ("", Text());
}

TEST_F(EveFileTest, EndsALineOfSomebodyElse) {
    Write("notes without an end");
    EveFile sink(m_path);
    EXPECT_EQ("", sink.Open());
    EXPECT_EQ("notes without an end\n", Text());
}

TEST_F(EveFileTest, RefusesAFolderAndAFolderThatIsNotThere) {
    EveFile folder(m_folder.Path().string());
    EXPECT_THAT(folder.Open(), HasSubstr("Is a directory"));
    EveFile missing(m_folder.File("none/eve.json"));
    EXPECT_THAT(missing.Open(), HasSubstr("make the directory " + m_folder.File("none")));
}

TEST_F(EveFileTest, KeepsNoHalfLineOnAFullDiskAndGoesOnWhenThereIsRoom) {
    EveFile sink(m_path);
    ASSERT_EQ("", sink.Open());
    {
        const FileLimit limit(kOne + 3);
        EXPECT_EQ(kOne, sink.Take(kTwo));
        EXPECT_EQ(kTwo.substr(0, kOne), Text());
        EXPECT_EQ(0U, TakeLater(sink, "") + sink.Take(kTwo.substr(kOne)));
        EXPECT_THAT(sink.Error(), HasSubstr(m_path + ": "));
    }
    EXPECT_EQ(kOne, TakeLater(sink, kTwo.substr(kOne)));
    EXPECT_EQ(kTwo, Text());
    EXPECT_EQ("", sink.Error());
}

TEST_F(EveFileTest, SaysThatADiskIsFull) {
    EveFile sink("/dev/full");
    ASSERT_EQ("", sink.Open());
    EXPECT_EQ(0U, sink.Take(kTwo));
    EXPECT_EQ("/dev/full: No space left on device; make room on its file system", sink.Error());
}

TEST_F(EveFileTest, WaitsAWhileAfterAFailure) {
    EveFile sink("/dev/full");
    ASSERT_EQ("", sink.Open());
    EXPECT_EQ(0U, sink.Take(kTwo));
    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(0U, sink.Take(kTwo));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
}

TEST_F(EveFileTest, BeginsANewFileWhenItWasMovedAway) {
    EveFile sink(m_path);
    ASSERT_EQ("", sink.Open());
    ASSERT_EQ(kOne, sink.Take(kTwo.substr(0, kOne)));
    std::filesystem::rename(m_path, m_path + ".1");
    ASSERT_EQ(kOne, sink.Take(kTwo.substr(kOne)));
    EXPECT_EQ(kTwo, ReadFile(m_path + ".1"));
    sink.Reopen();
    ASSERT_EQ(kOne, sink.Take(kTwo.substr(kOne)));
    EXPECT_EQ(kTwo.substr(kOne), Text());
    EXPECT_EQ(kTwo, ReadFile(m_path + ".1"));
}

TEST_F(EveFileTest, BeginsANewFileWhenItWasRemoved) {
    EveFile sink(m_path);
    ASSERT_EQ("", sink.Open());
    std::filesystem::remove(m_path);
    EXPECT_EQ(kTwo.size(), sink.Take(kTwo));
    EXPECT_EQ(kTwo, Text());
}

TEST_F(EveFileTest, IsAwayUntilItsFolderIsBack) {
    std::filesystem::create_directory(m_folder.File("logs"));
    EveFile sink(m_folder.File("logs/eve.json"));
    ASSERT_EQ("", sink.Open());
    std::filesystem::remove_all(m_folder.File("logs"));
    EXPECT_EQ(0U, sink.Take(kTwo));
    EXPECT_THAT(sink.Error(), HasSubstr("No such file"));
    std::filesystem::create_directory(m_folder.File("logs"));
    EXPECT_EQ(kTwo.size(), TakeLater(sink, kTwo));
    EXPECT_EQ("", sink.Error());
}

TEST_F(EveFileTest, WaitsForTheReaderOfAFifoAndGoesOnWithinALine) {
    ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600));
    EveFile sink(m_path);
    EXPECT_EQ("", sink.Open());
    EXPECT_EQ(m_path + ": nobody reads it", sink.Error());
    const int reader = open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(4096, fcntl(reader, F_SETPIPE_SZ, 4096));
    const std::string lines = std::string(3000, 'a') + "\n" + std::string(3000, 'b') + "\n";
    EXPECT_EQ(3001U, TakeLater(sink, lines));
    std::string text(4096, '\0');
    ASSERT_EQ(4096, read(reader, text.data(), text.size()));
    EXPECT_EQ(3001U, sink.Take(std::string_view(lines).substr(3001)));
    std::string rest(4096, '\0');
    rest.resize(static_cast<size_t>(read(reader, rest.data(), rest.size())));
    EXPECT_EQ(lines, text + rest);
    close(reader);
    EXPECT_EQ(0U, sink.Take(kTwo));
    EXPECT_EQ(m_path + ": nobody reads it", sink.Error());
}

TEST_F(EveFileTest, EndsAHalfLineThatIsForgotten) {
    ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600));
    const int reader = open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(4096, fcntl(reader, F_SETPIPE_SZ, 4096));
    EveFile sink(m_path);
    ASSERT_EQ("", sink.Open());
    EXPECT_EQ(0U, sink.Take(std::string(5000, 'a') + "\n"));
    std::string text(4096, '\0');
    ASSERT_EQ(4096, read(reader, text.data(), text.size()));
    sink.Forget();
    EXPECT_EQ(1, read(reader, text.data(), text.size()));
    EXPECT_EQ('\n', text.front());
    EXPECT_EQ(kOne, sink.Take(kTwo.substr(0, kOne)));
    text.resize(static_cast<size_t>(read(reader, text.data(), text.size())));
    EXPECT_EQ(kTwo.substr(0, kOne), text);
    close(reader);
}

}  // namespace
}  // namespace tarnctl
