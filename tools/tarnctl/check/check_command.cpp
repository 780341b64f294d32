#include "tarnctl/check/check_command.h"

#include <unistd.h>

#include <ostream>

#include "config/config.h"
#include "config/event_rule_table.h"
#include "logging/log.h"
#include "tarnctl/check/check_report.h"
#include "tarnctl/check/check_rules.h"
#include "tarnctl/check/load_watch.h"
#include "tarnctl/check/places.h"
#include "tarnctl/check/protect.h"
#include "tarnctl/common/exit_status.h"

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

// The loader's messages say less than the findings, so they are kept from the terminal. The
// observer of the load is gone when the load is over.
class QuietLoad {
  public:
    explicit QuietLoad(LoadObserver& observer) : m_level(vald::Log::GetLevel()) {
        vald::Log::SetLevel(0);
        Config::s_observer = &observer;
    }
    ~QuietLoad() {
        Config::s_observer = nullptr;
        vald::Log::SetLevel(m_level);
    }
    QuietLoad(const QuietLoad&) = delete;
    QuietLoad& operator=(const QuietLoad&) = delete;

  private:
    int m_level;
};

void LoadFiles(const CheckOptions& options, CheckResult& result) {
    LoadWatch watch(result.findings);
    const QuietLoad quiet(watch);
    Config::s_stateFile = options.stateFile;
    result.files = {options.stateFile, options.configFile, options.eventFile};
    const bool hasState = CheckFile(options.stateFile, true, result.findings);
    if (!hasState) {
        Config::s_stateFile.clear();
    }
    const bool hasMain = CheckFile(options.configFile, false, result.findings);
    const bool hasEvents = CheckFile(options.eventFile, false, result.findings);
    Config::Initialize();
    Config::Load(hasMain ? options.configFile.c_str() : nullptr, Config::kMainFile);
    watch.FinishMain(static_cast<int>(sysconf(_SC_NPROCESSORS_CONF)));
    if (hasEvents) {
        Config::Load(options.eventFile.c_str(), Config::kEventFile);
    }
    result.entries = watch.TakeEntries();
    result.lines = watch.Lines();
}

}  // namespace

CLI::App* AddCheckCommand(CLI::App& app, CheckOptions& options) {
    CLI::App* command =
        app.add_subcommand("check", "Name what the daemon would drop or bend in its configuration");
    command->add_option("-c,--config", options.configFile, "The main file, as tarn -c")
        ->type_name("FILE")
        ->capture_default_str();
    command->add_option("-n,--events", options.eventFile, "The event file, as tarn -n")
        ->type_name("FILE")
        ->capture_default_str();
    command->add_option("--state", options.stateFile, "The state file")
        ->type_name("FILE")
        ->capture_default_str();
    command->add_option("--rules", options.rules, "Rules of the sensor: files, folders, maps")
        ->type_name("PATH");
    command
        ->add_option("--protect", options.protects,
                     "Name each entry that can block it: an address, a network, or a file of them")
        ->type_name("ADDRESS");
    command->add_flag("--json", options.json, "One JSON object");
    command->add_flag("--strict", options.strict, "Warnings count as findings");
    command->add_flag("--summary", options.summary, "Each entry in plain words");
    command->add_flag("--no-places", options.noPlaces,
                      "The files alone, not the FIFOs, rings and sockets of this machine");
    command->footer(kExamples);
    return command;
}

int RunCheck(const CheckOptions& options, std::ostream& out, std::ostream& err) {
    ProtectList protects;
    bool isUnchecked = false;
    const auto fail = [&](const std::string& text) {
        err << "tarnctl check: " << text << "\n";
        isUnchecked = true;
    };
    for (const std::string& text : options.protects) {
        const std::string fault = protects.Add(text);
        if (!fault.empty()) {
            fail(fault);
        }
    }
    CheckResult result;
    LoadFiles(options, result);
    protects.Check(result.entries, result.findings);
    if (!options.rules.empty()) {
        for (const std::string& fault :
             CheckRules(options.rules, result.entries, result.findings)) {
            fail(fault);
        }
    }
    if (!options.noPlaces) {
        CheckPlaces(DaemonPlaces(Config::s_engineCrm, Config::s_logFile), result.findings);
    }
    SortFindings(result);
    if (options.json) {
        WriteJson(result, options.summary, out);
    } else {
        if (options.summary) {
            WriteSummary(result, out);
        }
        WriteFindings(result, options.color, out);
    }
    if (isUnchecked) {
        return kExitUnchecked;
    }
    const bool hasFindings = result.Count(FindingLevel::kError) != 0 ||
                             (options.strict && result.Count(FindingLevel::kWarning) != 0);
    return hasFindings ? kExitFindings : kExitClean;
}

}  // namespace tarnctl
