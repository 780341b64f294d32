#include "tarnctl/command_line.h"

#include <unistd.h>

#include <CLI/CLI.hpp>

#include "tarnctl/common/exit_status.h"
#include "tarnctl/crm/crm_command.h"
#include "tarnctl/messages/messages_command.h"
#ifdef TARNCTL_WITH_PCAP
#include "tarnctl/packetlog/packetlog_command.h"
#endif
#include "tarnctl/common/stop_signals.h"
#include "tarnctl/replay/replay_command.h"
#include "tarnctl/secmgr/secmgr_command.h"
#include "version.h"

namespace tarnctl {

int RunCommandLine(int argc, char** argv, std::ostream& out, std::ostream& err) {
    CLI::App app("The companion command of tarn: watches and feeds a running daemon.", "tarnctl");
    app.set_version_flag("--version", "tarnctl " TARN_VERSION);
    app.require_subcommand(1);
    app.footer(R"(Exit status: 0 fine, 1 the work could not be done, 2 the command line is wrong.

Examples:
  tarnctl crm --timeout 10 &
  tarnctl replay samples/sensor-302-alerts.u2
  tarnctl replay --help)");

    CrmOptions crm;
    MessagesOptions messages;
    ReplayOptions replay;
    SecmgrOptions secmgr;
    replay.isTerminal = isatty(STDERR_FILENO) == 1;
    const CLI::App* const crmCommand = AddCrmCommand(app, crm);
    const CLI::App* const messagesCommand = AddMessagesCommand(app, messages);
#ifdef TARNCTL_WITH_PCAP
    PacketLogOptions packetLog;
    const CLI::App* const packetLogCommand = AddPacketLogCommand(app, packetLog);
#endif
    const CLI::App* const replayCommand = AddReplayCommand(app, replay);
    const CLI::App* const secmgrCommand = AddSecmgrCommand(app, secmgr);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& fault) {
        return app.exit(fault, out, err) == 0 ? kExitFine : kExitUsage;
    }

    CatchStopSignals();
    if (crmCommand->parsed()) {
        return RunCrm(crm, out, err);
    }
    if (messagesCommand->parsed()) {
        return RunMessages(messages, out, err);
    }
#ifdef TARNCTL_WITH_PCAP
    if (packetLogCommand->parsed()) {
        return RunPacketLog(packetLog, out, err);
    }
#endif
    if (replayCommand->parsed()) {
        return RunReplay(replay, out, err);
    }
    if (secmgrCommand->parsed()) {
        return RunSecmgr(secmgr, out, err);
    }
    return kExitUsage;
}

}  // namespace tarnctl
