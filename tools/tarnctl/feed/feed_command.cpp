#include "tarnctl/feed/feed_command.h"

#include "tarnctl/common/config_file_options.h"
#include "tarnctl/common/number_checks.h"
#include "tarnctl/feed/feeder.h"

namespace tarnctl {
namespace {

// What the daemon holds between its two threads.
constexpr uint32_t kLargestWindow = 1024;

constexpr const char* kExamples =
    R"(The sensor writes spool files PREFIX or PREFIX.SECONDS; the feeder follows them and feeds
tarn at the pace of its reports. What has no entry goes to the rejects file. Run it as root
or as the user that tarn runs as.

Examples:
  tarnctl feed /var/log/snort/unified2.log --bookmark /var/lib/tarn/feed
  tarnctl feed /var/log/snort/unified2.log --bookmark /var/lib/tarn/feed --once --json
  tarnctl feed /var/log/snort/unified2.log --bookmark /var/lib/tarn/feed --refeed
  tarnctl reload --feeder /var/lib/tarn/feed    load new entries without losing an alert)";

}  // namespace

CLI::App* AddFeedCommand(CLI::App& app, FeedOptions& options) {
    CLI::App* command =
        app.add_subcommand("feed", "Follow the sensor's spool files and feed tarn from them");
    command->add_option("PREFIX", options.spool, "Folder and prefix of the spool files")
        ->required();
    command->add_option("--bookmark", options.bookmark, "How far it has come; made when missing")
        ->type_name("FILE")
        ->required();
    command->add_option("--window", options.window, "Most alerts fed and not yet reported")
        ->type_name("N")
        ->check(WholeNumber(1, kLargestWindow))
        ->capture_default_str();
    command->add_option("--rate", options.rate, "At most N alerts a second; 0 is no limit")
        ->type_name("N")
        ->check(ZeroOrMore())
        ->capture_default_str();
    CLI::Option* const once =
        command->add_flag("--once", options.once, "End when all that is there has its report");
    command->add_flag("--follow", options.follow, "Go on with what comes (the default)")
        ->excludes(once);
    command->add_option("--rejects", options.rejects, "Spool file of what may not go to tarn")
        ->type_name("FILE");
    command->add_flag("--refeed", options.refeed, "Feed what was rejected before, first of all");
    command->add_option("--control", options.control, "Control socket; default: BOOKMARK.sock")
        ->type_name("PATH");
    command->add_option("--prometheus", options.prometheus, "Write the counters to this text file")
        ->type_name("FILE");
    command->add_option("--fifo", options.fifo, "The alert FIFO")
        ->type_name("PATH")
        ->capture_default_str();
    AddConfigFileOptions(*command, options.configFile, options.eventFile, options.stateFile);
    command->add_flag("--json", options.json, "The closing line as a JSON object");
    command->footer(kExamples);
    return command;
}

int RunFeed(const FeedOptions& options, std::ostream& out, std::ostream& err) {
    return Feeder(options, out, err).Run();
}

}  // namespace tarnctl
