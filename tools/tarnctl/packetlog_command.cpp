#include "tarnctl/packetlog_command.h"

#include <poll.h>
#include <sys/file.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <span>

#include "channels/packet_log_format.h"
#include "channels/shm_event_pipe.h"
#include "tarnctl/capture_files.h"
#include "tarnctl/counted.h"
#include "tarnctl/exit_status.h"
#include "tarnctl/message_socket.h"
#include "tarnctl/packet_log_message.h"
#include "tarnctl/quiet_time.h"
#include "tarnctl/stop_signals.h"
#include "tarnctl/text_forms.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(The command takes the packet logging daemon's place; it is refused while that one is there.
all.pcap takes every packet. event-ID.pcap is the newest file of an event; before it would grow
beyond the kilobytes of the request it becomes event-ID.1.pcap and so on, and as many files are
kept as the request says. Each run begins its files anew.

Examples:
  tarnctl packetlog --dir /tmp/captures            until Ctrl-C
  tarnctl packetlog --dir . --ring 0               what a writer puts into its ring as well
  tarnctl packetlog --dir . --stop-reading         a daemon that hangs: its socket fills)";

// A ring tells nobody that something waits, so it is looked at this often.
constexpr std::chrono::milliseconds kRingWait{10};

class PacketLogMonitor {
  public:
    PacketLogMonitor(const PacketLogOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options),
          m_out(out),
          m_err(err),
          m_socket(options.socketPath),
          m_files(options.directory, options.linkType),
          m_quiet(options.timeout) {}

    int Run() {
        if (!m_files.Open()) {
            return Refuse(m_files.Error());
        }
        if (m_options.ring >= 0 && !OpenRing()) {
            return kExitFailure;
        }
        if (!m_socket.Open()) {
            return Refuse(m_socket.Error());
        }
        Say("receiving at " + m_options.socketPath);
        m_quiet.Restart();
        while (!m_failed && !IsDone()) {
            Receive();
        }
        Say(Counted(m_messages, "message") + ", " + Counted(m_records, "record") + ", " +
            Counted(m_packets, "packet") +
            (m_dropped > 0 ? ", " + std::to_string(m_dropped) + " dropped" : std::string()) +
            (m_malformed > 0 ? ", " + std::to_string(m_malformed) + " malformed" : std::string()));
        return m_failed || m_malformed > 0 ? kExitFailure : kExitFine;
    }

  private:
    void Say(const std::string& text) { m_err << "tarnctl packetlog: " << text << std::endl; }

    int Refuse(const std::string& reason) {
        Say(reason);
        return kExitFailure;
    }

    [[nodiscard]] bool IsDone() const {
        return StopRequested() ||
               (m_options.count > 0 && m_messages + m_records >= m_options.count) ||
               m_quiet.IsOver();
    }

    bool OpenRing() {
        std::string path = m_options.ringPath;
        if (path.empty()) {
            char text[64];
            std::snprintf(text, sizeof(text), tarn::paths::kPacketLogRing, m_options.ring);
            path = text;
        }
        m_ring = std::make_unique<ShmEventPipe>(READER, path, kPacketLogRingSize);
        m_record = std::make_unique<std::byte[]>(kPacketLogRingSize);
        if (!m_ring->Open(true)) {
            Say(path + ": the ring cannot be mapped");
            return false;
        }
        // Two readers of one ring would take each other's records.
        if (flock(m_ring->m_iFd, LOCK_EX | LOCK_NB) != 0) {
            Say(path + ": another tarnctl reads this ring");
            return false;
        }
        return true;
    }

    void Receive() {
        std::chrono::milliseconds wait = m_quiet.TimeToWait();
        if (m_ring != nullptr) {
            wait = TakeRecord() ? std::chrono::milliseconds(0) : std::min(wait, kRingWait);
        }
        if (m_options.stopReading) {
            poll(nullptr, 0, static_cast<int>(wait.count()));
            return;
        }
        std::span<const std::byte> datagram;
        if (!m_failed && !IsDone() && m_socket.Next(datagram, wait)) {
            m_quiet.Restart();
            if (m_dropped < m_options.drop) {
                ++m_dropped;
            } else {
                Show(datagram);
            }
        }
    }

    void Show(std::span<const std::byte> datagram) {
        PacketLogMessage message;
        const std::string reason = DecodePacketLogMessage(datagram, message);
        if (!reason.empty()) {
            SkipMalformed("datagram", reason, datagram);
            return;
        }
        ++m_messages;
        Write(m_options.json ? message.json : message.line);
        Keep(message.packet);
    }

    // Takes one record off the ring. False when there is none.
    bool TakeRecord() {
        uint32_t size = kPacketLogRingSize;
        switch (m_ring->read(m_record.get(), &size)) {
            case PIPE_OK:
                break;
            case PIPE_ERROR:
                ++m_malformed;
                Say("the ring is damaged; what waited in it is lost");
                return false;
            default:
                return false;
        }
        m_quiet.Restart();
        const std::span bytes(m_record.get(), size);
        PacketLogRecord record;
        if (bytes.size() < sizeof(record)) {
            SkipMalformed("record", "shorter than 72 bytes", bytes);
            return true;
        }
        std::memcpy(&record, bytes.data(), sizeof(record));
        if (record.uRecordType != 0) {
            SkipMalformed("record", "unknown type " + std::to_string(record.uRecordType), bytes);
            return true;
        }
        ++m_records;
        const auto packet = bytes.subspan(sizeof(record));
        Write(RecordText(record, packet));
        Keep({0, 0, 0, record.uSeconds, record.uMicroseconds, record.uPacketLength, packet});
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
        fields["seconds"] = record.uSeconds;
        fields["microseconds"] = record.uMicroseconds;
        fields["frameNumber"] = record.uFrameNumber;
        fields["reserved"] = record.uReserved;
        fields["flags"] = record.uFlags;
        fields["adapterId"] = record.uAdapterID;
        if (m_options.json) {
            if (!packet.empty()) {
                fields["packet"] = Base64(packet);
            }
            return fields.dump();
        }
        return FieldsAsLine(fields);
    }

    void Keep(const CapturedPacket& packet) {
        if (packet.bytes.empty()) {
            return;
        }
        ++m_packets;
        if (!m_files.Write(packet)) {
            Say(m_files.Error());
            m_failed = true;
        }
    }

    void SkipMalformed(const std::string& what, const std::string& reason,
                       std::span<const std::byte> bytes) {
        ++m_malformed;
        Say("malformed " + what + " of " + Counted(bytes.size(), "byte") + " skipped: " + reason);
        if (m_options.json) {
            nlohmann::ordered_json fields;
            fields["malformed"] = reason;
            fields["bytes"] = Base64(bytes);
            Write(fields.dump());
        }
    }

    void Write(const std::string& line) {
        m_out << line << std::endl;
        if (!m_out && !m_failed) {
            Say("the output takes no more; the last message was received and not shown");
            m_failed = true;
        }
    }

    const PacketLogOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    MessageSocket m_socket;
    CaptureFiles m_files;
    std::unique_ptr<ShmEventPipe> m_ring;   // null: none is drained
    std::unique_ptr<std::byte[]> m_record;  // as large as the ring
    QuietTime m_quiet;
    uint64_t m_messages = 0;
    uint64_t m_records = 0;
    uint64_t m_packets = 0;
    uint64_t m_dropped = 0;
    uint64_t m_malformed = 0;
    bool m_failed = false;
};

}  // namespace

CLI::App* AddPacketLogCommand(CLI::App& app, PacketLogOptions& options) {
    CLI::App* command = app.add_subcommand(
        "packetlog", "Receive what tarn sends to the packet logging daemon; write capture files");
    command->add_option("--dir", options.directory, "Directory for the capture files")
        ->type_name("DIR")
        ->required()
        ->check(CLI::ExistingDirectory);
    command->add_flag("--json", options.json,
                      "One JSON object a line, with every field and the packet in base64");
    command->add_option("--linktype", options.linkType, "Link type of the capture files")
        ->type_name("N")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    command->add_option("--ring", options.ring, "Drain the ring of writer N as well")
        ->type_name("N")
        ->check(CLI::NonNegativeNumber);
    command->add_option("--drop", options.drop, "Read the first N datagrams and throw them away")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    command->add_flag("--stop-reading", options.stopReading,
                      "Be there and never read, so that the socket fills");
    command->add_option("--count", options.count, "End after N messages and records")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    command->add_option("--timeout", options.timeout, "End after S quiet seconds")
        ->type_name("S")
        ->check(CLI::PositiveNumber);
    command->footer(kExamples);
    return command;
}

int RunPacketLog(const PacketLogOptions& options, std::ostream& out, std::ostream& err) {
    return PacketLogMonitor(options, out, err).Run();
}

}  // namespace tarnctl
