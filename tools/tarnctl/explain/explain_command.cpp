#include "tarnctl/explain/explain_command.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <istream>
#include <ostream>
#include <utility>

#include "paths.h"
#include "tarnctl/common/config_file_options.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/number_checks.h"
#include "tarnctl/common/read_error.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/standard_input.h"
#include "tarnctl/explain/explain_text.h"
#include "tarnctl/explain/explanation.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(The answer comes from the daemon's own policy code and the files as the daemon reads them.
What is not said about the alert is filled in with an example. One of the files may be -, which is
standard input.

Examples:
  tarnctl explain 1000001                    what happens when it fires
  tarnctl explain 1000001 --proto icmp --src 192.0.2.7
  tarnctl explain 1000001 --alert alerts.u2  for the first such alert of a sensor's file
  tarnctl crm --json --count 1 | tarnctl explain --report -)";

class Explainer {
  public:
    Explainer(const ExplainOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options), m_out(out), m_err(err), m_input(err, "explain") {}

    int Run() {
        if (std::string fault = m_entries.Load(m_options.paths, m_input); !fault.empty()) {
            return StopRequested() ? kExitFailure : Refuse(fault);
        }
        return m_options.reportFile.empty() ? ExplainSignature() : ExplainReports();
    }

  private:
    int Refuse(const std::string& reason, int status = kExitFailure) {
        m_err << "tarnctl explain: " << reason << std::endl;
        return status;
    }

    int ExplainSignature() {
        ExplainedAlert alert;
        if (m_options.alertFile.empty()) {
            if (std::string fault = alert.Describe(m_options.signature, m_options.alert);
                !fault.empty()) {
                return Refuse(fault, kExitUsage);
            }
            Show(alert, m_options.alert.IsExample() ? "example" : "options");
            return kExitFine;
        }
        if (std::string fault =
                alert.TakeFromFile(m_options.signature, m_input.PathOf(m_options.alertFile));
            !fault.empty()) {
            return Refuse(fault);
        }
        Show(alert, "file");
        return kExitFine;
    }

    int ExplainReports() {
        if (m_options.reportFile == "-") {
            std::istream lines(&m_input);
            return ExplainReports(lines);
        }
        if (const int error = ReadError(m_options.reportFile); error != 0) {
            return Refuse(ReadFailureText(m_options.reportFile, error));
        }
        std::ifstream file(m_options.reportFile);
        return ExplainReports(file);
    }

    int ExplainReports(std::istream& lines) {
        int status = kExitFine;
        uint64_t number = 0;
        bool isFirst = true;
        for (std::string line; m_out && std::getline(lines, line);) {
            ++number;
            if (line.find_first_not_of(" \t\r") == std::string::npos) {
                continue;
            }
            ExplainedAlert alert;
            if (std::string fault = alert.TakeFromReport(line); !fault.empty()) {
                status = Refuse(m_options.reportFile + ":" + std::to_string(number) + ": " + fault);
                continue;
            }
            if (!std::exchange(isFirst, false) && !m_options.json) {
                m_out << '\n';
            }
            Show(alert, "report");
        }
        return isFirst && status == kExitFine && !StopRequested()
                   ? Refuse(m_options.reportFile + " holds no report")
                   : status;
    }

    void Show(const ExplainedAlert& alert, const std::string& origin) {
        const CrmEventSource& source = alert.Source();
        const uint32_t signature = source.GetIssueId();
        const Explanation explanation =
            Explain(signature, LoadedEntries::Find(signature).get(), source);
        ReportComparison comparison;
        ExplainedEvent event = {explanation, m_entries.Blocks(signature), source, origin.c_str(),
                                alert.Further()};
        if (origin == "report") {
            comparison = Compare(explanation, alert.WasBlocked(), alert.ReportedName());
            event.comparison = &comparison;
        }
        if (m_options.json) {
            m_out << ExplanationAsJson(event) << std::endl;
        } else {
            constexpr size_t kTextColumn = 12;  // where what follows a label begins
            m_out << FoldedToWidth(ExplanationAsText(event, m_options.color), m_options.Width(),
                                   kTextColumn + 2)
                  << std::flush;
        }
    }

    const ExplainOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    StandardInput m_input;
    LoadedEntries m_entries;
};

void AddAlertOptions(CLI::App& command, ExplainOptions& options) {
    AlertDescription& alert = options.alert;
    auto* const file = command.add_option("--alert", options.alertFile,
                                          "Take the signature's first alert from a unified2 file");
    file->type_name("FILE");
    const auto describes = [file](CLI::Option* option, const char* type) {
        return option->type_name(type)->excludes(file);
    };
    const CLI::Validator ports = WholeNumber(0, UINT16_MAX);
    const CLI::Validator bytes = WholeNumber(0, UINT8_MAX);
    describes(command.add_option("--proto", alert.protocol, "tcp, udp, icmp, icmpv6 or a number"),
              "PROTOCOL");
    describes(command.add_option("--src", alert.source, "Source address, the intruder's"),
              "ADDRESS");
    describes(command.add_option("--sport", alert.sourcePort, "Source port"), "PORT")->check(ports);
    describes(command.add_option("--dst", alert.destination, "Destination address, the victim's"),
              "ADDRESS");
    describes(command.add_option("--dport", alert.destinationPort, "Destination port"), "PORT")
        ->check(ports);
    describes(command.add_option("--icmp-type", alert.icmpType, "ICMP type"), "N")->check(bytes);
    describes(command.add_option("--icmp-code", alert.icmpCode, "ICMP code"), "N")->check(bytes);
    describes(command.add_option("--time", alert.time, "Time of the alert, seconds since 1970"),
              "SECONDS")
        ->check(WholeNumber(0, UINT32_MAX));
}

}  // namespace

CLI::App* AddExplainCommand(CLI::App& app, ExplainOptions& options) {
    CLI::App* const command =
        app.add_subcommand("explain", "Say what tarn does when a signature fires, and why");
    auto* const signature = command->add_option("SID", options.signature, "Snort signature id")
                                ->type_name("SID")
                                ->check(WholeNumber(1, UINT32_MAX));
    AddAlertOptions(*command, options);
    auto* const report = command->add_option(
        "--report", options.reportFile, "Explain the reports of tarnctl crm --json, a line each");
    report->type_name("FILE")->excludes(signature);
    options.paths = {tarn::paths::kConfigFile, tarn::paths::kEventConfigFile,
                     tarn::paths::kStateFile};
    AddConfigFileOptions(*command, options.paths.config, options.paths.events, options.paths.state);
    command->add_flag("--json", options.json, "One JSON object for each alert");
    AddWideOption(*command, options);
    command->footer(kExamples);
    command->callback([&options, signature, report] {
        if (signature->count() == 0 && report->count() == 0) {
            throw CLI::RequiredError("SID or --report");
        }
        const auto& paths = options.paths;
        const std::string* const inputs[] = {&paths.config, &paths.events, &paths.state,
                                             &options.alertFile, &options.reportFile};
        if (std::count_if(std::begin(inputs), std::end(inputs),
                          [](const std::string* path) { return *path == "-"; }) > 1) {
            throw CLI::ValidationError("only one of the files can be standard input");
        }
    });
    return command;
}

int RunExplain(const ExplainOptions& options, std::ostream& out, std::ostream& err) {
    return Explainer(options, out, err).Run();
}

}  // namespace tarnctl
