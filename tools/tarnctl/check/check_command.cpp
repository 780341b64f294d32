#include "tarnctl/check/check_command.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <ostream>
#include <utility>

#include "config/config.h"
#include "tarnctl/check/check_report.h"
#include "tarnctl/check/check_rules.h"
#include "tarnctl/check/load_watch.h"
#include "tarnctl/check/places.h"
#include "tarnctl/check/protect.h"
#include "tarnctl/common/config_file_options.h"
#include "tarnctl/common/daemon_load.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/standard_input.h"

namespace tarnctl {
namespace {

constexpr int kExitClean = 0;
constexpr int kExitFindings = 1;
constexpr int kExitUnchecked = 2;

constexpr const char* kExamples =
    R"(Exit status: 0 clean, 1 findings, 2 something could not be checked. Warnings count with --strict.

Examples:
  tarnctl check                                  the files of this machine
  tarnctl check -c a.conf -n b.conf --no-places  two files alone
  tarnctl check --protect 192.0.2.53             what can block it
  tarnctl check --rules /etc/snort/rules         signatures without an entry
  tarnctl check --summary                        each entry in plain words
  tarnctl check --json | jq .findings[].name     one JSON object)";

// Loads the three files into `result`. Returns why standard input cannot be read, which may be one
// of them, or an empty text.
std::string LoadFiles(const CheckOptions& options, StandardInput& input, CheckResult& result) {
    LoadWatch watch(result.findings);
    const DaemonLoad load(&watch);
    result.files = {options.stateFile, options.configFile, options.eventFile};
    std::vector<std::string> paths;
    for (const std::string& file : result.files) {
        paths.push_back(input.PathOf(file));
        if (paths.back().empty()) {
            return "standard input cannot be read";
        }
        watch.ShowAs(paths.back(), file);
    }
    const std::string& state = paths[0];
    Config::s_stateFile = CheckFile(state, true, result.findings) ? state : "";
    const bool hasMain = CheckFile(paths[1], false, result.findings);
    const bool hasEvents = CheckFile(paths[2], false, result.findings);
    Config::Load(hasMain ? paths[1].c_str() : nullptr, Config::kMainFile);
    watch.FinishMain(static_cast<int>(sysconf(_SC_NPROCESSORS_CONF)));
    if (hasEvents) {
        Config::Load(paths[2].c_str(), Config::kEventFile);
    }
    result.entries = watch.TakeEntries();
    result.lines = watch.Lines();
    return "";
}

void Show(const CheckOptions& options, const CheckResult& result, std::ostream& out) {
    if (options.json) {
        WriteJson(result, options.summary, out);
        return;
    }
    if (options.summary) {
        WriteSummary(result, options, out);
    }
    WriteFindings(result, options, out);
}

// How many of the files that are named are standard input.
ptrdiff_t InputsOf(const CheckOptions& options) {
    const auto isInput = [](const std::string& path) { return path == "-"; };
    const std::string* const files[] = {&options.configFile, &options.eventFile,
                                        &options.stateFile};
    return std::count_if(std::begin(files), std::end(files),
                         [](const std::string* path) { return *path == "-"; }) +
           std::count_if(options.rules.begin(), options.rules.end(), isInput) +
           std::count_if(options.protects.begin(), options.protects.end(), isInput);
}

}  // namespace

CLI::App* AddCheckCommand(CLI::App& app, CheckOptions& options) {
    CLI::App* command =
        app.add_subcommand("check", "Name what the daemon would drop or bend in its configuration");
    AddConfigFileOptions(*command, options.configFile, options.eventFile, options.stateFile);
    command->add_option("--rules", options.rules, "Rules of the sensor: files, folders, maps")
        ->type_name("PATH");
    command
        ->add_option("--protect", options.protects,
                     "Name each entry that can block it: an address, a network, or a file of them")
        ->type_name("ADDRESS|NETWORK|FILE");
    command->add_flag("--json", options.json, "One JSON object");
    command->add_flag("--strict", options.strict, "Warnings count as findings");
    command->add_flag("--summary", options.summary, "Each entry in plain words");
    command->add_flag("--no-places", options.noPlaces,
                      "The files alone, not the FIFOs, rings and sockets of this machine");
    AddWideOption(*command, options);
    command->footer(kExamples);
    command->callback([&options] {
        if (InputsOf(options) > 1) {
            throw CLI::ValidationError("only one of the files can be standard input");
        }
    });
    return command;
}

int RunCheck(const CheckOptions& options, std::ostream& out, std::ostream& err) {
    StandardInput input(err, "check");
    ProtectList protects;
    std::vector<std::string> faults;
    const auto note = [&faults](std::string fault) {
        if (!fault.empty()) {
            faults.push_back(std::move(fault));
        }
    };
    for (const std::string& text : options.protects) {
        note(protects.Add(text, input));
    }
    CheckResult result;
    note(LoadFiles(options, input, result));
    protects.Check(result.entries, result.findings);
    if (!options.rules.empty()) {
        for (std::string& fault :
             CheckRules(options.rules, input, result.entries, result.findings)) {
            note(std::move(fault));
        }
    }
    if (StopRequested()) {
        return kExitUnchecked;
    }
    if (!options.noPlaces) {
        CheckPlaces(DaemonPlaces(Config::s_engineCrm, Config::s_logFile), result.findings);
    }
    for (const std::string& fault : faults) {
        err << "tarnctl check: " << fault << std::endl;
    }
    SortFindings(result);
    Show(options, result, out);
    if (!faults.empty()) {
        return kExitUnchecked;
    }
    const bool hasFindings = result.Count(FindingLevel::kError) != 0 ||
                             (options.strict && result.Count(FindingLevel::kWarning) != 0);
    return hasFindings ? kExitFindings : kExitClean;
}

}  // namespace tarnctl
