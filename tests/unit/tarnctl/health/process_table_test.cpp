#include "tarnctl/health/process_table.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include "unit/tarnctl/health/made_up_machine.h"

namespace tarnctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t kKernelThread = 0x00200000;

struct stat StatusOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(0, stat(path.c_str(), &status));
    return status;
}

class ProcessTableTest : public testing::Test {
  protected:
    ProcessTable Look() const { return ProcessTable(machine.places.proc); }

    MadeUpMachine machine;
};

TEST(ParseProcessStatus, ReadsNameStateAndTimes) {
    ProcessStatus status;
    ASSERT_TRUE(ParseProcessStatus(
        "12 (a) (b) c) D 1 1 1 0 -1 4194304 75 0 0 0 30 12 0 0 20 0 1 0 1310035 3133440 394",
        status));
    EXPECT_EQ("a) (b) c", status.name);
    EXPECT_EQ('D', status.state);
    EXPECT_EQ(4194304U, status.flags);
    EXPECT_EQ(42U, status.cpuTicks);
    EXPECT_EQ(1310035U, status.startTicks);
}

TEST(ParseProcessStatus, RefusesWhatIsNoSuchLine) {
    ProcessStatus status;
    for (const char* line : {"", "12", "12 (tarn", "12 tarn) S", "12 (tarn)", "12 (tarn) S 1 2",
                             "12 )tarn( S 1 1 1 0 -1 0 0 0 0 0 0 7 0 0 20 0 3 0 500"}) {
        EXPECT_FALSE(ParseProcessStatus(line, status)) << line;
    }
}

TEST_F(ProcessTableTest, KnowsThatThereIsNothingToLookAt) {
    EXPECT_FALSE(ProcessTable(machine.dir.File("none")).IsThere());
    EXPECT_FALSE(Look().IsThere());
    machine.AddProcess(7, "tarn");
    EXPECT_TRUE(Look().IsThere());
}

TEST_F(ProcessTableTest, LeavesOutThreadsOfTheKernelAndWhatHasEnded) {
    machine.AddProcess(7, "tarn");
    machine.AddProcess(8, "kworker", 'I', kKernelThread);
    machine.AddProcess(9, "tarn", 'Z');
    std::filesystem::create_directory(machine.dir.File("proc/10"));
    std::filesystem::create_directory(machine.dir.File("proc/sys"));
    std::filesystem::create_directory(machine.dir.File("proc/7x"));
    const ProcessTable table = Look();
    ASSERT_EQ(1U, table.Processes().size());
    EXPECT_EQ(7, table.Processes().front().number);
    EXPECT_EQ(nullptr, table.Find(8));
    EXPECT_TRUE(table.IsComplete());
}

TEST_F(ProcessTableTest, TellsReadersFromWriters) {
    const std::string path = machine.places.alertFifo;
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    machine.AddProcess(7, "tarn");
    machine.AddProcess(8, "snort");
    machine.AddProcess(9, "both");
    machine.AddDescriptor(7, 3, path, O_RDONLY | O_NONBLOCK);
    machine.AddDescriptor(8, 4, path, O_WRONLY);
    machine.AddDescriptor(9, 5, path, O_RDWR);
    machine.AddDescriptor(9, 6, machine.dir.File("gone"), O_RDWR);
    const ProcessTable table = Look();
    const struct stat status = StatusOf(path);
    using Access = ProcessTable::Access;
    EXPECT_THAT(table.HoldersOf(status, Access::kRead),
                ElementsAre(Holder{7, 3, "tarn"}, Holder{9, 5, "both"}));
    EXPECT_THAT(table.HoldersOf(status, Access::kWrite),
                ElementsAre(Holder{8, 4, "snort"}, Holder{9, 5, "both"}));
    EXPECT_EQ(3U, table.HoldersOf(status, Access::kAny).size());
}

TEST_F(ProcessTableTest, DoesNotTakeAnotherFileForThisOne) {
    ASSERT_EQ(0, mkfifo(machine.dir.File("fifo/a").c_str(), 0600));
    ASSERT_EQ(0, mkfifo(machine.dir.File("fifo/b").c_str(), 0600));
    machine.AddProcess(7, "tarn");
    machine.AddDescriptor(7, 3, machine.dir.File("fifo/a"), O_RDONLY);
    EXPECT_THAT(Look().HoldersOf(StatusOf(machine.dir.File("fifo/b")), ProcessTable::Access::kAny),
                IsEmpty());
    struct stat elsewhere = StatusOf(machine.dir.File("fifo/a"));
    EXPECT_EQ(1U, Look().HoldersOf(elsewhere, ProcessTable::Access::kAny).size());
    ++elsewhere.st_dev;
    EXPECT_THAT(Look().HoldersOf(elsewhere, ProcessTable::Access::kAny), IsEmpty());
    EXPECT_THAT(Look().HoldersOfSocket(elsewhere.st_ino), IsEmpty()) << "this is no socket";
}

TEST_F(ProcessTableTest, MissesNothingOfAProcessThatHasJustEnded) {
    machine.AddProcess(7, "tarn");
    std::filesystem::remove(machine.dir.File("proc/7/fd"));
    EXPECT_TRUE(Look().IsComplete());
}

TEST_F(ProcessTableTest, FindsWhoHasAFileMappedForWriting) {
    const std::string path = machine.dir.Write("tmp/EventQueueCRM2-0", "ring");
    const struct stat status = StatusOf(path);
    const std::string inode = std::to_string(status.st_ino);
    machine.AddProcess(7, "writes");
    machine.AddProcess(8, "looks");
    machine.AddProcess(9, "other");
    machine.dir.Write("proc/7/maps",
                      "1000-2000 r-xp 00000000 fe:00 1 /bin/a\n2000-3000 rw-s "
                      "00000000 fe:00 " +
                          inode + " /var/tmp/EventQueueCRM2-0\n");
    machine.dir.Write("proc/8/maps",
                      "2000-3000 r--s 00000000 fe:00 " + inode + " /var/tmp/EventQueueCRM2-0\n");
    machine.dir.Write("proc/9/maps",
                      "2000-3000 rw-s 00000000 fe:00 " + inode + " /usr/lib/libother.so\n");
    machine.AddProcess(10, "elsewhere");
    machine.dir.Write("proc/10/maps", "2000-3000 rw-s 00000000 fe:00 " +
                                          std::to_string(status.st_ino + 1) +
                                          " /srv/EventQueueCRM2-0\n");
    EXPECT_THAT(Look().MappersOf(status, "EventQueueCRM2-0"), ElementsAre(Holder{7, -1, "writes"}));
}

TEST_F(ProcessTableTest, KnowsThatDescriptorsAreHidden) {
    const AnotherUser user(machine);
    if (!user.IsThere()) {
        GTEST_SKIP() << "needs the superuser and another user";
    }
    machine.AddProcess(7, "tarn");
    machine.HideDescriptors(7);
    const ProcessTable table = user.Does([this] { return Look(); });
    EXPECT_FALSE(table.IsComplete());
    ASSERT_NE(nullptr, table.Find(7));
    EXPECT_FALSE(table.Find(7)->isReadable);
}

}  // namespace
}  // namespace tarnctl
