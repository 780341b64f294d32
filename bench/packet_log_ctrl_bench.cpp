// One request with a packet to the packet logging daemon: taken by a receiver, refused by a socket
// that is not there, and skipped in the quiet period.

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "packet_log/packet_log_ctrl_if.h"

namespace PacketLogCtrl {

class PacketLogCtrlIFPeer {
  public:
    static void SetDestination(PacketLogCtrlIF& control, const std::string& path) {
        control.SetDestination(path.c_str());
    }
};

}  // namespace PacketLogCtrl

namespace {

using PacketLogCtrl::PacketLogCtrlIF;

PacketLogCtrlIF* OpenTowards(const std::string& path) {
    PacketLogCtrlIF* const control = PacketLogCtrlIF::GetInstance();
    PacketLogCtrl::PacketLogCtrlIFPeer::SetDestination(*control, path);
    (void)control->OpenControlChannel();  // a failure shows in the counters
    return control;
}

std::string SocketPath() {
    return std::filesystem::temp_directory_path() / ("packetlog-bench-" + std::to_string(getpid()));
}

PacketInfo PacketOf(const std::vector<uint8_t>& data, uint32_t seconds) {
    PacketInfo packet;
    packet.uPacketLength = static_cast<uint32_t>(data.size());
    packet.iCapturedSize = static_cast<int32_t>(data.size());
    packet.uSeconds = seconds;
    packet.pData = data.data();
    return packet;
}

void SendPacketCapture(benchmark::State& state) {
    const std::vector<uint8_t> data(static_cast<size_t>(state.range(0)), 0x5A);
    const PacketInfo packet = PacketOf(data, 1000);
    const std::string path = SocketPath();
    const int receiver = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        state.SkipWithError("no receiver");
        return;
    }
    PacketLogCtrlIF* const control = OpenTowards(path);
    EventReport report;
    report.userString = "SNORT";
    std::vector<uint8_t> out(data.size() + 128);
    for (auto _ : state) {
        control->SendOffendingPacketCapture(&report, &packet, 0);
        if (recv(receiver, out.data(), out.size(), MSG_DONTWAIT) !=
            static_cast<ssize_t>(out.size())) {
            state.SkipWithError("a datagram is lost");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * state.range(0));
    close(receiver);
    control->Release();
    std::filesystem::remove(path);
}

void SkipInTheQuietPeriod(benchmark::State& state) {
    const std::vector<uint8_t> data(1514, 0x5A);
    const PacketInfo packet = PacketOf(data, 1000);
    PacketLogCtrlIF* const control = OpenTowards(SocketPath());
    EventReport report;
    report.userString = "SNORT";
    control->SendOffendingPacketCapture(&report, &packet, 0);  // fails and begins it
    for (auto _ : state) {
        control->SendOffendingPacketCapture(&report, &packet, 0);
    }
    state.SetItemsProcessed(state.iterations());
    control->Release();
}

void FailTwice(benchmark::State& state) {
    const std::vector<uint8_t> data(1514, 0x5A);
    const PacketInfo packet = PacketOf(data, 0);  // no time, no quiet period
    PacketLogCtrlIF* const control = OpenTowards(SocketPath());
    for (auto _ : state) {
        control->SendOffendingPacketCapture(nullptr, &packet, 0);
    }
    state.SetItemsProcessed(state.iterations());
    control->Release();
}

}  // namespace

BENCHMARK(SendPacketCapture)->Arg(64)->Arg(512)->Arg(1514);
BENCHMARK(SkipInTheQuietPeriod);
BENCHMARK(FailTwice)->Iterations(100)->UseRealTime();
