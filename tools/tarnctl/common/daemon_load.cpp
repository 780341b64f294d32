#include "tarnctl/common/daemon_load.h"

#include "config/config.h"
#include "config/event_rule_table.h"
#include "logging/log.h"

namespace tarnctl {

DaemonLoad::DaemonLoad(LoadObserver* observer) : m_level(vald::Log::GetLevel()) {
    // A second time would make the count 0 beside entries that are still there.
    static const bool isReady = (Config::Initialize(), true);
    (void)isReady;
    vald::Log::SetLevel(0);
    Config::s_observer = observer;
    // A pending entry cannot be dropped, but it can be entered and cleared away.
    EventRuleTable& table = Config::s_eventTable;
    table.Clear();
    (void)table.Commit();
    table.Clear();
}

DaemonLoad::~DaemonLoad() {
    Config::s_observer = nullptr;
    vald::Log::SetLevel(m_level);
}

}  // namespace tarnctl
