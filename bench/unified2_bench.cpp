// One record's way through the alert FIFO and what it is made of: held against the system calls
// that it cannot do without.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "config/config.h"
#include "crm/crm_event_source.h"
#include "logging/log.h"
#include "snort/snort_event_reader.h"
#include "unified2/unified2_events.h"
#include "unified2/unified2_format.h"

namespace {

using unified2::Big32;

std::vector<uint8_t> PacketRecord(uint32_t packetLength) {
    unified2::RecordHeader header;
    header.type = Big32::FromHostOrder(unified2::kPacket);
    header.length =
        Big32::FromHostOrder(static_cast<uint32_t>(sizeof(unified2::Packet)) + packetLength);
    unified2::Packet packet{};
    packet.eventId = Big32::FromHostOrder(1);
    packet.packetLength = Big32::FromHostOrder(packetLength);
    std::vector<uint8_t> bytes(sizeof(header) + sizeof(packet) + packetLength);
    std::memcpy(bytes.data(), &header, sizeof(header));
    std::memcpy(bytes.data() + sizeof(header), &packet, sizeof(packet));
    return bytes;
}

std::vector<uint8_t> AlertRecord() {
    unified2::RecordHeader header;
    header.type = Big32::FromHostOrder(unified2::kAlertIpv4);
    header.length = Big32::FromHostOrder(sizeof(unified2::AlertIpv4));
    unified2::AlertIpv4 alert{};
    alert.eventId = Big32::FromHostOrder(1);
    alert.ipProtocol = 6;
    std::vector<uint8_t> bytes(sizeof(header) + sizeof(alert));
    std::memcpy(bytes.data(), &header, sizeof(header));
    std::memcpy(bytes.data() + sizeof(header), &alert, sizeof(alert));
    return bytes;
}

class Fifo {
  public:
    Fifo() {
        std::string name = (std::filesystem::temp_directory_path() / "tarn-bench-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            std::abort();
        }
        m_folder = name;
        m_path = m_folder / "alerts.fifo";
        if (!SnortEventReader(m_path.c_str()).CreateFifo()) {
            std::abort();
        }
        m_sensor = open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }
    ~Fifo() {
        close(m_sensor);
        std::filesystem::remove_all(m_folder);
    }
    Fifo(const Fifo&) = delete;
    Fifo& operator=(const Fifo&) = delete;

    void Put(const std::vector<uint8_t>& bytes) const {
        if (write(m_sensor, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            std::abort();
        }
    }

    std::filesystem::path m_folder;
    std::filesystem::path m_path;
    int m_sensor = -1;
};

// The least that a record costs: one write of the sensor, one select, two reads and one malloc.
void BareRecord(benchmark::State& state) {
    const std::vector<uint8_t> record = PacketRecord(static_cast<uint32_t>(state.range(0)));
    const Fifo fifo;
    const int reader = open(fifo.m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    for (auto _ : state) {
        fifo.Put(record);
        fd_set set;
        FD_ZERO(&set);
        FD_SET(reader, &set);
        timeval timeout = {1, 0};
        unified2::RecordHeader header;
        if (select(reader + 1, &set, nullptr, nullptr, &timeout) != 1 ||
            read(reader, &header, sizeof(header)) != sizeof(header)) {
            state.SkipWithError("the FIFO lost a record");
            break;
        }
        const size_t length = header.length.HostOrder();
        const U2RawBytes payload(static_cast<uint8_t*>(malloc(length)));
        if (read(reader, payload.get(), length) != static_cast<ssize_t>(length)) {
            state.SkipWithError("the FIFO lost a payload");
            break;
        }
        benchmark::DoNotOptimize(payload.get());
    }
    close(reader);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BareRecord)->Arg(128)->Arg(1500);

// The same record through the reader, which attaches it to the one pending alert.
void ReadAndAttachPacket(benchmark::State& state) {
    vald::Log::SetLevel(3);
    Config::s_logLevel = 3;
    const std::vector<uint8_t> record = PacketRecord(static_cast<uint32_t>(state.range(0)));
    const Fifo fifo;
    SnortEventReader reader(fifo.m_path.c_str());
    fifo.Put(AlertRecord());
    reader.ReadEvent(1);
    for (auto _ : state) {
        fifo.Put(record);
        if (!reader.ReadEvent(1)) {
            state.SkipWithError("the reader lost a record");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ReadAndAttachPacket)->Arg(128)->Arg(1500);

// From the alert to its report, the packet attached.
void MakeReport(benchmark::State& state) {
    const std::vector<uint8_t> alertRecord = AlertRecord();
    const std::vector<uint8_t> packetRecord = PacketRecord(128);
    const auto payload = [](const std::vector<uint8_t>& record) {
        const size_t length = record.size() - sizeof(unified2::RecordHeader);
        void* copy = malloc(length);
        std::memcpy(copy, record.data() + sizeof(unified2::RecordHeader), length);
        return copy;
    };
    U2AlertEventIpv4 alert(payload(alertRecord));
    alert.SetPacket(new U2PacketEvent(
        payload(packetRecord),
        static_cast<uint32_t>(packetRecord.size() - sizeof(unified2::RecordHeader))));
    for (auto _ : state) {
        const std::unique_ptr<CrmEventSource> source(alert.CreateCrmEventSource(true));
        benchmark::DoNotOptimize(source.get());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(MakeReport);

}  // namespace
