#include "logging/log_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>

#include "support/file_text.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using vald::LogFile;

// Shows the prefix builder, which takes a tag that no line of the daemon has.
class PrefixPeer : public LogFile {
  public:
    std::string Next(const char* tag, size_t size = 128) {
        std::string text(size, '\0');
        text.resize(BuildPrefix(text.data(), text.size(), tag));
        return text;
    }
    static std::string Prefix(const char* tag, size_t size = 128) {
        return PrefixPeer().Next(tag, size);
    }
};

class LogFileTest : public testing::Test {
  protected:
    void OpenWith(unsigned maxSize, unsigned maxFiles, int level = 3) {
        m_log.Initialize(m_path, level);
        ASSERT_TRUE(m_log.SetLimits(maxSize, maxFiles));
    }
    std::string Numbered(int number) const {
        char ending[8];
        snprintf(ending, sizeof ending, ".%03d", number);
        return m_path + ending;
    }
    // What the lines of a file say after their prefix, each with its line feed.
    static std::string Messages(const std::string& path) {
        static const std::regex prefix("[^\n]* T:[0-9]+ ([^\n]*\n)");
        return std::regex_replace(ReadFile(path), prefix, "$1");
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("tarn.log");
    LogFile m_log;
};

// The seconds of the clock that the log reads. time() may be a tick behind it.
time_t Now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

using LogFileStart = LogFileTest;
using LogFileLine = LogFileTest;
using LogFileWrite = LogFileTest;
using LogFileRotation = LogFileTest;
using LogFileSafety = LogFileTest;

TEST_F(LogFileStart, HasLevelThree) {
    EXPECT_EQ(3, m_log.GetLevel());
}

TEST_F(LogFileStart, DropsLinesBeforeItIsOpen) {
    EXPECT_EQ(-2, m_log.Write(1, "lost"));
}

TEST_F(LogFileStart, OpensNothingInInitialize) {
    m_log.Initialize(m_path, 5);
    EXPECT_EQ(5, m_log.GetLevel());
    EXPECT_FALSE(fs::exists(m_path));
    EXPECT_EQ(-2, m_log.Write(1, "lost"));
}

TEST_F(LogFileStart, RefusesALimitOfZero) {
    m_log.Initialize(m_path, 3);
    EXPECT_FALSE(m_log.SetLimits(0, 5));
    EXPECT_FALSE(m_log.SetLimits(1000, 0));
    EXPECT_FALSE(fs::exists(m_path));
}

TEST_F(LogFileStart, FailsWithoutADirectory) {
    m_log.Initialize(m_dir.File("missing/tarn.log"), 3);
    EXPECT_FALSE(m_log.SetLimits(1000, 5));
    EXPECT_EQ(-2, m_log.Write(1, "lost"));
}

TEST_F(LogFileStart, MakesAFileForAllToRead) {
    const mode_t former = umask(022);
    OpenWith(1000, 5);
    umask(former);
    struct stat status {};
    ASSERT_EQ(0, stat(m_path.c_str(), &status));
    EXPECT_EQ(0644u, status.st_mode & 07777u);
}

TEST_F(LogFileStart, OpensADescriptorThatIsNotInherited) {
    const int next = dup(STDIN_FILENO);
    close(next);
    OpenWith(1000, 5);
    const int flags = fcntl(next, F_GETFD);
    ASSERT_NE(-1, flags);
    EXPECT_TRUE(flags & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(next, F_GETFL) & O_APPEND);
}

TEST_F(LogFileLine, HasTimeMillisecondsAndThreadNumberBeforeTheMessage) {
    OpenWith(1000, 5);
    m_log.Write(3, "%s", "Configuration reloaded.");
    const std::regex form(
        R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} T:(\d{2,}) Configuration reloaded\.\n)");
    std::smatch match;
    const std::string line = ReadFile(m_path);
    ASSERT_TRUE(std::regex_match(line, match, form)) << line;
    EXPECT_EQ(match[1], std::to_string(pthread_self()));
}

TEST_F(LogFileLine, CarriesTheLocalTime) {
    const time_t before = Now();
    const std::string text = PrefixPeer::Prefix(nullptr);
    const time_t after = Now();
    tm parsed{};
    parsed.tm_isdst = -1;
    ASSERT_NE(nullptr, strptime(text.c_str(), "%Y/%m/%d %H:%M:%S", &parsed));
    const time_t written = mktime(&parsed);
    EXPECT_GE(written, before);
    EXPECT_LE(written, after);
}

TEST_F(LogFileLine, CarriesTheNumberOfTheThreadThatWritesIt) {
    const std::string number = " T:" + std::to_string(pthread_self()) + " ";
    EXPECT_TRUE(PrefixPeer::Prefix(nullptr).ends_with(number));
    std::thread([&number] {
        const std::string own = " T:" + std::to_string(pthread_self()) + " ";
        EXPECT_NE(number, own);
        EXPECT_TRUE(PrefixPeer::Prefix(nullptr).ends_with(own));
    }).join();
    EXPECT_TRUE(PrefixPeer::Prefix(nullptr).ends_with(number));
}

TEST_F(LogFileLine, GoesOnWithTheTime) {
    PrefixPeer log;
    const time_t first = Now();
    while (Now() <= first + 1) {
        const time_t before = Now();
        const std::string text = log.Next(nullptr);
        const time_t after = Now();
        tm parsed{};
        parsed.tm_isdst = -1;
        ASSERT_NE(nullptr, strptime(text.c_str(), "%Y/%m/%d %H:%M:%S", &parsed));
        ASSERT_GE(mktime(&parsed), before);
        ASSERT_LE(mktime(&parsed), after);
        usleep(20000);
    }
}

TEST_F(LogFileLine, CarriesTheTimeOfTheZone) {
    const char* const former = getenv("TZ");
    const std::string kept = former != nullptr ? former : "";
    setenv("TZ", "EAST-9", 1);
    tzset();
    const time_t before = Now();
    const std::string text = PrefixPeer::Prefix(nullptr);
    tm parsed{};
    EXPECT_NE(nullptr, strptime(text.c_str(), "%Y/%m/%d %H:%M:%S", &parsed));
    EXPECT_GE(timegm(&parsed), before + 9 * 3600);
    if (former != nullptr) {
        setenv("TZ", kept.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

TEST_F(LogFileLine, HasThreeDigitsOfMillisecondsAtAnyTime) {
    const std::regex form(R"([\d/]{10} [\d:]{8}\.\d{3} T:\d{2,} )");
    for (int i = 0; i < 250; ++i) {  // more than a second
        const std::string text = PrefixPeer::Prefix(nullptr);
        ASSERT_TRUE(std::regex_match(text, form)) << text;
        usleep(5000);
    }
}

TEST_F(LogFileLine, PutsATagAndATabAfterTheThreadNumber) {
    EXPECT_TRUE(std::regex_match(PrefixPeer::Prefix("engine"),
                                 std::regex(R"([\d/]{10} [\d:.]{12} T:\d{2,} engine\t)")));
}

TEST_F(LogFileLine, StaysWithinTheBufferWhateverTheTag) {
    EXPECT_EQ(63u, PrefixPeer::Prefix(std::string(500, 't').c_str(), 64).size());
}

TEST_F(LogFileLine, DoesNotShowTheLevel) {
    OpenWith(1000, 5, 5);
    m_log.Write(1, "same");
    m_log.Write(5, "same");
    EXPECT_EQ("same\nsame\n", Messages(m_path));
}

TEST_F(LogFileLine, KeepsACutAt2047CharactersUnmarkedAndStillEnds) {
    OpenWith(100000, 5);
    EXPECT_EQ(2047, m_log.Write(3, "%s", std::string(3000, 'x').c_str()));
    m_log.Write(3, "next");
    const std::string content = ReadFile(m_path);
    ASSERT_EQ(2047u, content.find('\n'));
    EXPECT_EQ(std::string(17, 'x'), content.substr(2030, 17));
    EXPECT_EQ(std::string::npos, content.find('>'));
    EXPECT_NE(std::string::npos, content.find("next\n"));
}

// A wide character that the locale cannot express makes the formatting fail.
TEST_F(LogFileLine, KeepsTheMarkOfAFailureNearTheEndOfTheBuffer) {
    OpenWith(100000, 5);
    static const wchar_t kUnprintable[] = {L'\x100', 0};
    EXPECT_EQ(2043, m_log.Write(3, "%s%ls", std::string(3000, 'x').c_str(), kUnprintable));
    const std::string content = ReadFile(m_path);
    EXPECT_EQ("xxxx>>>\n", content.substr(2036));
}

TEST_F(LogFileLine, KeepsTheTextBeforeAFailureWhereTheMarkIsOutOfReach) {
    OpenWith(100000, 5);
    static const wchar_t kUnprintable[] = {L'\x100', 0};
    m_log.Write(3, "%s", std::string(3000, 'x').c_str());
    m_log.Write(3, "short %ls", kUnprintable);
    EXPECT_TRUE(Messages(m_path).ends_with("\nshort \n")) << Messages(m_path);
}

TEST_F(LogFileWrite, GivesTheBytesOfTheTextWithoutTheLineFeed) {
    OpenWith(1000, 5);
    const int result = m_log.Write(3, "text");
    EXPECT_EQ(static_cast<size_t>(result) + 1, fs::file_size(m_path));
}

TEST_F(LogFileWrite, GivesZeroForALevelThatDoesNotPass) {
    OpenWith(1000, 5);
    EXPECT_EQ(0, m_log.Write(4, "above"));
    EXPECT_EQ(0u, fs::file_size(m_path));
}

TEST_F(LogFileWrite, GivesZeroForALevelThatDoesNotPassThoughNothingIsOpen) {
    EXPECT_EQ(0, m_log.Write(4, "above"));
}

TEST_F(LogFileWrite, GivesZeroWhenTheDeviceTakesNothing) {
    m_log.Initialize("/dev/full", 3);
    ASSERT_TRUE(m_log.SetLimits(1000, 1));
    EXPECT_EQ(0, m_log.Write(3, "no room"));
}

TEST_F(LogFileWrite, DropsLinesAfterClose) {
    OpenWith(1000, 5);
    m_log.Close();
    EXPECT_EQ(-2, m_log.Write(1, "lost"));
}

TEST_F(LogFileWrite, LeavesTheLinesAloneInAFlush) {
    OpenWith(1000, 5);
    m_log.Flush();
    m_log.Write(3, "text");
    m_log.Flush();
    m_log.Close();
    m_log.Flush();
    EXPECT_EQ("text\n", Messages(m_path));
}

TEST_F(LogFileRotation, StartsANewFileAtEveryOpening) {
    WriteFile(m_path, "former\n");
    OpenWith(1000, 5);
    EXPECT_EQ("", ReadFile(m_path));
    EXPECT_EQ("former\n", ReadFile(Numbered(1)));
}

TEST_F(LogFileRotation, MovesEveryFileOneUpAndDropsTheOldest) {
    WriteFile(m_path, "0");
    for (int i = 1; i <= 4; ++i) {
        WriteFile(Numbered(i), std::to_string(i));
    }
    OpenWith(1000, 5);
    EXPECT_EQ("", ReadFile(m_path));
    for (int i = 1; i <= 4; ++i) {
        EXPECT_EQ(ReadFile(Numbered(i)), std::to_string(i - 1));
    }
    EXPECT_FALSE(fs::exists(Numbered(5)));
}

TEST_F(LogFileRotation, KeepsAGapWhereASourceIsMissing) {
    WriteFile(m_path, "0");
    WriteFile(Numbered(1), "1");
    WriteFile(Numbered(3), "3");
    OpenWith(1000, 5);
    EXPECT_EQ("0", ReadFile(Numbered(1)));
    EXPECT_EQ("1", ReadFile(Numbered(2)));
    EXPECT_FALSE(fs::exists(Numbered(3)));
    EXPECT_EQ("3", ReadFile(Numbered(4)));
}

TEST_F(LogFileRotation, HasNoOldFileWithAMaximumOfOne) {
    WriteFile(m_path, "former\n");
    OpenWith(20, 1);
    EXPECT_EQ("", ReadFile(m_path));
    m_log.Write(3, "first");
    m_log.Write(3, "second");
    EXPECT_EQ("second\n", Messages(m_path));
    EXPECT_FALSE(fs::exists(Numbered(1)));
}

TEST_F(LogFileRotation, LeavesFilesBeyondTheMaximumAlone) {
    WriteFile(m_path, "0");
    WriteFile(Numbered(2), "2");
    OpenWith(1000, 2);
    EXPECT_EQ("0", ReadFile(Numbered(1)));
    EXPECT_EQ("2", ReadFile(Numbered(2)));
}

TEST_F(LogFileRotation, HappensBeforeTheLineThatFindsTheFileAboveItsLimit) {
    OpenWith(1000, 5);
    const auto size = static_cast<unsigned>(m_log.Write(3, "one")) + 1;
    // Exactly the limit does not rotate; one byte above does.
    OpenWith(size, 5);
    m_log.Write(3, "one");
    m_log.Write(3, "two");
    EXPECT_EQ("one\ntwo\n", Messages(m_path));
    m_log.Write(3, "three");
    EXPECT_EQ("three\n", Messages(m_path));
    EXPECT_EQ("one\ntwo\n", Messages(Numbered(1)));
}

TEST_F(LogFileRotation, CountsTheLineFeedsToo) {
    OpenWith(1000, 5);
    const auto text = static_cast<unsigned>(m_log.Write(3, "one"));
    OpenWith(text, 5);
    m_log.Write(3, "one");
    m_log.Write(3, "two");
    EXPECT_EQ("two\n", Messages(m_path));
    EXPECT_EQ("one\n", Messages(Numbered(1)));
}

TEST_F(LogFileRotation, FailsOnAFullDirectoryInTheWay) {
    WriteFile(m_path, "former\n");
    fs::create_directory(Numbered(1));
    WriteFile(Numbered(1) + "/inside", "");
    m_log.Initialize(m_path, 3);
    EXPECT_FALSE(m_log.SetLimits(1000, 2));
    EXPECT_EQ("former\n", ReadFile(m_path));
    EXPECT_EQ(-2, m_log.Write(1, "lost"));
}

TEST_F(LogFileRotation, KeepsTheFileClosedForGoodWhenItFailsAtRunTime) {
    OpenWith(10, 2);
    m_log.Write(3, "one");
    fs::create_directory(Numbered(1));
    WriteFile(Numbered(1) + "/inside", "");
    EXPECT_EQ(-1, m_log.Write(3, "two"));
    fs::remove_all(Numbered(1));
    EXPECT_EQ(-2, m_log.Write(3, "three"));
    EXPECT_EQ("one\n", Messages(m_path));
}

TEST_F(LogFileRotation, TakesAPathOfMoreThan256Bytes) {
    const std::string path = m_dir.File(std::string(251, 'l'));
    ASSERT_GT(path.size(), 256u);
    WriteFile(path, "former\n");
    m_log.Initialize(path, 3);
    ASSERT_TRUE(m_log.SetLimits(1000, 2));
    EXPECT_EQ("former\n", ReadFile(path + ".001"));
}

TEST_F(LogFileRotation, FailsWhereARenameFails) {
    const std::string path = m_dir.File(std::string(252, 'l'));
    WriteFile(path, "former\n");
    m_log.Initialize(path, 3);
    EXPECT_FALSE(m_log.SetLimits(1000, 2));
    EXPECT_EQ("former\n", ReadFile(path));
}

TEST_F(LogFileSafety, LeavesErrnoAsItWas) {
    errno = EDOM;
    OpenWith(10, 3);
    m_log.Write(3, "one");
    m_log.Write(3, "two");
    m_log.Close();
    m_log.Flush();
    m_log.Write(3, "three");
    EXPECT_EQ(EDOM, errno);
    m_log.Initialize(m_dir.File("missing/tarn.log"), 3);
    EXPECT_FALSE(m_log.SetLimits(10, 3));
    EXPECT_EQ(EDOM, errno);
}

LogFile* s_struckLog = nullptr;

void LogFault(int) {
    s_struckLog->Write(1, "Received SEGV signal");
    _exit(7);
}

// The text is read while the mutex is held, and a bad pointer raises the signal there.
TEST_F(LogFileSafety, WritesTheLinesOfAFaultHandlerThatStruckInsideTheLog) {
    OpenWith(1000, 3);
    s_struckLog = &m_log;
    EXPECT_EXIT(
        {
            signal(SIGSEGV, LogFault);
            signal(SIGBUS, LogFault);
            volatile uintptr_t nowhere = 16;
            m_log.Write(1, "%s", reinterpret_cast<const char*>(nowhere));
        },
        testing::ExitedWithCode(7), "");
    EXPECT_EQ("Received SEGV signal\n", Messages(m_path));
}

}  // namespace
