#include "tarnctl/sub_commands.h"

#include "tarnctl/check/check_command.h"
#include "tarnctl/crm/crm_command.h"
#include "tarnctl/explain/explain_command.h"
#include "tarnctl/feed/feed_command.h"
#include "tarnctl/import/import_command.h"
#include "tarnctl/messages/messages_command.h"
#include "tarnctl/packetlog/packetlog_command.h"
#include "tarnctl/quarantine_control/quarantine_command.h"
#include "tarnctl/reload/reload_command.h"
#include "tarnctl/replay/replay_command.h"
#include "tarnctl/ring/ring_command.h"
#include "tarnctl/secmgr/secmgr_command.h"
#include "tarnctl/selftest/selftest_command.h"
#include "tarnctl/show/show_command.h"
#include "tarnctl/status/status_command.h"
#ifdef TARNCTL_WITH_NCURSES
#include "tarnctl/top/top_command.h"
#endif

namespace tarnctl {
namespace {

// A new sub-command is one line here.
constexpr std::unique_ptr<SubCommand> (*kMakers[])() = {
    MakeSubCommand<AddCheckCommand, RunCheck>,
    MakeSubCommand<AddCrmCommand, RunCrm>,
    MakeSubCommand<AddExplainCommand, RunExplain>,
    MakeSubCommand<AddFeedCommand, RunFeed>,
    MakeSubCommand<AddImportCommand, RunImport>,
    MakeSubCommand<AddMessagesCommand, RunMessages>,
    MakeSubCommand<AddPacketLogCommand, RunPacketLog>,
    MakeSubCommand<AddQuarantineCommand, RunQuarantine>,
    MakeSubCommand<AddReloadCommand, RunReload>,
    MakeSubCommand<AddReplayCommand, RunReplay>,
    MakeSubCommand<AddRingCommand, RunRing>,
    MakeSubCommand<AddSecmgrCommand, RunSecmgr>,
    MakeSubCommand<AddSelftestCommand, RunSelftest>,
    MakeSubCommand<AddShowCommand, RunShow>,
    MakeSubCommand<AddStatusCommand, RunStatus>,
#ifdef TARNCTL_WITH_NCURSES
    MakeSubCommand<AddTopCommand, RunTop>,
#endif
};

}  // namespace

std::vector<std::unique_ptr<SubCommand>> MakeSubCommands() {
    std::vector<std::unique_ptr<SubCommand>> commands;
    for (const auto make : kMakers) {
        commands.push_back(make());
    }
    return commands;
}

}  // namespace tarnctl
