#include "tarnctl/command_line.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tarnctl/common/descriptor_output.h"
#include "tarnctl/common/display.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/help_text.h"
#include "tarnctl/common/nearest_word.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/completion.h"
#include "tarnctl/sub_commands.h"
#include "version.h"

namespace tarnctl {
namespace {

constexpr const char* kProgram = "tarnctl";
constexpr size_t kShortOption = 2;  // letters of "-c"

constexpr const char* kExamples =
    R"(Data goes to standard output and messages to standard error; a file named - is standard input or
output. Exit status: 0 fine, 1 the work could not be done, 2 the command line is wrong.

Examples:
  tarnctl crm --timeout 10 &                 show the reports of a running tarn
  tarnctl replay samples/sensor-302-alerts.u2  play a recorded sensor
  tarnctl help replay                        the options of a sub-command)";

class CommandLine {
  public:
    CommandLine(int argc, char** argv, std::ostream& out, std::ostream& err)
        : m_words(argv + 1, argv + std::max(argc, 1)), m_out(out), m_err(err) {
        m_app.set_help_flag("-h,--help", "Show this help and end");
        m_app.set_version_flag("--version", "tarnctl " TARN_VERSION);
        m_app.get_option("--version")->description("Show the version and end");
        m_app.require_subcommand(1);
        m_app.footer(kExamples);
        // A flag is on or off: "--json=no" is a slip and not a flag that is off. The sub-commands
        // take this over.
        m_app.option_defaults()->disable_flag_override();
        m_app.formatter_fn([this](const CLI::App* app, const std::string& name,
                                  CLI::AppFormatMode) { return HelpText(*app, name, m_width); });
        for (const auto& command : m_commands) {
            m_added.push_back(command->Add(m_app));
        }
        m_help = m_app.add_subcommand("help", "Show the help of tarnctl or of a sub-command");
        m_help->footer("Examples:\n  tarnctl help\n  tarnctl help replay");
        m_help->add_option("SUB-COMMAND", m_helpTopic, "What the help is about");
        m_completion = m_app.add_subcommand("completion", "Print the completion script of a shell");
        m_completion->footer("Examples:\n  source <(tarnctl completion bash)");
        m_completion->add_option("SHELL", m_shell, "bash, zsh or fish")
            ->type_name("bash|zsh|fish")
            ->required();
    }

    int Run() {
        CatchStopSignals();  // before the first output, which may go to a closed pipe
        if (!m_words.empty() && !m_words.front().starts_with('-') &&
            !IsSubCommand(m_words.front())) {
            return RefuseSubCommand(m_words.front());
        }
        try {
            // The parser takes the words from the end of its list.
            m_app.parse(std::vector<std::string>(m_words.rbegin(), m_words.rend()));
        } catch (const CLI::Success& request) {
            (void)m_app.exit(request, m_out, m_err);  // help and version, which it prints
            return kExitFine;
        } catch (const CLI::ExtrasError&) {
            return Refuse("unexpected word '" + m_app.remaining(true).front() + "'");
        } catch (const CLI::ParseError& fault) {
            return Refuse(fault.what());
        }
        if (m_help->parsed()) {
            return ShowHelp();
        }
        if (m_completion->parsed()) {
            return ShowCompletion();
        }
        for (size_t i = 0; i < m_commands.size(); ++i) {
            if (m_added[i]->parsed()) {
                return m_commands[i]->Run(m_out, m_err);
            }
        }
        return kExitUsage;
    }

  private:
    // The columns of a help: those of the usual page, or of a terminal that is narrower.
    static size_t HelpColumns() {
        const size_t terminal = TerminalWidth(STDOUT_FILENO);
        return terminal == 0 ? kHelpWidth : std::min(terminal, kHelpWidth);
    }

    [[nodiscard]] std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const CLI::App* const command : m_app.get_subcommands({})) {
            names.push_back(command->get_name());
        }
        return names;
    }

    [[nodiscard]] bool IsSubCommand(const std::string& word) const {
        const std::vector<std::string> names = Names();
        return std::find(names.begin(), names.end(), word) != names.end();
    }

    int RefuseSubCommand(const std::string& word) {
        const std::string meant = DidYouMean(word, Names());
        m_err << kProgram << ": unknown sub-command '" << word << "'"
              << (meant.empty() ? "; see 'tarnctl help'" : meant) << std::endl;
        return kExitUsage;
    }

    int ShowHelp() {
        if (m_helpTopic.empty()) {
            m_out << HelpText(m_app, kProgram, m_width);
            return kExitFine;
        }
        if (!IsSubCommand(m_helpTopic)) {
            return RefuseSubCommand(m_helpTopic);
        }
        m_out << HelpText(*m_app.get_subcommand(m_helpTopic),
                          std::string(kProgram) + " " + m_helpTopic, m_width);
        return kExitFine;
    }

    int ShowCompletion() {
        const std::string script = CompletionScript(m_app, m_shell);
        if (script.empty()) {
            return Refuse("there is no completion for '" + m_shell + "'");
        }
        m_out << script;
        return kExitFine;
    }

    // Says what is wrong with the command line. An option that nobody knows comes first, since what
    // the parser says of it is often about what follows from it.
    int Refuse(std::string fault) {
        const bool hasCommand = !m_words.empty() && IsSubCommand(m_words.front());
        const CLI::App& command = hasCommand ? *m_app.get_subcommand(m_words.front()) : m_app;
        const std::string name =
            hasCommand ? std::string(kProgram) + " " + m_words.front() : kProgram;
        const std::string unknown = UnknownOption(command, hasCommand ? 1 : 0);
        if (!unknown.empty()) {
            const std::string meant = DidYouMean(unknown, OptionNames(command));
            fault = "unknown option '" + unknown + "'" + meant;
        } else if (const std::string flag = FlagWithValue(command); !flag.empty()) {
            fault = "option '" + flag + "' takes no value";
        } else if (m_words.empty()) {
            fault = "a sub-command is missing";
        }
        m_err << name << ": " << fault << (fault.ends_with('?') ? " See '" : "; see '") << name
              << " --help'" << std::endl;
        return kExitUsage;
    }

    static std::vector<std::string> OptionNames(const CLI::App& command) {
        std::vector<std::string> names;
        for (const CLI::Option* const option : command.get_options({})) {
            for (const std::string& name : option->get_lnames()) {
                names.push_back("--" + name);
            }
        }
        return names;
    }

    static bool TakesValue(const CLI::Option& option) {
        return option.get_items_expected_max() != 0;
    }

    // The first flag that was given a value, as "--json=no", or an empty text.
    [[nodiscard]] std::string FlagWithValue(const CLI::App& command) const {
        for (const std::string& word : m_words) {
            std::string name = word.substr(0, word.find('='));
            const CLI::Option* const option =
                name.starts_with("--") ? command.get_option_no_throw(name) : nullptr;
            if (option != nullptr && !TakesValue(*option) && name.size() < word.size()) {
                return name;
            }
        }
        return "";
    }

    // The first option from the word `first` on that the command does not have, or an empty text.
    [[nodiscard]] std::string UnknownOption(const CLI::App& command, size_t first) const {
        for (size_t i = first; i < m_words.size() && m_words[i] != "--"; ++i) {
            const std::string& word = m_words[i];
            if (!word.starts_with('-') || word == "-") {
                continue;
            }
            // The value of a short option may follow its letter at once.
            std::string name =
                word.substr(0, word.starts_with("--") ? word.find('=') : kShortOption);
            const CLI::Option* const option = command.get_option_no_throw(name);
            if (option == nullptr) {
                return name;
            }
            const bool hasValue = TakesValue(*option) && name.size() == word.size();
            i += hasValue ? 1 : 0;
        }
        return "";
    }

    const std::vector<std::string> m_words;
    std::ostream& m_out;
    std::ostream& m_err;
    const size_t m_width = HelpColumns();
    // The options that the parser fills are within the commands, so these outlive it.
    const std::vector<std::unique_ptr<SubCommand>> m_commands = MakeSubCommands();
    CLI::App m_app{"The companion command of tarn: watches and feeds a running daemon.", kProgram};
    std::vector<const CLI::App*> m_added;  // in the order of m_commands; borrowed from m_app
    CLI::App* m_help = nullptr;            // borrowed from m_app
    std::string m_helpTopic;
    CLI::App* m_completion = nullptr;  // borrowed from m_app
    std::string m_shell;
};

}  // namespace

int RunCommandLine(int argc, char** argv, std::ostream& out, std::ostream& err) {
    const int status = CommandLine(argc, argv, out, err).Run();
    const std::string fault = OutputFault(out);
    if (!fault.empty()) {
        err << kProgram << ": " << fault << std::endl;
        return status == kExitUsage ? status : kExitFailure;
    }
    return status;
}

}  // namespace tarnctl
