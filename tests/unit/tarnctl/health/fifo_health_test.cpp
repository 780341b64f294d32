#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>

#include "tarnctl/health/parts.h"
#include "unit/tarnctl/health/made_up_machine.h"

namespace tarnctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// This process stands in for the daemon, so that there is a descriptor to borrow.
class FifoHealthTest : public testing::Test {
  protected:
    FifoHealthTest() { machine.AddProcess(getpid(), "tarn"); }
    ~FifoHealthTest() override {
        for (const int fd : {m_reader, m_writer}) {
            if (fd != -1) {
                close(fd);
            }
        }
    }

    void Make() { ASSERT_EQ(0, mkfifo(machine.places.alertFifo.c_str(), 0600)); }
    void OpenForReading() {
        m_reader = open(machine.places.alertFifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_NE(-1, m_reader);
        machine.AddDescriptor(getpid(), m_reader, machine.places.alertFifo, O_RDONLY | O_NONBLOCK);
    }
    void Put(const std::string& bytes) {
        m_writer = open(machine.places.alertFifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(m_writer, bytes.data(), bytes.size()));
    }
    FifoHealth Look() {
        return LookAtFifo(machine.places.alertFifo, ProcessTable(machine.places.proc), getpid());
    }

    MadeUpMachine machine;
    int m_reader = -1;
    int m_writer = -1;
};

TEST_F(FifoHealthTest, KnowsThatThereIsNone) {
    EXPECT_TRUE(Look().isThere.Is(false));
    EXPECT_THAT(Look().readers.reason, HasSubstr("No such file"));
    machine.dir.Write("fifo/alerts.fifo", "a plain file");
    EXPECT_TRUE(Look().isThere.Is(false));
    EXPECT_THAT(Look().readers.reason, HasSubstr("is no FIFO"));
    machine.places.alertFifo += "/below";
    EXPECT_TRUE(Look().isThere.Is(false));
    EXPECT_THAT(Look().readers.reason, HasSubstr("Not a directory"));
}

TEST_F(FifoHealthTest, TellsHowFullItIsByTheDaemonsDescriptor) {
    Make();
    OpenForReading();
    Put(std::string(1500, 'x'));
    const FifoHealth health = Look();
    EXPECT_TRUE(health.isThere.Is(true));
    EXPECT_TRUE(health.unreadBytes.Is(1500)) << health.unreadBytes.reason;
    EXPECT_TRUE(health.capacityBytes.Is(static_cast<uint64_t>(fcntl(m_reader, F_GETPIPE_SZ))));
    ASSERT_TRUE(health.readers.IsKnown());
    EXPECT_THAT(*health.readers.value, ElementsAre(Holder{getpid(), m_reader, "tarn"}));
    EXPECT_TRUE(health.writers.IsKnown());
    EXPECT_TRUE(health.writers.value->empty());
    int unread = 0;
    ASSERT_EQ(0, ioctl(m_reader, FIONREAD, &unread));
    EXPECT_EQ(1500, unread);
}

TEST_F(FifoHealthTest, LeavesNoDescriptorOpen) {
    Make();
    OpenForReading();
    const int before = dup(m_reader);
    close(before);
    (void)Look();
    const int after = dup(m_reader);
    close(after);
    EXPECT_EQ(before, after);
}

TEST_F(FifoHealthTest, DoesNotKnowTheFillWithoutTheDaemonsDescriptor) {
    Make();
    const FifoHealth health = Look();
    EXPECT_TRUE(health.readers.IsKnown());
    EXPECT_FALSE(health.unreadBytes.IsKnown());
    EXPECT_EQ("the daemon does not have it open", health.unreadBytes.reason);
}

TEST_F(FifoHealthTest, DoesNotTakeAnotherDescriptorForTheFifo) {
    Make();
    ASSERT_EQ(0, mkfifo(machine.places.errorFifo.c_str(), 0600));
    m_writer = open(machine.places.errorFifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    machine.AddDescriptor(getpid(), m_writer, machine.places.alertFifo, O_RDONLY);
    const FifoHealth health = Look();
    EXPECT_EQ("the daemon is opening the FIFO again", health.unreadBytes.reason);
}

TEST_F(FifoHealthTest, SaysWhyADescriptorCannotBeBorrowed) {
    Make();
    constexpr int kNobody = 999;
    machine.AddDescriptor(getpid(), kNobody, machine.places.alertFifo, O_RDONLY);
    EXPECT_EQ("the daemon's descriptor cannot be borrowed: Bad file descriptor",
              Look().unreadBytes.reason);
}

TEST_F(FifoHealthTest, DoesNotTakeTheFillFromAnotherReader) {
    Make();
    machine.AddProcess(1, "cat");
    machine.AddDescriptor(1, 0, machine.places.alertFifo, O_RDONLY);
    EXPECT_EQ("the daemon does not have it open", Look().unreadBytes.reason);
}

TEST_F(FifoHealthTest, TellsWritersFromReaders) {
    Make();
    machine.AddProcess(7, "snort");
    machine.AddDescriptor(7, 4, machine.places.alertFifo, O_WRONLY);
    EXPECT_TRUE(Look().readers.value->empty());
    EXPECT_THAT(*Look().writers.value, ElementsAre(Holder{7, 4, "snort"}));
}

TEST_F(FifoHealthTest, SaysThatItsReadersMayBeHidden) {
    Make();
    const AnotherUser user(machine);
    if (!user.IsThere()) {
        GTEST_SKIP() << "needs the superuser and another user";
    }
    machine.AddProcess(7, "snort");
    machine.AddDescriptor(7, 4, machine.places.alertFifo, O_WRONLY);
    machine.AddProcess(8, "hidden");
    machine.HideDescriptors(8);
    const FifoHealth health = user.Does([this] { return Look(); });
    EXPECT_FALSE(health.readers.IsKnown());
    EXPECT_EQ(HoldersHidden(), health.readers.reason);
    EXPECT_EQ(HoldersHidden(), health.unreadBytes.reason);
    EXPECT_THAT(*health.writers.value, ElementsAre(Holder{7, 4, "snort"}));
}

}  // namespace
}  // namespace tarnctl
