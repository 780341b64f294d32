#include "tarnctl/show/show_command.h"

#include <array>
#include <map>
#include <ostream>
#include <span>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/descriptor_output.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/record_file.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/show/packet_file.h"
#include "tarnctl/show/record_text.h"
#include "unified2/unified2_format.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(Filters choose events; the packets and extra data of an event are shown with it. A file that is
damaged is shown as far as it goes, and the place is named.

Examples:
  tarnctl show /var/log/snort/unified2.log.1700000000
  tarnctl show --sid 1000001 --ip 10.0.0.0/8 --hex alerts.u2
  tarnctl show --since "2026-11-21 08:00" --json alerts.u2 | jq .signatureId
  tarnctl show --pcap packets.pcap alerts.u2
  zcat alerts.u2.gz | tarnctl show -)";

// How many records go by between two looks at whether anybody reads the output.
constexpr uint64_t kLooks = 256;

class Show {
  public:
    Show(const ShowOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options), m_out(out), m_err(err), m_filter(options.query) {}

    int Run() {
        m_file.TellWaits([this](const std::string& text) { Tell(text); });
        if (!m_file.Open(m_options.file)) {
            return Fail(m_file.Error());
        }
        if (!m_options.pcap.empty() && !m_packets.Open(m_options.pcap)) {
            return Fail(m_packets.Error());
        }
        int status = ShowAll();
        m_out.flush();
        if (!m_options.pcap.empty() && m_packets.Error().empty() && !ClosePackets()) {
            status = kExitFailure;
        }
        if (!IsReaderGone(m_out)) {
            Tell(Counts());
        }
        return m_malformed == 0 ? status : kExitFailure;
    }

  private:
    void Tell(const std::string& text) {
        m_out.flush();
        m_err << "tarnctl show: " << text << std::endl;
    }
    int Fail(const std::string& text) {
        Tell(text);
        return kExitFailure;
    }

    int ShowAll() {
        while (true) {
            switch (m_file.Next()) {
                case RecordResult::kRecord:
                    break;
                case RecordResult::kEnd:
                case RecordResult::kStopped:
                    return kExitFine;
                default:
                    return Fail(m_file.Error());
            }
            if (!ShowOne()) {
                return kExitFailure;
            }
            ++m_records;
            const bool isTime = m_records % kLooks == 0;
            if (!m_out || StopRequested() || (isTime && IsReaderGone(m_out))) {
                return kExitFine;  // an output that takes no more is told of where it ends
            }
        }
    }

    // False when the packet cannot be written.
    bool ShowOne() {
        const std::span<const std::byte> payload =
            std::span(m_file.Bytes()).subspan(sizeof(unified2::RecordHeader));
        const RecordPlace place{m_file.Offset(), m_file.Type(),
                                static_cast<uint32_t>(payload.size())};
        const std::string reason = DecodeRecord(place.type, payload, m_content);
        if (!reason.empty()) {
            ++m_malformed;
            Tell("malformed record of type " + std::to_string(place.type) + " at offset " +
                 std::to_string(place.offset) + ": " + reason);
            if (m_options.json) {
                m_out << MalformedRecordAsJson(place, reason, payload) << '\n';
            }
            return true;
        }
        if (!m_filter.Passes(m_content)) {
            return true;
        }
        ++m_shown[KindOfRecord(place.type)];
        if (m_options.json) {
            m_out << RecordAsJson(place, m_content) << '\n';
        } else {
            m_out << RecordAsLine(place, m_content, m_options) << '\n';
            if (m_options.hex) {
                m_out << HexLines(CarriedBytes(m_content));
            }
        }
        // A person sees each record as it comes.
        if (m_options.isTerminal || m_options.file == "-") {
            m_out.flush();
        }
        const auto* const packet = std::get_if<PacketContent>(&m_content);
        if (packet != nullptr && !m_options.pcap.empty() && !m_packets.Write(*packet)) {
            Tell(m_packets.Error());
            return false;
        }
        return true;
    }

    bool ClosePackets() {
        if (!m_packets.Close()) {
            Tell(m_packets.Error());
            return false;
        }
        if (m_packets.OfAnotherLink() > 0) {
            Tell(Counted(m_packets.OfAnotherLink(), "packet") + " of another link type than the " +
                 "first " + (m_packets.OfAnotherLink() == 1 ? "is" : "are") + " not in " +
                 m_options.pcap);
            return false;
        }
        return true;
    }

    [[nodiscard]] std::string Counts() const {
        std::string text;
        for (const auto& [kind, count] : m_shown) {
            const bool isPlural = kind != "extra data" && kind != "application statistics" &&
                                  kind != "performance" && kind != "unknown";
            text += (text.empty() ? "" : ", ") +
                    (isPlural ? Counted(count, kind) : std::to_string(count) + " " + kind);
        }
        text = text.empty() ? "no records" : text;
        if (m_malformed > 0) {
            text += ", " + std::to_string(m_malformed) + " malformed";
        }
        return text;
    }

    const ShowOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    RecordFile m_file;
    RecordFilter m_filter;
    PacketFile m_packets;
    RecordContent m_content;
    std::map<std::string, uint64_t> m_shown;  // by kind
    uint64_t m_records = 0;
    uint64_t m_malformed = 0;
};

// Declares an option that is a time.
void AddTime(CLI::App& command, const char* name, std::optional<uint64_t>& time,
             const char* meaning) {
    command
        .add_option_function<std::string>(
            name,
            [&time, name](const std::string& text) {
                time = ParseTime(text);
                if (!time) {
                    throw CLI::ValidationError(std::string(name) + ": " + text +
                                               " is no time; give YYYY-MM-DD HH:MM:SS or seconds "
                                               "since 1970");
                }
            },
            meaning)
        ->type_name("TIME");
}

}  // namespace

CLI::App* AddShowCommand(CLI::App& app, ShowOptions& options) {
    CLI::App* command = app.add_subcommand("show", "Show the records of a unified2 file");
    command->add_option("FILE", options.file, "unified2 file; - is standard input")->required();
    command->add_flag("--json", options.json, "One JSON object a line, with every field");
    command->add_flag("--hex", options.hex, "Show the bytes of packets and extra data, too");
    command->add_option("--pcap", options.pcap, "Write the packets into a capture file")
        ->type_name("PATH");
    command->add_option("--sid", options.query.signatures, "Events of this signature only")
        ->type_name("N");
    command->add_option("--gid", options.query.generators, "Events of this generator only")
        ->type_name("N");
    command
        ->add_option_function<std::vector<std::string>>(
            "--ip",
            [&options](const std::vector<std::string>& words) {
                for (const std::string& word : words) {
                    IpNetwork network;
                    const std::string fault = ParseIpNetwork(word, network);
                    if (!fault.empty()) {
                        throw CLI::ValidationError("--ip: " + fault);
                    }
                    options.query.networks.push_back(network);
                }
            },
            "Events from or to this address or network only")
        ->type_name("ADDRESS[/PREFIX]");
    AddTime(*command, "--since", options.query.since, "Events at or after this time only");
    AddTime(*command, "--until", options.query.until, "Events before this time only");
    AddWideOption(*command, options);
    for (CLI::Option* const option : command->get_options()) {
        if (option->get_name() == "--sid" || option->get_name() == "--gid" ||
            option->get_name() == "--ip") {
            option->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
        }
    }
    command->footer(kExamples);
    return command;
}

int RunShow(const ShowOptions& options, std::ostream& out, std::ostream& err) {
    return Show(options, out, err).Run();
}

}  // namespace tarnctl
