#include "tarnctl/rings/semaphore_value.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "unit/tarnctl/common/test_channel.h"

namespace tarnctl {

TEST(LookAtSemaphore, CountsThePostsAndTakesNone) {
    TestChannel channel;
    ASSERT_TRUE(channel.Send(CrmBytes(3)) && channel.Send(CrmBytes(3)));
    EXPECT_EQ(2, LookAtSemaphore(EventQueueSemaphore(channel.Name())).posts);
    EXPECT_EQ(0, LookAtSemaphore(EventQueueSemaphore(channel.Name())).error);
    EXPECT_EQ(2, channel.Posts());
}

TEST(LookAtSemaphore, MakesNoneWhereThereIsNone) {
    const TestChannel channel;
    EXPECT_EQ(ENOENT, LookAtSemaphore(channel.SemaphoreName()).error);
    EXPECT_EQ(ENOENT, LookAtSemaphore(channel.SemaphoreName()).error);
}

TEST(EventQueueSemaphore, IsTheNameThatTheDaemonUses) {
    EXPECT_EQ("/EventQueueCRM.sem", EventQueueSemaphore());
}

}  // namespace tarnctl
