#include "tarnctl/common/pacer.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace tarnctl {
namespace {

const Pacer::Clock::time_point kStart{100s};

TEST(Pacer, LetsTheFirstGoAtOnce) {
    Pacer pacer(10);
    EXPECT_EQ(pacer.DelayBeforeNext(kStart), 0s);
}

TEST(Pacer, SpreadsTheNextOnesEvenly) {
    Pacer pacer(10);
    (void)pacer.DelayBeforeNext(kStart);
    EXPECT_EQ(pacer.DelayBeforeNext(kStart), 100ms);
    EXPECT_EQ(pacer.DelayBeforeNext(kStart + 100ms), 100ms);
    EXPECT_EQ(pacer.DelayBeforeNext(kStart + 230ms), 70ms);
}

TEST(Pacer, MakesUpForALittleLateness) {
    Pacer pacer(1000);
    (void)pacer.DelayBeforeNext(kStart);
    EXPECT_EQ(pacer.DelayBeforeNext(kStart + 10ms), 0s);
    EXPECT_EQ(pacer.DelayBeforeNext(kStart + 10ms), 0s);
}

TEST(Pacer, SendsNoBurstAfterALongHold) {
    Pacer pacer(1000);
    (void)pacer.DelayBeforeNext(kStart);
    EXPECT_EQ(pacer.DelayBeforeNext(kStart + 5s), 0s);
    EXPECT_EQ(pacer.DelayBeforeNext(kStart + 5s), 1ms);
    EXPECT_EQ(pacer.DelayBeforeNext(kStart + 5s), 2ms);
}

TEST(Pacer, CatchesUpWithNoMoreThanItsLimit) {
    Pacer pacer(1000);
    (void)pacer.DelayBeforeNext(kStart);
    const auto late = kStart + 1ms + Pacer::kCatchUp;
    int atOnce = 0;
    while (pacer.DelayBeforeNext(late) == 0s) {
        ++atOnce;
    }
    EXPECT_EQ(atOnce, 21);
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
        ASSERT_EQ(pacer.DelayBeforeNext(kStart), 0s);
    }
}

}  // namespace
}  // namespace tarnctl
