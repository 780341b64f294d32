#include "tarnctl/crm_command.h"

#include <ostream>
#include <span>

#include "tarnctl/counted.h"
#include "tarnctl/crm_channel.h"
#include "tarnctl/crm_message.h"
#include "tarnctl/crm_report_text.h"
#include "tarnctl/exit_status.h"
#include "tarnctl/quiet_time.h"
#include "tarnctl/stop_signals.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(Reports are taken out of the queue as they are shown: no other reader sees them.

Examples:
  tarnctl crm                              show reports as they come, until Ctrl-C
  tarnctl crm --count 10 --timeout 30      ten reports, or as many as come before 30 quiet seconds
  tarnctl crm --json | jq .report.issueId  one JSON object a line
  tarnctl crm --channel 3 --fresh          channel 3, without what waits there already)";

class CrmMonitor {
  public:
    CrmMonitor(const CrmOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options),
          m_out(out),
          m_err(err),
          m_channel(options.channel, options.queueName.c_str()),
          m_quiet(options.timeout) {}

    int Run() {
        if (!m_channel.Open()) {
            Say(m_channel.Error());
            return kExitFailure;
        }
        if (m_options.fresh) {
            DiscardWaiting();
        }
        Say("reading channel " + std::to_string(m_options.channel) +
            "; what is shown is consumed and reaches no other reader");
        m_quiet.Restart();
        while (!m_failed && !IsDone()) {
            if (!ReadOne()) {
                m_channel.Wait(m_quiet.TimeToWait());
            }
        }
        Say(Counted(m_reports, "report") +
            (m_malformed > 0 ? ", " + std::to_string(m_malformed) + " malformed" : std::string()));
        return m_failed || m_malformed > 0 ? kExitFailure : kExitFine;
    }

  private:
    void Say(const std::string& text) { m_err << "tarnctl crm: " << text << std::endl; }

    [[nodiscard]] bool IsDone() const {
        return StopRequested() || (m_options.count > 0 && m_reports >= m_options.count) ||
               m_quiet.IsOver();
    }

    void DiscardWaiting() {
        std::span<const std::byte> bytes;
        int ring = 0;
        uint64_t discarded = 0;
        while (m_channel.Next(bytes, ring) == CrmChannel::ReadResult::kMessage) {
            ++discarded;
        }
        Say(Counted(discarded, "waiting report") + " thrown away");
    }

    // Reads and shows one message. False when there is none.
    bool ReadOne() {
        std::span<const std::byte> bytes;
        CrmOrigin origin{m_options.channel, 0};
        switch (m_channel.Next(bytes, origin.ring)) {
            case CrmChannel::ReadResult::kMessage:
                m_quiet.Restart();
                Show(origin, bytes);
                return true;
            case CrmChannel::ReadResult::kDamaged:
                Say(m_channel.Error());
                ++m_malformed;
                return true;
            case CrmChannel::ReadResult::kStuck:
                Say(m_channel.Error());
                m_failed = true;
                return true;
            default:
                return false;
        }
    }

    void Show(const CrmOrigin& origin, std::span<const std::byte> bytes) {
        CrmMessage message;
        const std::string reason = DecodeCrmMessage(bytes, message);
        if (!reason.empty()) {
            ++m_malformed;
            Say("ring -" + std::to_string(origin.ring) + ": malformed report of " +
                Counted(bytes.size(), "byte") + " skipped: " + reason);
            if (m_options.json) {
                Write(MalformedAsJson(origin, reason, bytes));
            }
            return;
        }
        ++m_reports;
        Write(m_options.json ? ReportAsJson(origin, message) : ReportAsLine(message));
    }

    void Write(const std::string& line) {
        m_out << line << std::endl;
        if (!m_out && !m_failed) {
            Say("the output takes no more; the last report was consumed and not shown");
            m_failed = true;
        }
    }

    const CrmOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    CrmChannel m_channel;
    QuietTime m_quiet;
    uint64_t m_reports = 0;
    uint64_t m_malformed = 0;
    bool m_failed = false;
};

}  // namespace

CLI::App* AddCrmCommand(CLI::App& app, CrmOptions& options) {
    CLI::App* command =
        app.add_subcommand("crm", "Show the event reports that tarn sends to the CRM");
    command->add_option("--channel", options.channel, "CRM channel, as tarn.engine.crm")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    command->add_flag("--json", options.json,
                      "One JSON object a line, with every field and the packet in base64");
    command->add_option("--count", options.count, "End after N reports")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    command->add_option("--timeout", options.timeout, "End after S quiet seconds")
        ->type_name("S")
        ->check(CLI::PositiveNumber);
    command->add_flag("--fresh", options.fresh,
                      "Throw away the reports that wait already and show only new ones");
    command->footer(kExamples);
    return command;
}

int RunCrm(const CrmOptions& options, std::ostream& out, std::ostream& err) {
    return CrmMonitor(options, out, err).Run();
}

}  // namespace tarnctl
