#include "tarnctl/import/import_command.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <set>
#include <span>

#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/failure_text.h"
#include "tarnctl/common/standard_input.h"
#include "tarnctl/import/event_entry.h"
#include "tarnctl/import/event_file.h"
#include "tarnctl/import/file_replacement.h"
#include "tarnctl/import/import_report.h"
#include "tarnctl/import/import_result.h"
#include "tarnctl/import/line_edit.h"
#include "tarnctl/snort_rules/rule_set.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    "Every enabled signature without an entry gets one: its name is the rule's message, its severity "
    "comes from the rule's priority or class, and nothing is blocked. Entries that are there already "
    "are not touched. The new file takes the old one's place at once; send tarn a hangup afterwards."
    R"(

Examples:
  tarnctl import --dry-run /etc/snort/rules  show what would change
  tarnctl import /etc/snort/snort.conf       the rule files that it includes
  tarnctl import --prune /etc/snort/rules    drop entries that no rule has
  zcat rules.gz | tarnctl import -n new.conf -)";

constexpr const char* kNewFile =
    "# tarn_event.conf - what tarn does about each Snort signature.\n"
    "#\n"
    "# All lines of one signature are together: se.<signature id>.<key> = <value>.\n";

constexpr const char* kStandardInput = "-";  // and standard output

class Import {
  public:
    Import(const ImportOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options), m_out(out), m_err(err), m_input(err, "import") {
        m_result.file = options.eventFile;
        m_result.isDryRun = options.dryRun;
    }

    int Run() {
        m_result.error = Carry();
        if (m_options.json) {
            m_out << ImportAsJson(m_result) << std::endl;
        } else {
            for (const std::string& line : RemarkLines(m_result)) {
                Say(line);
            }
        }
        if (!m_result.error.empty()) {
            Say(m_result.error);
        } else if (!m_options.json) {
            Say(SummaryLine(m_result));
        }
        return m_result.error.empty() && m_result.isComplete ? kExitFine : kExitFailure;
    }

  private:
    void Say(const std::string& text) { m_err << "tarnctl import: " << text << std::endl; }

    // Does it all. Returns why nothing is written, or an empty text.
    std::string Carry() {
        if (std::string fault = ReadRules(); !fault.empty()) {
            return fault;
        }
        FileState state;
        if (std::string fault = ReadEvents(state); !fault.empty()) {
            return fault;
        }
        if (m_options.prune && !m_result.isComplete) {
            return "nothing is written: not all rules could be read, so --prune cannot tell which "
                   "signatures are gone";
        }
        const EventFile events(state.text);
        const LineEdit edit = MakeEdit(events, state.exists && !state.text.empty());
        return Store(state, edit);
    }

    // Returns why the rules cannot be used, or an empty text.
    std::string ReadRules() {
        bool isRead = true;
        for (const std::string& path : m_options.rules) {
            isRead = m_set.Read(path, m_input) && isRead;
        }
        m_result.isComplete = m_set.IsComplete();
        for (const RuleRemark& remark : m_set.Remarks()) {
            m_result.remarks.push_back(
                {remark.kind, m_set.Files()[remark.file], remark.line, remark.text});
        }
        return !isRead                 ? "nothing is written"
               : m_set.Rules().empty() ? "there is no rule in what was named"
                                       : "";
    }

    std::string ReadEvents(FileState& state) {
        if (m_options.eventFile != kStandardInput) {
            return ReadState(m_options.eventFile, state);
        }
        state.exists = true;
        const int error = m_input.ReadAll(state.text);
        return error == 0 ? "" : FailureText("standard input", error);
    }

    LineEdit MakeEdit(const EventFile& events, bool exists) {
        const std::vector<SnortRule> signatures = m_set.Signatures();
        std::set<uint32_t> known;
        std::string added;
        for (size_t at = 0; at < signatures.size();) {
            const uint32_t sid = signatures[at].sid;
            known.insert(known.end(), sid);
            std::vector<SnortRule> alerting;
            for (; at < signatures.size() && signatures[at].sid == sid; ++at) {
                if (signatures[at].MayAlert()) {
                    alerting.push_back(signatures[at]);
                }
            }
            AddEntry(alerting, events, added);
        }
        if (!exists && !added.empty()) {
            added.insert(0, kNewFile);
        }
        LineEdit edit{events.Lines(), std::vector<bool>(events.Lines().size(), false), added};
        if (m_options.prune) {
            edit.remove = events.LinesToRemove(known);
            std::set_difference(events.Entries().begin(), events.Entries().end(), known.begin(),
                                known.end(), std::back_inserter(m_result.removed));
        }
        m_result.kept = events.Entries().size() - m_result.removed.size();
        return edit;
    }

    // `rules` are the signatures of one sid that may alert.
    void AddEntry(std::span<const SnortRule> rules, const EventFile& events, std::string& added) {
        if (rules.size() > 1) {
            SharedSignature& shared = m_result.shared.emplace_back();
            shared.id = rules.front().sid;
            for (const SnortRule& rule : rules) {
                shared.generators.push_back(rule.generator);
            }
        }
        if (!rules.empty() && !events.HasEntry(rules.front().sid)) {
            m_result.added.push_back(MakeEntry(m_set, rules));
            added += m_result.added.back().text;
        }
    }

    // Writes or shows the change. Returns why it cannot be written, or an empty text.
    std::string Store(const FileState& state, const LineEdit& edit) {
        const std::string& name = m_options.eventFile;
        if (m_options.dryRun) {
            m_result.diff = edit.Diff(state.exists ? name : "/dev/null", name);
            if (!m_options.json) {
                m_out << PaintedDiff(m_result.diff, m_options.color);
            }
            return "";
        }
        if (name == kStandardInput) {
            m_out << edit.Apply();
            return "";
        }
        if (edit.ChangesNothing()) {
            return "";
        }
        std::string fault = ReplaceFile(state, edit.Apply());
        m_result.isWritten = fault.empty();
        return fault;
    }

    const ImportOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    StandardInput m_input;
    RuleSet m_set;
    ImportResult m_result;
};

}  // namespace

CLI::App* AddImportCommand(CLI::App& app, ImportOptions& options) {
    CLI::App* command = app.add_subcommand(
        "import", "Make or extend tarn_event.conf from rule files and message maps");
    command
        ->add_option("PATH", options.rules,
                     "Rule files, folders of them, sid-msg or gen-msg maps, or a snort.conf; - "
                     "is standard input")
        ->required()
        ->type_name("PATH");
    command
        ->add_option("-n,--events", options.eventFile,
                     "The file to make or extend; - reads it from standard input and writes it to "
                     "standard output")
        ->type_name("FILE")
        ->capture_default_str();
    command->add_flag("--dry-run", options.dryRun,
                      "Write nothing, and show the change as a unified diff");
    command->add_flag("--prune", options.prune,
                      "Remove the entries whose signature is in no rule, disabled ones included");
    command->add_flag("--json", options.json, "One JSON object with all that changes");
    command->callback([&options] {
        const bool isFilter = options.eventFile == kStandardInput;
        const auto inputs = std::count(options.rules.begin(), options.rules.end(), kStandardInput);
        if (inputs + (isFilter ? 1 : 0) > 1) {
            throw CLI::ValidationError("only one of the files can be standard input");
        }
        if (isFilter && options.json && !options.dryRun) {
            throw CLI::ValidationError("standard output cannot take both the file and --json");
        }
    });
    command->footer(kExamples);
    return command;
}

int RunImport(const ImportOptions& options, std::ostream& out, std::ostream& err) {
    return Import(options, out, err).Run();
}

}  // namespace tarnctl
