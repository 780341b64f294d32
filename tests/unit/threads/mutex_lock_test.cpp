#include "threads/mutex_lock.h"

#include <gtest/gtest.h>

namespace {

bool IsFree(pthread_mutex_t& mutex) {
    if (pthread_mutex_trylock(&mutex) != 0) {
        return false;
    }
    pthread_mutex_unlock(&mutex);
    return true;
}

TEST(MutexLock, HoldsTheMutexForItsLife) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    {
        const MutexLock lock(mutex);
        EXPECT_TRUE(lock.Owns());
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexLock, LeavesAMutexToItsOwnThreadsFirstHolder) {
    pthread_mutex_t mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    const MutexLock first(mutex);
    {
        const MutexLock second(mutex);
        EXPECT_TRUE(first.Owns());
        EXPECT_FALSE(second.Owns());
    }
    EXPECT_FALSE(IsFree(mutex));
}

}  // namespace
