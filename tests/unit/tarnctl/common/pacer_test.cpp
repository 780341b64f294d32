#include "tarnctl/common/pacer.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace tarnctl {
namespace {

const Pacer::Clock::time_point kStart{100s};

TEST(Pacer, LetsTheFirstGoAtOnce) {
    Pacer pacer(10);
    EXPECT_EQ(0s, pacer.DelayBeforeNext(kStart));
}

TEST(Pacer, SpreadsTheNextOnesEvenly) {
    Pacer pacer(10);
    (void)pacer.DelayBeforeNext(kStart);
    EXPECT_EQ(100ms, pacer.DelayBeforeNext(kStart));
    EXPECT_EQ(100ms, pacer.DelayBeforeNext(kStart + 100ms));
    EXPECT_EQ(70ms, pacer.DelayBeforeNext(kStart + 230ms));
}

TEST(Pacer, MakesUpForALittleLateness) {
    Pacer pacer(1000);
    (void)pacer.DelayBeforeNext(kStart);
    EXPECT_EQ(0s, pacer.DelayBeforeNext(kStart + 10ms));
    EXPECT_EQ(0s, pacer.DelayBeforeNext(kStart + 10ms));
}

TEST(Pacer, SendsNoBurstAfterALongHold) {
    Pacer pacer(1000);
    (void)pacer.DelayBeforeNext(kStart);
    EXPECT_EQ(0s, pacer.DelayBeforeNext(kStart + 5s));
    EXPECT_EQ(1ms, pacer.DelayBeforeNext(kStart + 5s));
    EXPECT_EQ(2ms, pacer.DelayBeforeNext(kStart + 5s));
}

TEST(Pacer, CatchesUpWithNoMoreThanItsLimit) {
    Pacer pacer(1000);
    (void)pacer.DelayBeforeNext(kStart);
    const auto late = kStart + 1ms + Pacer::kCatchUp;
    int atOnce = 0;
    while (pacer.DelayBeforeNext(late) == 0s) {
        ++atOnce;
    }
    EXPECT_EQ(21, atOnce);
}

TEST(Pacer, KeepsARateThatIsNoWholeNumberOfNanoseconds) {
    Pacer pacer(3);
    for (int i = 0; i < 3000; ++i) {
        (void)pacer.DelayBeforeNext(kStart);
    }
    EXPECT_NEAR(std::chrono::duration<double>(pacer.DelayBeforeNext(kStart)).count(), 1000.0, 1e-6);
}

TEST(Pacer, NeverWaitsWithoutALimit) {
    Pacer pacer(0);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(0s, pacer.DelayBeforeNext(kStart));
    }
}

}  // namespace
}  // namespace tarnctl
