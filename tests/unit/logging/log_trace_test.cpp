#include "logging/log_trace.h"

#include <gtest/gtest.h>

namespace {

TEST(LogTraceLevel, StartsAtInfo) {
    EXPECT_EQ(3, LogTrace().GetLevel());
}

TEST(LogTraceLevel, IsStoredAsItStands) {
    LogTrace trace;
    for (const int level : {0, 5, 6, 1000, -7}) {
        trace.SetLevel(level);
        EXPECT_EQ(trace.GetLevel(), level);
    }
}

}  // namespace
