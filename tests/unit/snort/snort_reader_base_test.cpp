#include "snort/snort_reader_base.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "unit/snort/log_questions.h"
#include "unit/snort/recorded_waits.h"

namespace {

// A reader that opens its FIFO, which the base leaves to the classes derived from it.
class OpenReader : public SnortReaderBase {
  public:
    explicit OpenReader(const std::string& path) : SnortReaderBase(path.c_str()) {}
    void Open() { m_fd = open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }
    void Adopt(int fd) { m_fd = fd; }
    [[nodiscard]] int Fd() const { return m_fd; }
    [[nodiscard]] const std::string& Path() const { return m_path; }
};

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

bool IsFifo(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

// A connection whose receiver has one urgent byte waiting, and no data.
class UrgentByte {
  public:
    UrgentByte() {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        auto* const raw = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(0, bind(listener, raw, length));
        EXPECT_EQ(0, listen(listener, 1));
        EXPECT_EQ(0, getsockname(listener, raw, &length));
        m_sender = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, connect(m_sender, raw, length));
        m_receiver = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        EXPECT_NE(-1, m_receiver);
        close(listener);
        EXPECT_EQ(1, send(m_sender, "!", 1, MSG_OOB));
    }
    ~UrgentByte() { close(m_sender); }
    UrgentByte(const UrgentByte&) = delete;
    UrgentByte& operator=(const UrgentByte&) = delete;

    [[nodiscard]] int TakeReceiver() const { return m_receiver; }  // the caller closes it

  private:
    int m_sender = -1;
    int m_receiver = -1;
};

void IgnoreAlarm(int) {}

// Interrupts the calls of this thread again and again while it lives, so that no wait can be
// missed.
class Interruptions {
  public:
    Interruptions() {
        struct sigaction action {};
        action.sa_handler = IgnoreAlarm;
        sigaction(SIGALRM, &action, &m_former);
        const itimerval often = {.it_interval = {0, 2000}, .it_value = {0, 2000}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Interruptions() {
        const itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &m_former, nullptr);
    }

  private:
    struct sigaction m_former {};
};

class SnortReaderBaseTest : public testing::Test {
  protected:
    void SetUp() override { m_former = umask(022); }
    void TearDown() override { umask(m_former); }

    // A reader on an open FIFO, and a writer at its other end.
    std::unique_ptr<OpenReader> OpenedReader() {
        auto reader = std::make_unique<OpenReader>(m_path);
        EXPECT_TRUE(reader->CreateFifo());
        reader->Open();
        m_writer = open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        EXPECT_NE(-1, m_writer);
        return reader;
    }

    QuestionedLog m_log;
    TempDir m_folder;
    std::string m_path = m_folder.File("test.fifo");
    int m_writer = -1;
    mode_t m_former = 0;
};

using SnortReaderBaseCreateFifo = SnortReaderBaseTest;
using SnortReaderBaseWaitReadable = SnortReaderBaseTest;

TEST_F(SnortReaderBaseTest, StartsClosedAndLeavesTheFileSystemAlone) {
    const OpenReader reader(m_path);
    EXPECT_EQ(-1, reader.Fd());
    EXPECT_EQ(reader.Path(), m_path);
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path()));
}

TEST_F(SnortReaderBaseTest, ClosesTheDescriptorWhenDestroyedAndKeepsTheFifo) {
    auto reader = OpenedReader();
    const int fd = reader->Fd();
    ASSERT_TRUE(IsOpen(fd));
    reader.reset();
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_TRUE(IsFifo(m_path));
    close(m_writer);
}

TEST_F(SnortReaderBaseTest, CloseLeavesTheReaderClosed) {
    auto reader = OpenedReader();
    const int fd = reader->Fd();
    reader->Close();
    EXPECT_EQ(-1, reader->Fd());
    EXPECT_FALSE(IsOpen(fd));
    close(m_writer);
}

TEST_F(SnortReaderBaseCreateFifo, MakesAFifoUnderTheUmask) {
    OpenReader reader(m_path);
    EXPECT_TRUE(reader.CreateFifo());
    EXPECT_TRUE(IsFifo(m_path));
    EXPECT_EQ(std::vector<std::string>{"Creating FIFO: " + m_path}, m_log.Lines());
}

TEST_F(SnortReaderBaseCreateFifo, LeavesTheModeToTheUmaskAlone) {
    for (const mode_t mask : {0U, 022U, 027U, 0111U, 0666U}) {
        umask(mask);
        const std::string path = m_folder.File("fifo-" + std::to_string(mask));
        EXPECT_TRUE(OpenReader(path).CreateFifo());
        struct stat status {};
        ASSERT_EQ(0, stat(path.c_str(), &status));
        EXPECT_EQ(0666U & ~mask, status.st_mode & 07777);
    }
}

TEST_F(SnortReaderBaseCreateFifo, AcceptsAFifoOfAnEarlierRunAsItStands) {
    ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600));
    const int both = open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(4, write(both, "left", 4));

    OpenReader reader(m_path);
    EXPECT_TRUE(reader.CreateFifo());

    const std::vector<std::string> lines = {"Creating FIFO: " + m_path,
                                            "FIFO: " + m_path + " is already existed"};
    EXPECT_EQ(m_log.Lines(), lines);
    struct stat status {};
    ASSERT_EQ(0, stat(m_path.c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777);
    char data[5] = {};
    EXPECT_EQ(4, read(both, data, 4));
    EXPECT_STREQ("left", data);
    close(both);
}

TEST_F(SnortReaderBaseCreateFifo, AcceptsASymbolicLinkToAFifo) {
    const std::string target = m_folder.File("target.fifo");
    ASSERT_EQ(0, mkfifo(target.c_str(), 0600));
    ASSERT_EQ(0, symlink(target.c_str(), m_path.c_str()));
    EXPECT_TRUE(OpenReader(m_path).CreateFifo());
    EXPECT_EQ(1, m_log.Count("FIFO: " + m_path + " is already existed"));
}

TEST_F(SnortReaderBaseCreateFifo, RefusesAPlainFileAndLeavesItAlone) {
    m_folder.Write("test.fifo", "records");
    OpenReader reader(m_path);
    EXPECT_FALSE(reader.CreateFifo());
    const std::vector<std::string> lines = {
        "Creating FIFO: " + m_path,
        "Fatal error: " + m_path +
            " is already created by SNORT, reader won't work. Please remove it manually"};
    EXPECT_EQ(m_log.Lines(), lines);
    EXPECT_EQ(7U, std::filesystem::file_size(m_path));
}

TEST_F(SnortReaderBaseCreateFifo, RefusesADirectory) {
    ASSERT_EQ(0, mkdir(m_path.c_str(), 0700));
    OpenReader reader(m_path);
    EXPECT_FALSE(reader.CreateFifo());
    EXPECT_EQ(
        1, m_log.CountAt(1, "Fatal error: " + m_path +
                                " is already created by SNORT, reader won't work. Please remove it "
                                "manually"));
    EXPECT_TRUE(std::filesystem::is_directory(m_path));
}

TEST_F(SnortReaderBaseCreateFifo, FailsWithoutAParentDirectory) {
    const std::string path = m_folder.File("missing/test.fifo");
    OpenReader reader(path);
    EXPECT_FALSE(reader.CreateFifo());
    EXPECT_EQ(
        1, m_log.CountAt(1, "Cannot create FIFO: " + path + ", reason: No such file or directory"));
    EXPECT_FALSE(std::filesystem::exists(m_folder.File("missing")));
}

TEST_F(SnortReaderBaseCreateFifo, TriesToMakeTheFifoForWhateverReasonStatFails) {
    m_folder.Write("plain", "x");
    const std::string path = m_folder.File("plain/test.fifo");
    OpenReader reader(path);
    EXPECT_FALSE(reader.CreateFifo());
    EXPECT_EQ(1, m_log.CountAt(1, "Cannot create FIFO: " + path + ", reason: Not a directory"));
}

TEST_F(SnortReaderBaseWaitReadable, ReturnsZeroOnTimeoutAndStaysOpen) {
    auto reader = OpenedReader();
    const int fd = reader->Fd();
    EXPECT_EQ(0, reader->WaitReadable(0));
    EXPECT_EQ(reader->Fd(), fd);
    EXPECT_TRUE(IsOpen(fd));
    close(m_writer);
}

TEST_F(SnortReaderBaseWaitReadable, ReturnsAPositiveNumberWhenDataIsThere) {
    auto reader = OpenedReader();
    ASSERT_EQ(1, write(m_writer, "x", 1));
    EXPECT_GT(reader->WaitReadable(10), 0);
    EXPECT_NE(-1, reader->Fd());
    close(m_writer);
}

TEST_F(SnortReaderBaseWaitReadable, WaitsForAsManySecondsAsItIsTold) {
    auto reader = OpenedReader();
    const RecordedWaits waits;
    EXPECT_EQ(0, reader->WaitReadable(0));
    EXPECT_EQ(0, reader->WaitReadable(1));
    EXPECT_EQ((std::vector<long>{0, 1000}), RecordedWaits::Selects());
    close(m_writer);
}

TEST_F(SnortReaderBaseWaitReadable, ReturnsAPositiveNumberAtAnExceptionalCondition) {
    OpenReader reader(m_path);
    const UrgentByte urgent;  // which cannot be read as data
    reader.Adopt(urgent.TakeReceiver());
    EXPECT_GT(reader.WaitReadable(10), 0);
    EXPECT_NE(-1, reader.Fd());
}

TEST_F(SnortReaderBaseWaitReadable, ReturnsAPositiveNumberWhenTheWriterIsGone) {
    auto reader = OpenedReader();
    close(m_writer);
    EXPECT_GT(reader->WaitReadable(10), 0);
    EXPECT_NE(-1, reader->Fd());
}

TEST_F(SnortReaderBaseWaitReadable, KeepsClosingTheFifoWhenASignalInterrupts) {
    auto reader = OpenedReader();
    const int fd = reader->Fd();
    {
        const Interruptions interruptions;
        EXPECT_EQ(-1, reader->WaitReadable(60));
    }
    EXPECT_EQ(-1, reader->Fd());
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(1, m_log.Count("Select interrupted by signal, reason: Interrupted system call"));
    close(m_writer);
}

TEST_F(SnortReaderBaseTest, SaysNothingOfTheUsualBelowTheDebugLevel) {
    vald::Log::SetLevel(vald::Log::kNotice);
    auto reader = OpenedReader();
    EXPECT_TRUE(reader->CreateFifo());
    {
        const Interruptions interruptions;
        EXPECT_EQ(-1, reader->WaitReadable(60));
    }
    EXPECT_TRUE(m_log.Lines().empty());
    close(m_writer);
}

TEST_F(SnortReaderBaseWaitReadable, LogsAnyOtherFailureAndCloses) {
    auto reader = OpenedReader();
    const int fd = reader->Fd();
    EXPECT_EQ(-1, reader->WaitReadable(-1));
    EXPECT_EQ(-1, reader->Fd());
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(1, m_log.CountAt(1, "Select FDs error, reason: Invalid argument"));
    close(m_writer);
}

TEST_F(SnortReaderBaseWaitReadable, RefusesADescriptorThatSelectHasNoRoomFor) {
    rlimit former{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &former));
    if (former.rlim_max <= FD_SETSIZE) {
        GTEST_SKIP() << "no descriptor of this process can be that high";
    }
    rlimit wide = former;
    wide.rlim_cur = FD_SETSIZE + 1;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &wide));
    auto reader = OpenedReader();
    const int high = fcntl(reader->Fd(), F_DUPFD_CLOEXEC, FD_SETSIZE);
    ASSERT_GE(high, FD_SETSIZE);
    reader->Close();
    reader->Adopt(high);

    EXPECT_EQ(-1, reader->WaitReadable(60));
    EXPECT_EQ(-1, reader->Fd());
    EXPECT_FALSE(IsOpen(high));
    EXPECT_EQ(1, m_log.CountAt(1, "Select FDs error, reason: Bad file descriptor"));
    setrlimit(RLIMIT_NOFILE, &former);
    close(m_writer);
}

struct WaitingThread {
    OpenReader* reader;
    std::atomic<bool> isWaiting{false};
};

void* WaitForGood(void* argument) {
    auto* waiting = static_cast<WaitingThread*>(argument);
    const std::unique_ptr<OpenReader> reader(waiting->reader);
    waiting->isWaiting = true;
    (void)reader->WaitReadable(60);  // The cancel ends it, not a result.
    return nullptr;
}

TEST_F(SnortReaderBaseWaitReadable, ReleasesTheDescriptorWhenItsThreadIsCancelled) {
    auto reader = OpenedReader();
    const int fd = reader->Fd();
    WaitingThread waiting{.reader = reader.release()};
    pthread_t thread{};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, WaitForGood, &waiting));
    while (!waiting.isWaiting) {
        sched_yield();
    }
    ASSERT_EQ(0, pthread_cancel(thread));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EXPECT_FALSE(IsOpen(fd));
    close(m_writer);
}

}  // namespace
