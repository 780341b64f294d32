// One packet on its way to the packet logging daemon: the record and the captured bytes into the
// ring, and out of it again so that it never fills.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "packet_log/connection_hash.h"
#include "packet_log/packet_log_writer.h"
#include "ring/shm_event_pipe.h"

namespace {

void WritePacket(benchmark::State& state) {
    const auto captured = static_cast<int32_t>(state.range(0));
    const std::string path =
        std::filesystem::temp_directory_path() / ("packet-bench-" + std::to_string(getpid()));
    PacketLogWriter writer;
    writer.m_pPipe = std::make_unique<ShmEventPipe>(WRITER, path, kPacketLogRingSize);
    ShmEventPipe reader(READER, path, kPacketLogRingSize);
    if (!writer.m_pPipe->Open(true) || !reader.Open(true)) {
        state.SkipWithError("the ring cannot be mapped");
        return;
    }
    const std::vector<unsigned char> data(static_cast<size_t>(captured), 0x5A);
    std::vector<unsigned char> out(sizeof(PacketLogRecord) + data.size());
    PacketInfo packet;
    packet.uPacketLength = static_cast<uint32_t>(captured);
    packet.iCapturedSize = captured;
    packet.pData = data.data();
    for (auto _ : state) {
        auto size = static_cast<uint32_t>(out.size());
        if (writer.WritePacket(&packet, 1, 2, 3) != PIPE_OK ||
            reader.read(out.data(), &size) != PIPE_OK) {
            state.SkipWithError("the ring lost a packet");
            break;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * captured);
    std::filesystem::remove(path);
}

void HashConnection(benchmark::State& state) {
    EventReport report;
    report.etherType = static_cast<uint16_t>(state.range(0));
    report.ipProtocol = 6;
    report.sourcePort = 49152;
    report.destinationPort = 443;
    for (auto _ : state) {
        benchmark::DoNotOptimize(report);
        benchmark::DoNotOptimize(ConnectionHash(report));
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(WritePacket)->Arg(64)->Arg(512)->Arg(1514);
BENCHMARK(HashConnection)->Arg(kEtherTypeIpv4)->Arg(kEtherTypeIpv6);
