#include "threads/cancellation.h"

#include <gtest/gtest.h>

namespace {

int CancelState() {
    int state = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    pthread_setcancelstate(state, nullptr);
    return state;
}

TEST(Cancellation, IsOffWhileItsGuardLives) {
    ASSERT_EQ(PTHREAD_CANCEL_ENABLE, CancelState());
    {
        const CancellationOff off;
        EXPECT_EQ(PTHREAD_CANCEL_DISABLE, CancelState());
    }
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, CancelState());
}

TEST(Cancellation, HasWindowsThatPutBackWhatTheyFound) {
    const CancellationOff off;
    {
        const CancellationOn window;
        EXPECT_EQ(PTHREAD_CANCEL_ENABLE, CancelState());
        {
            const CancellationOff inner;
            EXPECT_EQ(PTHREAD_CANCEL_DISABLE, CancelState());
        }
        EXPECT_EQ(PTHREAD_CANCEL_ENABLE, CancelState());
    }
    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, CancelState());
}

}  // namespace
