#include "tarnctl/import/import_command.h"

#include <algorithm>
#include <map>
#include <set>
#include <span>

#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/import/event_entry.h"
#include "tarnctl/import/event_file.h"
#include "tarnctl/import/file_replacement.h"
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

// More lines than these of one kind are counted and not shown.
constexpr std::size_t kMostShown = 10;

class Import {
  public:
    Import(const ImportOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options), m_out(out), m_err(err) {}

    int Run() {
        if (!ReadRules()) {
            return kExitFailure;
        }
        FileState state;
        const std::string reason = ReadState(m_options.eventFile, state);
        if (!reason.empty()) {
            Say(reason);
            return kExitFailure;
        }
        if (m_options.prune && !m_set.IsComplete()) {
            Say("nothing is written: not all rules could be read, so --prune cannot tell which "
                "signatures are gone");
            return kExitFailure;
        }
        const EventFile events(state.text);
        const LineEdit edit = MakeEdit(events, state.exists);
        const int status = edit.ChangesNothing() ? kExitFine : Store(state, edit);
        if (status == kExitFine) {
            Say(Summary(events));
        }
        return m_set.IsComplete() ? status : kExitFailure;
    }

  private:
    void Say(const std::string& text) { m_err << "tarnctl import: " << text << '\n'; }

    // The first lines of a list, and how many more there are.
    void SayList(const std::vector<std::string>& lines) {
        const std::size_t shown = lines.size() > kMostShown + 1 ? kMostShown : lines.size();
        for (std::size_t at = 0; at < shown; ++at) {
            Say(lines[at]);
        }
        if (shown < lines.size()) {
            Say("and " + std::to_string(lines.size() - shown) + " more like these");
        }
    }

    // False if one of the paths cannot be read at all.
    bool ReadRules() {
        bool isRead = true;
        for (const std::string& path : m_options.rules) {
            isRead = m_set.Read(path) && isRead;
        }
        std::map<RuleRemarkKind, std::vector<std::string>> remarks;
        for (const RuleRemark& remark : m_set.Remarks()) {
            const bool isWhole = remark.kind == RuleRemarkKind::kUnreadable;  // names its file
            const std::string place =
                isWhole ? ""
                        : m_set.Files()[remark.file] + ":" + std::to_string(remark.line) + ": ";
            remarks[remark.kind].push_back(place + ForTerminal(remark.text));
        }
        for (const auto& [kind, lines] : remarks) {
            SayList(lines);
        }
        if (!isRead) {
            Say("nothing is written");
        } else if (m_set.Rules().empty()) {
            Say("there is no rule in what was named");
        }
        return isRead && !m_set.Rules().empty();
    }

    LineEdit MakeEdit(const EventFile& events, bool exists) {
        const std::vector<SnortRule> signatures = m_set.Signatures();
        std::set<uint32_t> known;
        std::string added;
        std::vector<std::string> shared;
        for (std::size_t at = 0; at < signatures.size();) {
            const uint32_t sid = signatures[at].sid;
            known.insert(known.end(), sid);
            std::vector<SnortRule> alerting;
            for (; at < signatures.size() && signatures[at].sid == sid; ++at) {
                if (signatures[at].MayAlert()) {
                    alerting.push_back(signatures[at]);
                }
            }
            if (alerting.size() > 1) {
                shared.push_back(SharedText(alerting));
            }
            if (!alerting.empty() && !events.HasEntry(sid)) {
                added += EntryText(m_set, alerting);
                ++m_added;
            }
        }
        SayList(shared);
        if (!exists && !added.empty()) {
            added.insert(0, kNewFile);
        }
        LineEdit edit{events.Lines(), std::vector<bool>(events.Lines().size(), false), added};
        if (m_options.prune) {
            edit.remove = events.LinesToRemove(known);
            m_removed = static_cast<std::size_t>(
                std::count_if(events.Entries().begin(), events.Entries().end(),
                              [&known](uint32_t id) { return !known.contains(id); }));
        }
        return edit;
    }

    [[nodiscard]] static std::string SharedText(std::span<const SnortRule> rules) {
        std::string generators;
        for (const SnortRule& rule : rules) {
            generators += (generators.empty() ? "" : ", ") + std::to_string(rule.generator);
        }
        return "signature " + std::to_string(rules.front().sid) + " is used by generators " +
               generators + ", which share one entry";
    }

    int Store(const FileState& state, const LineEdit& edit) {
        if (m_options.dryRun) {
            const std::string oldName = state.exists ? m_options.eventFile : "/dev/null";
            m_out << edit.Diff(oldName, m_options.eventFile) << std::flush;
            if (!m_out) {
                Say("standard output does not take the change");
                return kExitFailure;
            }
            return kExitFine;
        }
        const std::string reason = ReplaceFile(state, edit.Apply());
        if (!reason.empty()) {
            Say(reason);
            return kExitFailure;
        }
        return kExitFine;
    }

    [[nodiscard]] std::string Summary(const EventFile& events) const {
        const auto entries = [](std::size_t count) {
            return std::to_string(count) + (count == 1 ? " entry" : " entries");
        };
        const std::string tense = m_options.dryRun ? " would be" : "";
        return m_options.eventFile + ": " + entries(m_added) + tense + " added, " +
               std::to_string(m_removed) + " removed, " +
               std::to_string(events.Entries().size() - m_removed) + " kept";
    }

    const ImportOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    RuleSet m_set;
    std::size_t m_added = 0;    // entries
    std::size_t m_removed = 0;  // entries in force
};

}  // namespace

CLI::App* AddImportCommand(CLI::App& app, ImportOptions& options) {
    CLI::App* command = app.add_subcommand(
        "import", "Make or extend tarn_event.conf from rule files and message maps");
    command
        ->add_option("rules", options.rules,
                     "Rule files, folders of them, sid-msg or gen-msg maps, or a snort.conf; - "
                     "is standard input")
        ->required()
        ->type_name("PATH");
    command->add_option("-n,--event-file", options.eventFile, "The file to make or extend")
        ->type_name("FILE")
        ->capture_default_str();
    command->add_flag("--dry-run", options.dryRun,
                      "Write nothing, and show the change as a unified diff");
    command->add_flag("--prune", options.prune,
                      "Remove the entries whose signature is in no rule, disabled ones included");
    command->footer(kExamples);
    return command;
}

int RunImport(const ImportOptions& options, std::ostream& out, std::ostream& err) {
    return Import(options, out, err).Run();
}

}  // namespace tarnctl
