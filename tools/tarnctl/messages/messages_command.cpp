#include "tarnctl/messages/messages_command.h"

#include <span>
#include <string>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/message_socket.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/messages/text_message.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(The command takes the CRM's place at its socket; it is refused while the CRM is there.

Examples:
  tarnctl messages                           show messages as they come, until Ctrl-C
  tarnctl messages --count 1 --timeout 30    one message, or none before 30 quiet seconds
  tarnctl messages --json | jq -r .text      one JSON object a line)";

class MessageMonitor final : public Monitor {
  public:
    MessageMonitor(const MessagesOptions& options, std::ostream& out, std::ostream& err)
        : Monitor("messages", "message", options, out, err), m_options(options) {}

  private:
    std::string Begin() override {
        std::string obstacle = m_socket.Open(m_options.socketPath);
        if (obstacle.empty()) {
            Say("receiving at " + m_options.socketPath);
        }
        return obstacle;
    }

    void Serve(std::chrono::milliseconds time) override {
        std::span<const std::byte> bytes;
        if (m_socket.Next(bytes, time)) {
            HasNews();
            Show(bytes);
        }
    }

    [[nodiscard]] std::string Counts() const override { return Counted(Taken(), "message"); }

    void Show(std::span<const std::byte> bytes) {
        TextMessage message;
        const std::string reason = DecodeTextMessage(bytes, message);
        if (!reason.empty()) {
            TellMalformed("message", reason + ":" + HexDigits(bytes), bytes,
                          MalformedAsJson(reason, bytes));
            return;
        }
        CountOne();
        Write(WritesJson() ? TextMessageAsJson(message) : TextMessageAsLine(message, m_options));
    }

    const MessagesOptions& m_options;
    MessageSocket m_socket;
};

}  // namespace

CLI::App* AddMessagesCommand(CLI::App& app, MessagesOptions& options) {
    CLI::App* command =
        app.add_subcommand("messages", "Show the text messages that tarn sends to the CRM");
    AddMonitorOptions(*command, options, "messages", "time, kind and text");
    command->footer(kExamples);
    return command;
}

int RunMessages(const MessagesOptions& options, std::ostream& out, std::ostream& err) {
    return MessageMonitor(options, out, err).Run();
}

}  // namespace tarnctl
