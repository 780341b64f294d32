#include "tarnctl/status/status_command.h"

#include <chrono>
#include <ostream>
#include <thread>

#include "tarnctl/common/number_checks.h"
#include "tarnctl/health/health.h"
#include "tarnctl/health/health_options.h"
#include "tarnctl/health/verdict.h"
#include "tarnctl/status/status_json.h"
#include "tarnctl/status/status_metrics.h"
#include "tarnctl/status/status_text.h"

namespace tarnctl {
namespace {

constexpr int kExitHealthy = 0;
constexpr int kExitUnhealthy = 1;
constexpr int kExitUnknown = 2;

constexpr const char* kExamples =
    R"(Nothing is touched: no FIFO is opened by its name, no report, post or message is taken. What this
user may not see is unknown, with the reason.
Exit status: 0 healthy, 1 not healthy, 2 it cannot be said. Warnings count with --strict.

Examples:
  tarnctl status                       all, with each fault at the top
  tarnctl status --without packetlog   on a sensor that keeps no packets
  tarnctl status --json | jq .faults   one JSON object
  tarnctl status --prometheus          for a collector of text files)";

int ExitStatusOf(HealthState state) {
    switch (state) {
        case HealthState::kHealthy:
            return kExitHealthy;
        case HealthState::kUnhealthy:
            return kExitUnhealthy;
        case HealthState::kUnknown:
            break;
    }
    return kExitUnknown;
}

}  // namespace

CLI::App* AddStatusCommand(CLI::App& app, StatusOptions& options) {
    CLI::App* const command =
        app.add_subcommand("status", "Say how tarn and all around it are, once");
    CLI::Option* const json = command->add_flag("--json", options.json, "One JSON object");
    command->add_flag("--prometheus", options.prometheus, "Metrics in Prometheus' text format")
        ->excludes(json);
    command->add_flag("--strict", options.strict, "Warnings count as faults");
    AddWithoutOption(*command, options.without);
    command->add_option("--recent", options.recent, "How long a loss in the log counts, in seconds")
        ->type_name("S")
        ->check(ZeroOrMore())
        ->capture_default_str();
    command->add_option("--look", options.look, "Seconds between the two looks at the rings")
        ->type_name("S")
        ->check(ZeroOrMore())
        ->capture_default_str();
    AddPlaceOptions(*command, options.channel, options.logFile);
    AddWideOption(*command, options);
    command->footer(kExamples);
    return command;
}

int RunStatus(const StatusOptions& options, std::ostream& out, std::ostream& /*err*/) {
    HealthPlaces places = DaemonHealthPlaces();
    places.channel = options.channel;
    places.logFile = options.logFile;
    HealthCollector collector(std::move(places), options.recent);
    const Health before = collector.Look();
    std::this_thread::sleep_for(std::chrono::duration<double>(options.look));
    const Health now = collector.Look();
    const Verdict verdict = Judge(before, now, options.without, options.strict);
    if (options.json) {
        WriteStatusJson(now, verdict, out);
    } else if (options.prometheus) {
        WriteStatusMetrics(now, verdict, out);
    } else {
        WriteStatusText(now, verdict, options, out);
    }
    return ExitStatusOf(verdict.State());
}

}  // namespace tarnctl
