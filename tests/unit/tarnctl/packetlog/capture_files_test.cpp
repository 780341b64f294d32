#include "tarnctl/packetlog/capture_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

#include "support/temp_dir.h"
#include "unit/tarnctl/packetlog/packets_in.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

// The most bytes that a file of this process may have, until the end of a test: a disk that is
// full.
class FullDisk {
  public:
    explicit FullDisk(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_old);
        rlimit limit = m_old;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() { setrlimit(RLIMIT_FSIZE, &m_old); }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

  private:
    rlimit m_old = {};
};

class CaptureFilesTest : public testing::Test {
  protected:
    CaptureFilesTest() { m_settings.directory = m_dir.Path().string(); }

    void Begin() {
        m_files = std::make_unique<CaptureFiles>(m_settings);
        ASSERT_TRUE(m_files->Open()) << m_files->Error();
    }
    // Puts in a packet of 900 bytes, of which one fits into a kilobyte and two do not.
    bool Put(char byte, uint32_t maxFiles = 0, uint32_t maxKBytes = 0, uint32_t event = 9) {
        const std::string bytes(900, byte);
        return m_files->Write(
            {event, maxFiles, maxKBytes, 1, 2, 900, std::as_bytes(std::span(bytes)), "why"});
    }
    void Write(char byte, uint32_t maxFiles = 0, uint32_t maxKBytes = 0) {
        ASSERT_TRUE(Put(byte, maxFiles, maxKBytes)) << m_files->Error();
    }
    std::string BytesIn(const std::string& name) {
        std::string first;
        for (const ReadPacket& packet : PacketsIn(m_dir.File(name))) {
            first += packet.bytes.front();
        }
        return first;
    }
    bool Exists(const std::string& name) { return std::filesystem::exists(m_dir.File(name)); }

    TempDir m_dir;
    CaptureSettings m_settings;
    std::unique_ptr<CaptureFiles> m_files;
};

class CaptureFilesLimits : public CaptureFilesTest {
  protected:
    void SetUp() override { Begin(); }
};

TEST_F(CaptureFilesLimits, KeepTheNewestFilesOfAnEvent) {
    for (const char byte : std::string("abcd")) {
        Write(byte, 3, 1);
    }
    EXPECT_EQ("d", BytesIn("event-9.pcap"));
    EXPECT_EQ("c", BytesIn("event-9.1.pcap"));
    EXPECT_EQ("b", BytesIn("event-9.2.pcap"));
    EXPECT_FALSE(Exists("event-9.3.pcap"));
    EXPECT_EQ("abcd", BytesIn("all.pcap"));
}

TEST_F(CaptureFilesLimits, OfAFileAreItsKilobytes) {
    for (const char byte : std::string("abcd")) {
        Write(byte, 3, 2);
    }
    EXPECT_EQ("cd", BytesIn("event-9.pcap"));
    EXPECT_EQ("ab", BytesIn("event-9.1.pcap"));
    EXPECT_LE(std::filesystem::file_size(m_dir.File("event-9.1.pcap")), 2048u);
}

TEST_F(CaptureFilesLimits, OfOneFileLeaveOne) {
    Write('a', 1, 1);
    Write('b', 1, 1);
    EXPECT_EQ("b", BytesIn("event-9.pcap"));
    EXPECT_FALSE(Exists("event-9.1.pcap"));
}

TEST_F(CaptureFilesLimits, OfZeroAreNone) {
    for (int packet = 0; packet < 20; ++packet) {
        Write('a', 0, 0);
    }
    EXPECT_EQ(20u, BytesIn("event-9.pcap").size());
    EXPECT_FALSE(Exists("event-9.1.pcap"));
}

TEST_F(CaptureFilesLimits, ThatAreLoweredTakeEffectAtOnce) {
    for (const char byte : std::string("abcd")) {
        Write(byte, 10, 1);
    }
    Write('e', 2, 1);
    EXPECT_EQ("e", BytesIn("event-9.pcap"));
    EXPECT_EQ("d", BytesIn("event-9.1.pcap"));
    EXPECT_FALSE(Exists("event-9.2.pcap"));
    EXPECT_FALSE(Exists("event-9.3.pcap"));
}

TEST_F(CaptureFilesLimits, OfAPacketThatIsLargerThanAFileStillLeaveItWhole) {
    const std::string bytes(5000, 'x');
    ASSERT_TRUE(m_files->Write({9, 3, 1, 1, 2, 5000, std::as_bytes(std::span(bytes)), ""}));
    EXPECT_EQ(bytes, PacketsIn(m_dir.File("event-9.pcap")).at(0).bytes);
}

// --- what an earlier run has left ----------------------------------------------------------------

TEST_F(CaptureFilesTest, NumberWhatAnEarlierRunHasLeft) {
    Begin();
    Write('a');
    Write('b');
    Begin();
    EXPECT_EQ("", BytesIn("all.pcap"));
    EXPECT_EQ("ab", BytesIn("all.1.pcap"));
    Write('c');
    EXPECT_EQ("c", BytesIn("event-9.pcap"));
    EXPECT_EQ("ab", BytesIn("event-9.1.pcap"));
    Begin();
    Write('d');
    EXPECT_EQ("c", BytesIn("all.1.pcap"));
    EXPECT_EQ("ab", BytesIn("all.2.pcap"));
    EXPECT_EQ("ab", BytesIn("event-9.2.pcap"));
}

TEST_F(CaptureFilesTest, CountWhatAnEarlierRunHasLeftAgainstTheLimit) {
    Begin();
    for (const char byte : std::string("abc")) {
        Write(byte, 3, 1);
    }
    Begin();
    Write('d', 3, 1);
    EXPECT_EQ("d", BytesIn("event-9.pcap"));
    EXPECT_EQ("c", BytesIn("event-9.1.pcap"));
    EXPECT_EQ("b", BytesIn("event-9.2.pcap"));
    EXPECT_FALSE(Exists("event-9.3.pcap"));
}

TEST_F(CaptureFilesTest, WithoutAPacketAreNotKeptByTheNextRun) {
    Begin();
    Begin();
    EXPECT_FALSE(Exists("all.1.pcap"));
    EXPECT_EQ("", BytesIn("all.pcap"));
}

TEST_F(CaptureFilesTest, OfTheOtherFormatAreLeftAlone) {
    Begin();
    Write('a');
    m_settings.format = CaptureFormat::kPcapng;
    Begin();
    Write('b');
    EXPECT_EQ("a", BytesIn("all.pcap"));
    EXPECT_EQ("a", BytesIn("event-9.pcap"));
    EXPECT_EQ("b", BytesIn("all.pcapng"));
    EXPECT_EQ("b", BytesIn("event-9.pcapng"));
}

// --- the file of all packets ---------------------------------------------------------------------

TEST_F(CaptureFilesTest, BeginTheFileOfAllAnewAtItsSize) {
    m_settings.newFileBytes = 2048;
    Begin();
    for (const char byte : std::string("abcde")) {
        Write(byte);
    }
    EXPECT_EQ("e", BytesIn("all.pcap"));
    EXPECT_EQ("cd", BytesIn("all.1.pcap"));
    EXPECT_EQ("ab", BytesIn("all.2.pcap"));
    EXPECT_EQ("abcde", BytesIn("event-9.pcap"));
}

TEST_F(CaptureFilesTest, OfASizeThatNoPacketFitsIntoHoldOneEach) {
    m_settings.newFileBytes = 1;
    Begin();
    Write('a');
    Write('b');
    EXPECT_EQ("b", BytesIn("all.pcap"));
    EXPECT_EQ("a", BytesIn("all.1.pcap"));
    EXPECT_FALSE(Exists("all.2.pcap"));
}

TEST_F(CaptureFilesTest, BeginTheFileOfAllAnewAtItsAge) {
    m_settings.newFileAge = std::chrono::hours(24);
    Begin();
    const auto now = CaptureFiles::Clock::now();
    ASSERT_TRUE(m_files->RenewAged(now + std::chrono::hours(25)));
    EXPECT_FALSE(Exists("all.1.pcap")) << "without a packet it is as good as new";
    Write('a');
    ASSERT_TRUE(m_files->RenewAged(now + std::chrono::hours(23)));
    EXPECT_FALSE(Exists("all.1.pcap"));
    ASSERT_TRUE(m_files->RenewAged(now + std::chrono::hours(25)));
    EXPECT_EQ("a", BytesIn("all.1.pcap"));
    EXPECT_EQ("", BytesIn("all.pcap"));
}

TEST_F(CaptureFilesTest, AreAllBegunAnewWhenAsked) {
    Begin();
    Write('a');
    ASSERT_TRUE(m_files->Renew());
    EXPECT_EQ("a", BytesIn("all.1.pcap"));
    Write('b');
    EXPECT_EQ("b", BytesIn("all.pcap"));
    EXPECT_EQ("b", BytesIn("event-9.pcap"));
    EXPECT_EQ("a", BytesIn("event-9.1.pcap"));
    ASSERT_TRUE(m_files->Renew());
    ASSERT_TRUE(m_files->Renew());
    EXPECT_FALSE(Exists("all.3.pcap")) << "a file without packets is begun anew already";
}

TEST_F(CaptureFilesTest, ComeBackWhenSomebodyTakesThemAway) {
    Begin();
    Write('a');
    std::filesystem::rename(m_dir.File("all.pcap"), m_dir.File("taken"));
    Write('b');
    EXPECT_EQ("a", BytesIn("taken"));
    EXPECT_EQ("b", BytesIn("all.pcap"));
    std::filesystem::rename(m_dir.File("all.pcap"), m_dir.File("taken"));
    m_dir.Write("all.pcap", "");
    Write('c');
    EXPECT_EQ("b", BytesIn("taken"));
    EXPECT_EQ("c", BytesIn("all.pcap"));
    EXPECT_FALSE(Exists("all.1.pcap"));
}

TEST_F(CaptureFilesTest, ThatAreDeletedInBetweenLeaveNoGapInTheNumbers) {
    Begin();
    for (const char byte : std::string("abc")) {
        Write(byte, 0, 1);
    }
    std::filesystem::remove(m_dir.File("event-9.2.pcap"));
    ASSERT_TRUE(m_files->LookAgain());
    Write('d', 0, 1);
    EXPECT_EQ("c", BytesIn("event-9.1.pcap"));
    EXPECT_EQ("b", BytesIn("event-9.2.pcap"));
    EXPECT_FALSE(Exists("event-9.3.pcap"));
}

// --- rights, and what goes wrong -----------------------------------------------------------------

TEST_F(CaptureFilesTest, AreForTheirGroupAlone) {
    const mode_t old = umask(0);
    m_settings.group = getgid();
    Begin();
    Write('a');
    umask(0777);
    Write('b', 0, 1);
    umask(old);
    for (const char* name : {"all.pcap", "event-9.pcap", "event-9.1.pcap"}) {
        struct stat status = {};
        ASSERT_EQ(0, stat(m_dir.File(name).c_str(), &status));
        EXPECT_EQ(0640u, status.st_mode & 07777U) << name;
        EXPECT_EQ(getgid(), status.st_gid);
    }
}

TEST_F(CaptureFilesTest, GetTheGroupThatTheyAreToHave) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "an ordinary user gives files to his own groups only";
    }
    m_settings.group = 4242;
    Begin();
    Write('a');
    for (const char* name : {"all.pcap", "event-9.pcap"}) {
        struct stat status = {};
        ASSERT_EQ(0, stat(m_dir.File(name).c_str(), &status));
        EXPECT_EQ(4242u, status.st_gid);
    }
}

TEST_F(CaptureFilesTest, HoldWholePacketsOnAFullDisk) {
    for (const CaptureFormat format : {CaptureFormat::kPcap, CaptureFormat::kPcapng}) {
        m_settings.format = format;
        Begin();
        const std::string suffix(CaptureSuffix(format));
        {
            const FullDisk disk(2000);
            EXPECT_TRUE(Put('a'));
            EXPECT_TRUE(Put('b'));
            EXPECT_FALSE(Put('c'));
            EXPECT_THAT(m_files->Error(), HasSubstr("event-9." + suffix));
        }
        EXPECT_TRUE(Put('d'));
        EXPECT_EQ("abd", BytesIn("all." + suffix));
        EXPECT_EQ("abd", BytesIn("event-9." + suffix));
    }
}

TEST_F(CaptureFilesTest, LeaveNoEmptyFileOnAFullDisk) {
    Begin();
    {
        const FullDisk disk(100);
        EXPECT_FALSE(Put('a'));
    }
    EXPECT_FALSE(Exists("event-9.pcap"));
    EXPECT_EQ("", BytesIn("all.pcap"));
}

TEST_F(CaptureFilesTest, GoOnWhenTheirFolderHasComeBack) {
    m_settings.directory = m_dir.File("captures");
    std::filesystem::create_directory(m_settings.directory);
    Begin();
    Write('a');
    std::filesystem::remove_all(m_settings.directory);
    EXPECT_FALSE(Put('b'));
    EXPECT_THAT(m_files->Error(), HasSubstr("No such file or directory"));
    std::filesystem::create_directory(m_settings.directory);
    Write('c');
    EXPECT_EQ("c", BytesIn("captures/all.pcap"));
    EXPECT_EQ("c", BytesIn("captures/event-9.pcap"));
}

TEST_F(CaptureFilesTest, AreNotWrittenThroughALink) {
    m_dir.Write("precious", "");
    std::filesystem::create_symlink(m_dir.File("precious"), m_dir.File("event-9.pcap"));
    Begin();
    EXPECT_FALSE(Put('a'));
    EXPECT_THAT(m_files->Error(), HasSubstr("is a link"));
    EXPECT_EQ("", m_dir.Read("precious"));
    EXPECT_EQ("a", BytesIn("all.pcap"));
}

TEST_F(CaptureFilesTest, InUseAreThatOfAllAndThatOfTheLastEvent) {
    Begin();
    EXPECT_EQ(1u, m_files->InUse().size());
    ASSERT_TRUE(Put('a', 0, 0, 7));
    ASSERT_TRUE(Put('b', 0, 0, 9));
    ASSERT_EQ(2u, m_files->InUse().size());
    EXPECT_EQ("all.pcap", m_files->InUse()[0].Text());
    EXPECT_EQ("event-9.pcap", m_files->InUse()[1].Text());
    EXPECT_EQ(3u, m_files->Made());
}

}  // namespace
}  // namespace tarnctl
