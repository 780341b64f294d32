#include "tarnctl/common/daemon_load.h"

#include <gtest/gtest.h>

#include <string>

#include "config/config.h"
#include "config/event_rule_table.h"
#include "logging/log.h"
#include "support/temp_dir.h"

namespace tarnctl {
namespace {

void LoadEvents(const TempDir& dir, const std::string& text) {
    Config::s_stateFile = dir.File("none");
    Config::Load(dir.Write("events", text).c_str(), Config::kEventFile);
}

TEST(DaemonLoad, BeginsWithAnEmptyTableAndAWholeCount) {
    const TempDir dir;
    for (int i = 0; i < 2; ++i) {
        const DaemonLoad load;
        EXPECT_EQ(0U, Config::s_eventTable.NodeCount());
        EXPECT_EQ(0U, Config::s_eventTable.PendingId());
        // The second block of 7 stays pending.
        LoadEvents(dir, "se.7.msg = a\nse.8.msg = b\nse.7.msg = c\n");
        EXPECT_EQ(2U, Config::s_eventTable.NodeCount());
        EXPECT_EQ(7U, Config::s_eventTable.PendingId());
    }
    EXPECT_EQ(2U, Config::s_eventTable.NodeCount());
}

TEST(DaemonLoad, KeepsTheLoaderSilentAndGivesTheLogItsLevelBack) {
    vald::Log::SetLevel(3);
    {
        const DaemonLoad load;
        EXPECT_FALSE(vald::Log::Passes(vald::Log::kError));
    }
    EXPECT_EQ(3, vald::Log::GetLevel());
    EXPECT_EQ(nullptr, Config::s_observer);
}

}  // namespace
}  // namespace tarnctl
