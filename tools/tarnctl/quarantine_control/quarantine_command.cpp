#include "tarnctl/quarantine_control/quarantine_command.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <iostream>
#include <nlohmann/json.hpp>
#include <utility>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/line_link.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/quarantine_control/quarantine_view.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kExamples =
    R"(list shows what is in force, test ADDRESS whether that address is cut off, by which rule, or which
line of the never list protects it. add ADDRESS cuts off what the address sends, remove ADDRESS ends
each rule that names it, flush ends all. A running tarnctl secmgr --control carries it out. Only root
and the user that it runs as may change anything; the group of its socket may list and test.

Examples:
  tarnctl quarantine list
  tarnctl quarantine test 203.0.113.7
  tarnctl quarantine add 203.0.113.7 --for 12h --why "scans since noon"
  tarnctl quarantine list --json | jq '.rules[] | select(.packets > 0).intruder')";

std::string CheckAction(const std::string& word) {
    const bool isKnown =
        word == "list" || word == "test" || word == "add" || word == "remove" || word == "flush";
    return isKnown ? "" : word + " is none of list, test, add, remove and flush";
}

std::string CheckDuration(const std::string& word) {
    return ParseDuration(word) > 0 ? "" : word + " is no duration such as 90s, 30m, 12h or 7d";
}

class QuarantineClient {
  public:
    QuarantineClient(const QuarantineOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options), m_out(out), m_err(err) {}

    int Run() {
        const std::string misuse = Misuse();
        if (!misuse.empty()) {
            Tell(misuse);
            return kExitUsage;
        }
        LineLink link("quarantine", "start tarnctl secmgr --nft --control " + m_options.control);
        std::string reason = link.Open(m_options.control);
        Json answer;
        reason =
            reason.empty() && m_options.action == "flush" && !m_options.yes ? Unwanted() : reason;
        reason =
            reason.empty()
                ? link.Ask(Order().dump(-1, ' ', false, Json::error_handler_t::replace), answer)
                : reason;
        if (reason.empty() && answer.contains("error")) {
            reason = ForTerminal(answer.value("error", "refused"));
        }
        if (!reason.empty()) {
            Tell(reason);
            return kExitFailure;
        }
        if (m_options.json) {
            m_out << answer.dump() << std::endl;
        } else {
            Show(answer);
        }
        return kExitFine;
    }

  private:
    void Tell(const std::string& text) { m_err << "tarnctl quarantine: " << text << std::endl; }
    void Line(const std::string& line) {
        m_out << CutToWidth(line, m_options.Width()) << std::endl;
    }

    [[nodiscard]] std::string Misuse() const {
        const bool takesNone = m_options.action == "list" || m_options.action == "flush";
        if (takesNone != m_options.address.empty()) {
            return m_options.action + (takesNone ? " takes no address" : " needs an address");
        }
        return "";
    }

    // Why nothing is to be flushed; empty if it is wanted.
    [[nodiscard]] std::string Unwanted() {
        if (isatty(STDIN_FILENO) != 1) {
            return "nothing was ended: there is no terminal to ask at; use --yes";
        }
        m_err << "End every quarantine that is in force? [y/N] " << std::flush;
        std::string answer;
        std::getline(std::cin, answer);
        return answer == "y" || answer == "Y" || answer == "yes" ? "" : "nothing was ended";
    }

    [[nodiscard]] Json Order() const {
        Json order;
        order["do"] = m_options.action;
        if (!m_options.address.empty()) {
            order["address"] = m_options.address;
        }
        if (m_options.action == "add") {
            order["seconds"] = ParseDuration(m_options.duration);
            order["why"] = m_options.why;
        }
        return order;
    }

    void Show(const Json& answer) {
        if (answer.contains("added")) {
            const Json rule = answer["added"].is_object() ? answer["added"] : Json::object();
            Line("in force for " + RemainingText(rule.value("secondsLeft", int64_t{0})) + ": " +
                 ForTerminal(rule.value("rule", "")));
        } else if (answer.contains("removed")) {
            Line(Counted(answer["removed"].size(), "rule") + " ended");
            ShowRules(answer["removed"]);
        } else if (answer.contains("address")) {
            Line(QuarantineVerdict(answer));
            ShowRules(answer.value("rules", Json::array()));
        } else {
            const Json rules = answer.value("rules", Json::array());
            Line(Counted(rules.size(), "rule") + " in force" +
                 (answer.value("cutsOff", false) ? "" : "; nothing is cut off"));
            ShowRules(rules);
        }
    }

    void ShowRules(const Json& rules) {
        for (const Json& rule : rules) {
            m_out << QuarantineLine(rule, m_options) << "\n";
        }
        m_out << std::flush;
    }

    const QuarantineOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
};

}  // namespace

int64_t ParseDuration(const std::string& text) {
    constexpr int64_t kMost = int64_t{36500} * 86400;
    constexpr std::array<std::pair<std::string_view, int64_t>, 5> kUnits = {
        {{"", 1}, {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}}};
    int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || number < 1) {
        return 0;
    }
    for (const auto& [name, length] : kUnits) {
        if (std::string_view(rest, static_cast<size_t>(end - rest)) == name) {
            return number <= kMost / length ? number * length : 0;
        }
    }
    return 0;
}

CLI::App* AddQuarantineCommand(CLI::App& app, QuarantineOptions& options) {
    CLI::App* command =
        app.add_subcommand("quarantine", "Show and change what tarnctl secmgr has in force");
    command->add_option("ACTION", options.action, "What to do")
        ->type_name("list|test|add|remove|flush")
        ->check(CLI::Validator(CheckAction, "", "action"))
        ->required();
    command->add_option("ADDRESS", options.address, "The address of test, add and remove");
    command->add_option("--for", options.duration, "How long add cuts off: 90s, 30m, 12h, 7d")
        ->type_name("DURATION")
        ->capture_default_str()
        ->check(CLI::Validator(CheckDuration, "", "duration"));
    command->add_option("--why", options.why, "The reason of add, which list shows")
        ->type_name("TEXT");
    command->add_flag("--json", options.json, "One JSON object, as docs/schemas/quarantine.json");
    command->add_flag("--yes", options.yes, "Let flush end all without asking");
    command->add_option("--control", options.control, "The socket of the service")
        ->type_name("SOCKET")
        ->capture_default_str();
    AddWideOption(*command, options);
    command->footer(kExamples);
    return command;
}

int RunQuarantine(const QuarantineOptions& options, std::ostream& out, std::ostream& err) {
    return QuarantineClient(options, out, err).Run();
}

}  // namespace tarnctl
