#include "tarnctl/secmgr/secmgr_command.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <string>

#include "quarantine/security_manager_format.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/number_checks.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/quarantine/never_list.h"
#ifdef TARNCTL_WITH_NFTABLES
#include "tarnctl/quarantine/nft_kernel.h"
#endif
#include "tarnctl/secmgr/quarantine_control.h"
#include "tarnctl/secmgr/rule_enforcer.h"
#include "tarnctl/secmgr/secmgr_answer.h"
#include "tarnctl/secmgr/secmgr_server.h"
#include "tarnctl/secmgr/secmgr_text.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(The command takes the security manager's place at its socket; it is refused while one is there.
SIGUSR1 shows the rules in force, as the end does. Without --nft nothing is cut off.

A quarantine in the kernel refuses rules that name no address, whose end has come, or that name an
address of this host, of --never, or that hosts need to reach each other at all: loopback, multicast,
broadcast, link-local, neighbour discovery. A counter lets that many bytes a second pass. SIGHUP
reads the --never-file again.

Examples:
  tarnctl secmgr                              show rules as they come, until Ctrl-C
  tarnctl secmgr --json | jq .parts.intruder  one JSON object per line
  tarnctl secmgr --fail-first 1               close once without an answer, then behave
  tarnctl secmgr --answer 3                   refuse every rule
  tarnctl secmgr --nft --never 10.0.0.0/24    cut off what the rules name, but never that network
  tarnctl secmgr --nft --state FILE           the same, and go on with it after a restart
  tarnctl secmgr --nft --hook bridge          the same on a bridge, for the hosts behind it
  tarnctl secmgr --nft --dry-run              show what would be cut off)";

class SecurityManager final : public Monitor {
  public:
    SecurityManager(const SecmgrOptions& options, std::ostream& out, std::ostream& err)
        : Monitor("secmgr", "rule", options, out, err),
          m_options(options),
          m_enforcer(options, [this](const std::string& text) { Say(text); }),
          m_control(m_enforcer, [this](const std::string& text) { Say(text); }) {}

  private:
    // The socket comes first: it shows whether another manager is there, whose table of nftables
    // must not be touched.
    std::string Begin() override {
        if (!m_options.answer.empty() && !ParseAnswer(m_options.answer, m_wrongAnswer)) {
            return "--answer: \"" + m_options.answer + "\" is no answer";
        }
        std::string reason = m_server.Open(m_options.socketPath);
        if (!reason.empty()) {
            return reason;
        }
        reason = m_options.control.empty() ? "" : m_control.Open(m_options.control);
        reason = reason.empty() ? m_enforcer.Begin() : reason;
        if (reason.empty()) {
            CatchRequests(SIGUSR1);
            if (m_options.nft) {
                CatchRequests(SIGHUP);
            }
            m_server.WakeBy([this](std::vector<pollfd>& entries) {
                // An entry whose descriptor is negative is not waited for.
                entries.push_back({m_options.nft ? m_enforcer.Descriptor() : -1, POLLIN, 0});
                m_control.AddTo(entries);
            });
            Say("serving at " + m_options.socketPath +
                (m_options.nft && !m_options.dryRun ? "; rules cut off traffic"
                                                    : "; nothing is cut off"));
        }
        return reason;
    }

    void Serve(std::chrono::milliseconds time) override {
        ServeClients(time);
        m_enforcer.Upkeep();
        m_control.Serve();
        if (m_options.nft && TakeRequest(SIGHUP)) {
            Reload();
        }
        if (TakeRequest(SIGUSR1)) {
            TellTable();
        }
    }

    void End() override {
        TellTable();
        const std::string reason =
            m_options.nft && m_options.flush ? m_enforcer.Flush() : m_enforcer.Save();
        if (!reason.empty()) {
            Fail(reason);
        }
    }

    [[nodiscard]] std::string Counts() const override {
        return Counted(Taken(), "rule") + ", " + std::to_string(m_accepted) + " accepted";
    }

    void ServeClients(std::chrono::milliseconds time) {
        SecmgrOutcome outcome;
        switch (m_server.Next(outcome.request, time)) {
            case SecmgrServer::Result::kRequest:
                HasNews();
                Decide(outcome);
                if (!m_server.Answer(outcome.answer)) {
                    Say("the client did not take the answer");
                }
                Show(outcome);
                break;
            case SecmgrServer::Result::kMalformed:
                HasNews();
                TellMalformed("request", m_server.Error() + "; its connection is closed",
                              m_server.Malformed(),
                              MalformedAsJson(m_server.Error(), m_server.Malformed()));
                break;
            case SecmgrServer::Result::kNothing:
                break;
        }
    }

    void Decide(SecmgrOutcome& outcome) {
        CountOne();
        const std::string fault = ParseQuarantineText(outcome.request.text, outcome.parts);
        outcome.isRule = fault.empty();
        if (AnswersWrongly()) {
            outcome.answer = m_wrongAnswer;
            outcome.reason = "answered wrongly on purpose: " + AnswerText(m_wrongAnswer);
            return;
        }
        outcome.reason = outcome.isRule
                             ? m_enforcer.PutIntoForce(outcome.parts, outcome.request.text,
                                                       outcome.request.issueId)
                             : fault;
        outcome.accepted = outcome.reason.empty();
        outcome.answer.status = outcome.accepted ? tarn::secmgr::kStatusAdded : kStatusRefused;
        m_accepted += outcome.accepted ? 1U : 0U;
    }

    [[nodiscard]] bool AnswersWrongly() const {
        const bool isTold = !m_options.answer.empty() || m_options.failFirst > 0;
        const bool isRight = m_wrongAnswer.kind == SecmgrAnswer::Kind::kStatus &&
                             m_wrongAnswer.status == tarn::secmgr::kStatusAdded;
        return isTold && !isRight && (m_options.failFirst == 0 || Taken() <= m_options.failFirst);
    }

    void Show(const SecmgrOutcome& outcome) {
        const time_t now = std::time(nullptr);
        Write(WritesJson() ? OutcomeAsJson(outcome, now) : OutcomeAsLine(outcome, now));
    }

    void Reload() {
        const std::string reason = m_enforcer.ReloadLists();
        Say(reason.empty() ? "the lists were read again"
                           : "the lists stay as they were: " + reason);
    }

    void TellTable() {
        m_enforcer.Upkeep();
        m_enforcer.CompareWithKernel();
        const std::list<RuleInForce>& rules = m_enforcer.Table().Rules();
        const time_t now = std::time(nullptr);
        Say(Counted(rules.size(), "rule") + " in force");
        for (const RuleInForce& rule : rules) {
            Say("  " + RuleInForceAsLine(rule, now));
        }
    }

    const SecmgrOptions& m_options;
    SecmgrAnswer m_wrongAnswer{SecmgrAnswer::Kind::kClose, 0};
    SecmgrServer m_server;
    RuleEnforcer m_enforcer;
    QuarantineControl m_control;
    uint64_t m_accepted = 0;
};

std::string CheckAnswer(const std::string& word) {
    SecmgrAnswer answer;
    return ParseAnswer(word, answer) ? "" : word + " is no status, close, silent, short or long";
}

std::string CheckHook(const std::string& word) {
    const bool isKnown = std::any_of(kHookWords.begin(), kHookWords.end(),
                                     [&](const auto& entry) { return entry.first == word; });
    return isKnown ? "" : word + " is none of prerouting, input, forward, output and bridge";
}

std::string CheckNeverEntry(const std::string& entry) {
    return NeverList().Add(entry);
}

}  // namespace

CLI::App* AddSecmgrCommand(CLI::App& app, SecmgrOptions& options) {
    CLI::App* command = app.add_subcommand(
        "secmgr", "Show the quarantine rules that tarn sends to the security manager");
    AddMonitorOptions(*command, options, "rules", "the rule's text and its parts");
    command
        ->add_option("--answer", options.answer,
                     "Answer wrongly on purpose: a status N (15 is right, others refuse), close "
                     "(close without an answer), silent (no answer), short (half an answer, then "
                     "close), long (four bytes too many)")
        ->type_name("N|close|silent|short|long")
        ->check(CLI::Validator(CheckAnswer, "", "answer"));
    command
        ->add_option("--fail-first", options.failFirst,
                     "Answer only the first N rules wrongly, with close unless --answer is given")
        ->type_name("N")
        ->check(AboveZero());
    CLI::Option* const nft = command->add_flag(
        "--nft", options.nft, "Put the rules into force with nftables, in the table inet tarn");
    command
        ->add_option("--hook", options.hook,
                     "Where packets are looked at; may be repeated. Default: prerouting and output")
        ->type_name("prerouting|input|forward|output|bridge")
        ->allow_extra_args(false)
        ->check(CLI::Validator(CheckHook, "", "hook"))
        ->needs(nft);
    command->add_flag("--flush", options.flush, "Remove that table at the end")->needs(nft);
    command
        ->add_option("--state", options.state,
                     "A file in which rules outlive the command and the machine")
        ->type_name("FILE")
        ->needs(nft);
    command
        ->add_flag("--dry-run", options.dryRun,
                   "Judge, answer and show as with --nft, but change neither nftables nor --state")
        ->needs(nft);
    command
        ->add_option("--never", options.never,
                     "An address or network that is never cut off; may be repeated")
        ->type_name("ADDRESS[/PREFIX]")
        ->allow_extra_args(false)
        ->check(CLI::Validator(CheckNeverEntry, "", "never"))
        ->needs(nft);
    command->add_option("--never-file", options.neverFile, "A file of such, one per line")
        ->type_name("FILE")
        ->allow_extra_args(false)
        ->needs(nft);
    command
        ->add_option("--control", options.control,
                     "Serve tarnctl quarantine at this socket; its default is " +
                         std::string(kQuarantineSocket))
        ->type_name("SOCKET");
    command->add_option("--max-rules", options.maxRules, "Refuse rules while N are in force")
        ->type_name("N")
        ->capture_default_str()
        ->check(AboveZero());
#ifdef TARNCTL_WITH_NFTABLES
    options.nftEngine = KernelEngineMaker();
#endif
    command->footer(kExamples);
    return command;
}

int RunSecmgr(const SecmgrOptions& options, std::ostream& out, std::ostream& err) {
    return SecurityManager(options, out, err).Run();
}

}  // namespace tarnctl
