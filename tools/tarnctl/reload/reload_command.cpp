#include "tarnctl/reload/reload_command.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>
#include <vector>

#include "tarnctl/common/config_file_options.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/entry_guard.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/feed_words.h"
#include "tarnctl/common/line_link.h"
#include "tarnctl/common/number_checks.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/tarn_process.h"
#include "tarnctl/reload/daemon_cycle.h"
#include "tarnctl/reload/kept_entries.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

constexpr const char* kExamples =
    R"(With a feeder nothing is lost: it is held until tarn has read its files. Without one tarn
drops the alerts that are inside it, up to 128 of the reader and 1024 of the queue. What changes is
said where it is known what was in force: from a feeder, from what the last reload has kept, or
from files that are older than what tarn has read.

Examples:
  tarnctl reload --feeder /var/lib/tarn/feed          with tarnctl feed --bookmark of that name
  tarnctl reload                                      without a feeder
  tarnctl reload --feeder /var/lib/tarn/feed --json   what has changed, for a program)";

// The files were read before the daemon's cycle began, and how long before is not known. One that
// was changed within this time before is not taken for what was read, in nanoseconds.
constexpr int64_t kLoadTime = 2'000'000'000;

class Reload {
  public:
    Reload(const ReloadOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options),
          m_out(out),
          m_err(err),
          m_cycle(options.fifo),
          m_guard({options.configFile, options.eventFile, options.stateFile}) {}

    int Run() {
        const auto started = Clock::now();
        const std::string fault = Work();
        if (!fault.empty()) {
            Tell(fault);
        }
        Show(fault, std::chrono::duration<double>(Clock::now() - started).count());
        return fault.empty() && m_out ? kExitFine : kExitFailure;
    }

  private:
    void Tell(const std::string& text) { m_err << "tarnctl reload: " << text << std::endl; }

    std::string Work() {
        std::string fault = Check();
        if (fault.empty()) {
            fault = m_cycle.Find();
        }
        if (fault.empty()) {
            fault = Hold();
        }
        if (fault.empty()) {
            FindEntriesBefore();
            fault = m_cycle.Run();
        }
        if (fault.empty() && m_hasFeeder) {
            fault = m_feeder.Ask(kFeedReloaded, m_changes);
        }
        if (fault.empty()) {
            FindEntriesNow();
        }
        return fault;
    }

    // The cycle that the daemon is in, if it has its entries from the files that are named.
    [[nodiscard]] CycleMark PresentCycle() const {
        return {m_cycle.Pid(), EntryGuard::CycleFile(), EntryGuard::CycleTime(),
                m_options.configFile, m_options.eventFile};
    }

    void FindEntriesBefore() {
        m_guardFault = m_guard.Load();
        KeptEntries kept;
        const std::string fault = LoadKeptEntries(m_options.kept, kept);
        const std::string newer =
            m_guard.NewerThan(EntryGuard::LastLoad(m_cycle.Pid()) - kLoadTime);
        if (m_hasFeeder) {
            m_source = "feeder";
        } else if (kept.mark.time != 0 && kept.mark == PresentCycle()) {
            m_source = "kept";
            m_before = std::move(kept.policies);
        } else if (m_guardFault.empty() && newer.empty()) {
            m_source = "files";
            m_before = m_guard.CurrentPolicies();
        } else if (!m_guardFault.empty() || !fault.empty()) {
            m_unknown = m_guardFault.empty() ? fault : m_guardFault;
        } else if (kept.mark.time == 0) {
            m_unknown =
                newer + " may be newer than what tarn has read, and no reload has kept that";
        } else {
            m_unknown = newer + " may be newer than what tarn has read, and what was kept in " +
                        m_options.kept + " is of an earlier load or of other files";
        }
    }

    void FindEntriesNow() {
        if (m_guardFault.empty()) {
            m_guardFault = m_guard.LoadChanged();
        }
        if (!m_guardFault.empty()) {
            Tell("what is in force now is not known: " + m_guardFault);
            m_source = m_hasFeeder ? m_source : "";
            m_unknown = m_guardFault;
            return;
        }
        if (!m_hasFeeder && m_source.empty()) {
            m_changes["entries"] = m_guard.Count();
        } else if (!m_hasFeeder) {
            m_changes = m_guard.ChangesSince(m_before);
        }
        const std::string fault =
            KeepEntries(m_options.kept, {PresentCycle(), m_guard.CurrentPolicies()});
        if (!fault.empty()) {
            Tell("what is in force now is not kept for the next reload: " + fault);
        }
    }

    // Runs this program's own check of the files in a process of its own, since the loader's
    // settings are those of the whole process.
    std::string Check() {
        m_err << std::flush;
        const pid_t child = fork();
        if (child == -1) {
            return "the files cannot be checked: no new process";
        }
        if (child == 0) {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            execl("/proc/self/exe", "tarnctl", "check", "--no-places", "-c",
                  m_options.configFile.c_str(), "-n", m_options.eventFile.c_str(), "--state",
                  m_options.stateFile.c_str(), static_cast<char*>(nullptr));
            _exit(kExitUsage);
        }
        int status = 0;
        while (waitpid(child, &status, 0) == -1) {
        }
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            return "";
        }
        if (m_options.force) {
            Tell("going on in spite of the findings");
            return "";
        }
        return "tarn has not been told to read its files; mend what is named above, or use --force";
    }

    // Keeps the feeder from feeding and waits until nothing is inside the daemon.
    std::string Hold() {
        std::string path = m_options.control;
        if (path.empty() && !m_options.feeder.empty()) {
            path = m_options.feeder + kFeedSocketEnding;
        }
        if (path.empty()) {
            if (m_cycle.HasFeeder()) {
                return "a feeder is there; name its bookmark with --feeder, or nothing is held";
            }
            Tell(
                "without a feeder, the alerts inside tarn are lost: up to 128 of its reader and 1024 of "
                "its queue");
            return "";
        }
        std::string fault = m_feeder.Open(path);
        Json answer;
        if (fault.empty()) {
            fault = m_feeder.Ask(kFeedHold, answer);
        }
        m_hasFeeder = fault.empty();
        const auto started = Clock::now();
        bool isTold = false;
        while (fault.empty() && answer.value("underWay", 0) != 0) {
            const std::chrono::duration<double> waited = Clock::now() - started;
            if (StopRequested()) {
                return "interrupted; tarn has not been told to read its files";
            }
            if (waited.count() > m_options.wait) {
                return "alerts are still under way; tarn has not been told to read its files";
            }
            if (!isTold && waited > std::chrono::milliseconds(kSilentWait)) {
                isTold = true;
                Tell("waiting: alerts are under way in tarn");
            }
            constexpr int kStep = 10;
            (void)poll(nullptr, 0, kStep);
            fault = m_feeder.Ask(kFeedCounters, answer);
        }
        return fault;
    }

    void Show(const std::string& fault, double seconds) {
        if (m_options.json) {
            Json result = {{"daemon", m_cycle.Pid()}, {"feeder", m_hasFeeder}};
            result["before"] = m_source.empty() || !fault.empty() ? Json(nullptr) : Json(m_source);
            for (const char* const name : {"entries", "added", "removed", "changed"}) {
                result[name] = m_changes.contains(name) ? m_changes[name] : Json(nullptr);
            }
            result["seconds"] = seconds;
            result["error"] = fault.empty() ? Json(nullptr) : Json(fault);
            m_out << result.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
            return;
        }
        if (!fault.empty()) {
            return;
        }
        if (m_source.empty()) {
            m_out << "tarn has read its files; what has changed is not known: " << m_unknown
                  << std::endl;
            return;
        }
        for (const Json& entry : m_changes["added"]) {
            m_out << "+ " << entry["signature"] << " " << entry["policy"].get<std::string>()
                  << "\n";
        }
        for (const Json& entry : m_changes["removed"]) {
            m_out << "- " << entry["signature"] << " " << entry["policy"].get<std::string>()
                  << "\n";
        }
        for (const Json& entry : m_changes["changed"]) {
            m_out << "- " << entry["signature"] << " " << entry["before"].get<std::string>()
                  << "\n+ " << entry["signature"] << " " << entry["policy"].get<std::string>()
                  << "\n";
        }
        m_out << "tarn has read its files: " << m_changes["added"].size() << " added, "
              << m_changes["removed"].size() << " removed, " << m_changes["changed"].size()
              << " changed; " << m_changes["entries"] << " in force" << std::endl;
    }

    const ReloadOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    DaemonCycle m_cycle;
    LineLink m_feeder{"feeder", "leave --feeder out if there is none"};
    EntryGuard m_guard;
    std::string m_guardFault;
    EntryGuard::Policies m_before;
    std::string m_source;   // from where it is known what was in force; empty: it is not
    std::string m_unknown;  // why it is not
    bool m_hasFeeder = false;
    Json m_changes = Json::object();
};

}  // namespace

CLI::App* AddReloadCommand(CLI::App& app, ReloadOptions& options) {
    CLI::App* command =
        app.add_subcommand("reload", "Make tarn read its files again without losing an alert");
    command->add_option("--feeder", options.feeder, "Bookmark of the feeder to hold")
        ->type_name("FILE");
    command->add_option("--control", options.control, "Control socket of the feeder to hold")
        ->type_name("PATH");
    command->add_flag("--force", options.force, "Go on in spite of what the check finds");
    command
        ->add_option("--kept", options.kept, "Where to keep what is in force, for the next reload")
        ->type_name("FILE")
        ->capture_default_str();
    command->add_option("--wait", options.wait, "Wait up to S seconds for alerts under way")
        ->type_name("S")
        ->check(ZeroOrMore())
        ->capture_default_str();
    command->add_option("--fifo", options.fifo, "The alert FIFO")
        ->type_name("PATH")
        ->capture_default_str();
    AddConfigFileOptions(*command, options.configFile, options.eventFile, options.stateFile);
    command->add_flag("--json", options.json, "What has changed as one JSON object");
    command->footer(kExamples);
    return command;
}

int RunReload(const ReloadOptions& options, std::ostream& out, std::ostream& err) {
    return Reload(options, out, err).Run();
}

}  // namespace tarnctl
