#include "tarnctl/crm/crm_command.h"

#include <span>
#include <string>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/number_checks.h"
#include "tarnctl/crm/crm_channel.h"
#include "tarnctl/crm/crm_peek.h"
#include "tarnctl/crm/crm_report_monitor.h"
#include "tarnctl/crm/report_service.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(Reports are taken out of the queue as they are shown: no other reader sees them. With --peek
they stay, and the CRM may run beside it; what the CRM takes before it is shown is not shown.

Examples:
  tarnctl crm                              show reports as they come, until Ctrl-C
  tarnctl crm --count 10 --timeout 30      ten reports, or as many as come before 30 quiet seconds
  tarnctl crm --json | jq .report.issueId  one JSON object a line
  tarnctl crm --channel 3 --fresh          channel 3, without what waits there already
  tarnctl crm --peek --follow              watch a queue that the CRM reads
  tarnctl crm --eve /var/log/eve.json      for a log collector; none is lost
  tarnctl crm --eve eve.json --eve unix:/run/collector --spill waiting
                                           for two; each gets all, however long one is away)";

class CrmMonitor final : public CrmReportMonitor {
  public:
    CrmMonitor(const CrmOptions& options, std::ostream& out, std::ostream& err)
        : CrmReportMonitor(options, out, err),
          m_channel(options.channel, options.queueName.c_str()) {}

  private:
    std::string Begin() override {
        if (!m_channel.Open()) {
            return m_channel.Error();
        }
        if (Options().fresh) {
            DiscardWaiting();
        }
        Say("reading channel " + std::to_string(Options().channel) +
            "; what is shown is consumed and reaches no other reader");
        return "";
    }

    void Serve(std::chrono::milliseconds time) override {
        if (!ReadOne()) {
            m_channel.Wait(time);
        }
    }

    [[nodiscard]] std::string Missing() const override {
        const std::string& ring = m_channel.MissingRing();
        return ring.empty() ? "" : "no ring at " + ring;
    }

    [[nodiscard]] std::string Counts() const override { return Counted(Taken(), "report"); }

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
        CrmOrigin origin{Options().channel, 0};
        switch (m_channel.Next(bytes, origin.ring)) {
            case CrmChannel::ReadResult::kMessage:
                HasNews();
                Show(origin, bytes);
                return true;
            case CrmChannel::ReadResult::kDamaged:
                TellDamaged(m_channel.Error());
                return true;
            case CrmChannel::ReadResult::kStuck:
                Fail(m_channel.Error());
                return true;
            default:
                return false;
        }
    }

    CrmChannel m_channel;
};

}  // namespace

CLI::App* AddCrmCommand(CLI::App& app, CrmOptions& options) {
    CLI::App* command =
        app.add_subcommand("crm", "Show the event reports that tarn sends to the CRM");
    command->add_option("--channel", options.channel, "CRM channel, as tarn.engine.crm")
        ->type_name("N")
        ->check(ZeroOrMore())
        ->capture_default_str();
    AddMonitorOptions(*command, options, "reports", "every field and the packet in base64");
    command->add_flag("--fresh", options.fresh,
                      "Throw away the reports that wait already and show only new ones");
    CLI::Option* const peek =
        command->add_flag("--peek", options.peek, "Show what waits, take nothing, and end");
    peek->excludes("--fresh");
    command->add_flag("--follow", options.follow, "With --peek: go on with what comes")
        ->needs(peek);
    CLI::Option* const eve =
        command->add_option("--eve", options.eve, "Hand reports on as lines of EVE JSON");
    eve->type_name("FILE|-|unix:PATH")->allow_extra_args(false);
    eve->excludes(peek)->excludes("--fresh");
    command->add_flag("--packets", options.packets, "With --eve: add each report's packet")
        ->needs(eve);
    CLI::Option* const spill =
        command->add_option("--spill", options.spill, "With --eve: let reports wait in this file");
    spill->type_name("FILE")->needs(eve);
    command
        ->add_option("--spill-limit", options.spillLimit,
                     "Bytes that wait there at most for each; K, M and G are powers of 1024")
        ->type_name("SIZE")
        ->transform(CLI::AsSizeValue(false))
        ->check(AboveZero())
        ->capture_default_str()
        ->needs(spill);
    command->footer(kExamples);
    return command;
}

int RunCrm(const CrmOptions& options, std::ostream& out, std::ostream& err) {
    if (options.HasSinks()) {
        return RunReportService(options, out, err);
    }
    return options.peek ? RunCrmPeek(options, out, err) : CrmMonitor(options, out, err).Run();
}

}  // namespace tarnctl
