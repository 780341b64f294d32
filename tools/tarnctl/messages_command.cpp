#include "tarnctl/messages_command.h"

#include <ostream>
#include <span>

#include "tarnctl/counted.h"
#include "tarnctl/exit_status.h"
#include "tarnctl/message_socket.h"
#include "tarnctl/quiet_time.h"
#include "tarnctl/stop_signals.h"
#include "tarnctl/text_message.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(The command takes the CRM's place at its socket; it is refused while the CRM is there.

Examples:
  tarnctl messages                           show messages as they come, until Ctrl-C
  tarnctl messages --count 1 --timeout 30    one message, or none before 30 quiet seconds
  tarnctl messages --json | jq -r .text      one JSON object a line)";

class MessageMonitor {
  public:
    MessageMonitor(const MessagesOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options),
          m_out(out),
          m_err(err),
          m_socket(options.socketPath),
          m_quiet(options.timeout) {}

    int Run() {
        if (!m_socket.Open()) {
            Say(m_socket.Error());
            return kExitFailure;
        }
        Say("receiving at " + m_options.socketPath);
        m_quiet.Restart();
        while (!m_failed && !IsDone()) {
            std::span<const std::byte> bytes;
            if (m_socket.Next(bytes, m_quiet.TimeToWait())) {
                m_quiet.Restart();
                Show(bytes);
            }
        }
        Say(Counted(m_messages, "message") +
            (m_malformed > 0 ? ", " + std::to_string(m_malformed) + " malformed" : std::string()));
        return m_failed || m_malformed > 0 ? kExitFailure : kExitFine;
    }

  private:
    void Say(const std::string& text) { m_err << "tarnctl messages: " << text << std::endl; }

    [[nodiscard]] bool IsDone() const {
        return StopRequested() || (m_options.count > 0 && m_messages >= m_options.count) ||
               m_quiet.IsOver();
    }

    void Show(std::span<const std::byte> bytes) {
        TextMessage message;
        const std::string reason = DecodeTextMessage(bytes, message);
        if (!reason.empty()) {
            ++m_malformed;
            Say(StrangeDatagramAsLine(reason, bytes));
            if (m_options.json) {
                Write(StrangeDatagramAsJson(reason, bytes));
            }
            return;
        }
        ++m_messages;
        Write(m_options.json ? TextMessageAsJson(message) : TextMessageAsLine(message));
    }

    void Write(const std::string& line) {
        m_out << line << std::endl;
        if (!m_out && !m_failed) {
            Say("the output takes no more; the last message was received and not shown");
            m_failed = true;
        }
    }

    const MessagesOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    MessageSocket m_socket;
    QuietTime m_quiet;
    uint64_t m_messages = 0;
    uint64_t m_malformed = 0;
    bool m_failed = false;
};

}  // namespace

CLI::App* AddMessagesCommand(CLI::App& app, MessagesOptions& options) {
    CLI::App* command =
        app.add_subcommand("messages", "Show the text messages that tarn sends to the CRM");
    command->add_flag("--json", options.json, "One JSON object a line");
    command->add_option("--count", options.count, "End after N messages")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    command->add_option("--timeout", options.timeout, "End after S quiet seconds")
        ->type_name("S")
        ->check(CLI::PositiveNumber);
    command->footer(kExamples);
    return command;
}

int RunMessages(const MessagesOptions& options, std::ostream& out, std::ostream& err) {
    return MessageMonitor(options, out, err).Run();
}

}  // namespace tarnctl
