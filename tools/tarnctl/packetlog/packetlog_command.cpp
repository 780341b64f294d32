#include "tarnctl/packetlog/packetlog_command.h"

#include <poll.h>
#include <sys/file.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <span>

#include "packet_log/packet_log_format.h"
#include "ring/shm_event_pipe.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/message_socket.h"
#include "tarnctl/common/number_checks.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/packetlog/datagram_queue.h"
#include "tarnctl/packetlog/packet_log_message.h"
#include "tarnctl/packetlog/packet_store.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(The command takes the packet logging daemon's place; it is refused while that one is there.
all.pcap takes every packet. event-ID.pcap is the newest file of an event; before it would grow
beyond the kilobytes of the request it becomes event-ID.1.pcap and so on, and as many files are
kept as the request says. Each run begins files of its own, and numbers those that it finds.

Examples:
  tarnctl packetlog --dir /tmp/captures            until Ctrl-C
  tarnctl packetlog --dir . --keep-bytes 10G       no more than that, as a service
  tarnctl packetlog --dir . --ring 0               what a writer puts into its ring as well
  tarnctl packetlog --dir . --stop-reading         a daemon that hangs: its socket fills)";

// A ring wakes nobody when something waits, so it is looked at this often.
constexpr std::chrono::milliseconds kRingWait{10};

class PacketLogMonitor final : public Monitor {
  public:
    PacketLogMonitor(const PacketLogOptions& options, std::ostream& out, std::ostream& err)
        : Monitor("packetlog", "message", options, out, err),
          m_options(options),
          m_store(options) {}

    [[nodiscard]] bool HasLost() const { return m_store.Lost() > 0; }

  private:
    // The socket comes first: it shows whether another receiver is there, whose files must not be
    // begun again.
    std::string Begin() override {
        std::string obstacle = m_socket.Open(m_options.socketPath);
        if (obstacle.empty() && m_options.ring >= 0) {
            obstacle = OpenRing();
        }
        if (obstacle.empty()) {
            obstacle = m_store.Open();
        }
        if (obstacle.empty()) {
            Say("receiving at " + m_options.socketPath);
            Say(DatagramQueueWords(DatagramQueueLimit()));
        }
        return obstacle;
    }

    [[nodiscard]] std::string Counts() const override {
        return Counted(Taken() - m_records, "message") + ", " + Counted(m_records, "record") +
               ", " + Counted(m_packets, "packet") +
               (m_dropped > 0 ? ", " + std::to_string(m_dropped) + " dropped" : std::string()) +
               m_store.Counts();
    }

    // Returns an empty string, or the reason why the ring cannot be drained.
    std::string OpenRing() {
        std::string path = m_options.ringPath;
        if (path.empty()) {
            char text[64];
            std::snprintf(text, sizeof(text), tarn::paths::kPacketLogRing, m_options.ring);
            path = text;
        }
        m_ring = std::make_unique<ShmEventPipe>(READER, path, kPacketLogRingSize);
        m_record = std::make_unique<std::byte[]>(kPacketLogRingSize);
        if (!m_ring->Open(true)) {
            return path + ": the ring cannot be mapped; run this as the writer's user";
        }
        // Two readers of one ring would take each other's records.
        if (flock(m_ring->m_iFd, LOCK_EX | LOCK_NB) != 0) {
            return path + ": another tarnctl reads this ring; stop it first";
        }
        return "";
    }

    void Serve(std::chrono::milliseconds time) override {
        for (const std::string& news : m_store.LookAfter()) {
            Say(news);
        }
        if (m_ring != nullptr) {
            time = TakeRecord() ? std::chrono::milliseconds(0) : std::min(time, kRingWait);
        }
        if (m_options.stopReading) {
            poll(nullptr, 0, static_cast<int>(time.count()));
            return;
        }
        std::span<const std::byte> datagram;
        if (!IsDone() && m_socket.Next(datagram, time)) {
            HasNews();
            if (m_dropped < m_options.drop) {
                ++m_dropped;
            } else {
                Show(datagram);
            }
        }
    }

    // The words cost many times what the packet costs, so they are made only where they are shown.
    void Show(std::span<const std::byte> datagram) {
        PacketLogMessage message;
        const std::string reason = m_options.quiet
                                       ? CheckPacketLogMessage(datagram)
                                       : DecodePacketLogMessage(datagram, message, m_options);
        if (!reason.empty()) {
            TellMalformed("message", reason, datagram, MalformedAsJson(reason, datagram));
            return;
        }
        CountOne();
        if (!m_options.quiet) {
            Write(WritesJson() ? message.json : message.line);
        }
        Keep(PacketIn(datagram));
    }

    // Takes one record off the ring. False when there is none.
    bool TakeRecord() {
        uint32_t size = kPacketLogRingSize;
        switch (m_ring->read(m_record.get(), &size)) {
            case PIPE_OK:
                break;
            case PIPE_ERROR:
                TellDamaged("the ring is damaged; what waited in it is lost");
                return false;
            default:
                return false;
        }
        HasNews();
        const std::span bytes(m_record.get(), size);
        PacketLogRecord record;
        if (bytes.size() < sizeof(record)) {
            SkipRecord("shorter than 72 bytes", bytes);
            return true;
        }
        std::memcpy(&record, bytes.data(), sizeof(record));
        if (record.uRecordType != 0) {
            SkipRecord("unknown type " + std::to_string(record.uRecordType), bytes);
            return true;
        }
        CountOne();
        ++m_records;
        const auto packet = bytes.subspan(sizeof(record));
        if (!m_options.quiet) {
            Write(RecordText(record, packet));
        }
        Keep({0, 0, 0, record.uSeconds, record.uMicroseconds, record.uPacketLength, packet,
              "ring " + std::to_string(m_options.ring) + ", values " +
                  std::to_string(record.uValueA) + " " + std::to_string(record.uValueB) + " " +
                  std::to_string(record.uValueC)});
        return true;
    }

    std::string RecordText(const PacketLogRecord& record, std::span<const std::byte> packet) const {
        nlohmann::ordered_json fields;
        fields["name"] = "Record";
        fields["runningLength"] = record.uRunningLength;
        fields["valueA"] = record.uValueA;
        fields["valueB"] = record.uValueB;
        fields["valueC"] = record.uValueC;
        fields["packetLength"] = record.uPacketLength;
        fields["capturedSize"] = record.iCapturedSize;
        fields["time"] = TimeAsJson(record.uSeconds, record.uMicroseconds);
        fields["frameNumber"] = record.uFrameNumber;
        fields["reserved"] = record.uReserved;
        fields["flags"] = record.uFlags;
        fields["adapterId"] = record.uAdapterID;
        if (WritesJson()) {
            if (!packet.empty()) {
                fields["packet"] = Base64(packet);
            }
            return fields.dump();
        }
        return FieldsAsLine(fields, m_options);
    }

    void Keep(const CapturedPacket& packet) {
        if (packet.bytes.empty()) {
            return;
        }
        ++m_packets;
        for (const std::string& news : m_store.Keep(packet)) {
            Say(news);
        }
    }

    void SkipRecord(const std::string& reason, std::span<const std::byte> bytes) {
        TellMalformed("record", reason, bytes, MalformedAsJson(reason, bytes));
    }

    const PacketLogOptions& m_options;
    MessageSocket m_socket;
    PacketStore m_store;
    std::unique_ptr<ShmEventPipe> m_ring;   // null: none is drained
    std::unique_ptr<std::byte[]> m_record;  // as large as the ring
    uint64_t m_records = 0;                 // of all that was taken
    uint64_t m_packets = 0;
    uint64_t m_dropped = 0;
};

std::string CheckFormat(std::string& word) {
    return CaptureFormatFrom(word) ? "" : word + " is neither pcap nor pcapng";
}

void AddCaptureFileOptions(CLI::App& command, PacketLogOptions& options) {
    command.add_option("--format", options.format, "Format of the files; pcapng has comments")
        ->type_name("pcap|pcapng")
        ->check(CLI::Validator(CheckFormat, "", "format"))
        ->capture_default_str();
    command.add_option("--group", options.group, "Group that may read the files")
        ->type_name("NAME");
    command.add_option("--rotate", options.newFileBytes, "Size at which all.pcap is begun anew")
        ->type_name("SIZE")
        ->transform(CLI::AsSizeValue(false))
        ->check(AboveZero())
        ->capture_default_str();
    command.add_option("--keep-days", options.keep.days, "Delete files that are older than N days")
        ->type_name("N")
        ->check(WholeNumber(1, UINT16_MAX));
    command
        .add_option("--keep-bytes", options.keep.bytes, "Delete the oldest files above this size")
        ->type_name("SIZE")
        ->transform(CLI::AsSizeValue(false))
        ->check(AboveZero());
    command
        .add_option("--keep-files", options.keep.files, "Delete the oldest of more than N files")
        ->type_name("N")
        ->check(AboveZero());
}

}  // namespace

CLI::App* AddPacketLogCommand(CLI::App& app, PacketLogOptions& options) {
    CLI::App* command = app.add_subcommand(
        "packetlog", "Receive what tarn sends to the packet logging daemon; write capture files");
    command->add_option("--dir", options.directory, "Directory for the capture files")
        ->type_name("DIR")
        ->required()
        ->check(CLI::ExistingDirectory);
    AddMonitorOptions(*command, options, "messages and records",
                      "every field and the packet in base64");
    command->add_flag("--quiet", options.quiet, "Show no messages, only what goes wrong");
    AddCaptureFileOptions(*command, options);
    command->add_option("--linktype", options.linkType, "Link type of the capture files")
        ->type_name("N")
        ->check(WholeNumber(0, UINT16_MAX))
        ->capture_default_str();
    command->add_option("--ring", options.ring, "Drain the ring of writer N as well")
        ->type_name("N")
        ->check(ZeroOrMore());
    command->add_option("--drop", options.drop, "Read the first N datagrams and throw them away")
        ->type_name("N")
        ->check(AboveZero());
    command->add_flag("--stop-reading", options.stopReading,
                      "Be there and never read, so that the socket fills");
    command->footer(kExamples);
    return command;
}

int RunPacketLog(const PacketLogOptions& options, std::ostream& out, std::ostream& err) {
    if (!options.keep.AreNone()) {
        CatchRequests(SIGHUP);
    }
    PacketLogMonitor monitor(options, out, err);
    const int status = monitor.Run();
    return monitor.HasLost() ? kExitFailure : status;
}

}  // namespace tarnctl
