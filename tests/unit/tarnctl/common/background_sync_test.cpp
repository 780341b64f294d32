#include "tarnctl/common/background_sync.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "support/temp_dir.h"

namespace tarnctl {
namespace {

void AwaitEnd(BackgroundSync& sync) {
    while (sync.IsUnderWay()) {
        const timespec pause = {.tv_sec = 0, .tv_nsec = 1000000};
        nanosleep(&pause, nullptr);
    }
}

TEST(BackgroundSyncBegin, PutsAFileOnTheDisk) {
    const TempDir dir;
    const int fd = open(dir.Write("file", "text").c_str(), O_WRONLY | O_CLOEXEC);
    BackgroundSync sync;
    EXPECT_FALSE(sync.IsUnderWay());
    ASSERT_TRUE(sync.Begin(fd));
    AwaitEnd(sync);
    EXPECT_EQ(0, sync.TakeError());
    ASSERT_TRUE(sync.Begin(fd)) << "and once more";
    AwaitEnd(sync);
    close(fd);
}

TEST(BackgroundSyncBegin, TellsOnceOfAFileThatCannotBePutThere) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    BackgroundSync sync;
    ASSERT_TRUE(sync.Begin(ends[1]));
    AwaitEnd(sync);
    EXPECT_EQ(EINVAL, sync.TakeError());
    EXPECT_EQ(0, sync.TakeError());
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
}  // namespace tarnctl
