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
  tarnctl crm --eve f.json --eve unix:/s   to a file and a socket, and each gets all
  tarnctl crm --redis db:6379 --stream x   for whoever reads a stream of Redis)";

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

// An option that looks at reports or throws them away, and one that hands them on, are of no use
// together.
void AddSinks(CLI::App& command, CrmOptions& options) {
    CLI::Option* const eve =
        command.add_option("--eve", options.eve, "Hand reports on as lines of EVE JSON");
    eve->type_name("FILE|-|unix:PATH")->allow_extra_args(false);
    CLI::Option* const redis = command.add_option(
        "--redis", options.redis, "Hand such lines on to a stream of this Redis server");
    redis->type_name("HOST:PORT|unix:PATH");
    CLI::Option* const stream = command.add_option("--stream", options.stream, "The stream's key");
    stream->type_name("KEY")->needs(redis);
    redis->needs(stream);
    command
        .add_option("--stream-limit", options.streamLimit, "Entries that the stream keeps, about")
        ->type_name("N")
        ->check(AboveZero())
        ->capture_default_str()
        ->needs(redis);
    CLI::Option* const kafka = command.add_option(
        "--kafka", options.kafka, "Hand such lines on to a topic of the Kafka cluster of brokers");
    kafka->type_name("HOST:PORT,...");
    CLI::Option* const topic = command.add_option("--topic", options.topic, "The topic");
    topic->type_name("TOPIC")->needs(kafka);
    kafka->needs(topic);
    for (CLI::Option* const sink : {eve, redis, kafka}) {
        sink->excludes("--peek")->excludes("--fresh");
    }
}

// What the sinks have in common.
void AddSinkOptions(CLI::App& command, CrmOptions& options) {
    CLI::Option* const packets = command.add_flag("--packets", options.packets,
                                                  "Add each report's packet to what is handed on");
    CLI::Option* const spill = command.add_option(
        "--spill", options.spill, "Let reports wait in this file while they cannot be handed on");
    spill->type_name("FILE");
    command
        .add_option("--spill-limit", options.spillLimit,
                    "Bytes that wait there at most for each; K, M and G are powers of 1024")
        ->type_name("SIZE")
        ->transform(CLI::AsSizeValue(false))
        ->check(AboveZero())
        ->capture_default_str()
        ->needs(spill);
    command.callback([&options, packets, spill] {
        for (const CLI::Option* const option : {packets, spill}) {
            if (option->count() != 0 && !options.HasSinks()) {
                throw CLI::RequiresError(option->get_name(), "--eve, --redis or --kafka");
            }
        }
    });
}

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
    AddSinks(*command, options);
    AddSinkOptions(*command, options);
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
