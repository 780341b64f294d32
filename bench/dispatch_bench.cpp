// One report on its way to the CRM: the gather list alone, and the whole road from the alert's
// event to the ring. The reader drains the ring outside the time that is measured.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "crm/crm_event_message.h"
#include "crm/crm_event_producer.h"
#include "crm/crm_event_source.h"
#include "paths.h"
#include "ring/event_queue.h"
#include "ring/shm_event_pipe.h"

namespace {

// An event with its three pairs and a packet of the given length.
class SampleEvent {
  public:
    explicit SampleEvent(uint32_t packetLength) : m_packet(packetLength, 0x5A) {
        m_source.SetIssueId(1000001);
        m_source.SetEventTime(1762956721);
        m_source.SetProtocol(6);
        m_source.SetSourceIp(0x0302010A);
        m_source.SetDestinationIp(0x1401A8C0);
        m_source.SetSourcePort(51234);
        m_source.SetDestinationPort(80);
        m_source.SetEventName("Suspicious login to the administration pages");
        m_source.SetUserResponse(0x02, "DISPLAY:WithRaw");
        m_source.SetSeverity(3);
        m_source.AddNameValue("Rule", "alert tcp any any -> $HOME_NET 80 (msg:\"login\";)");
        m_source.AddNameValue("URL", "/login?user=root");
        m_source.AddNameValue("server", "www.example.com");
        m_source.SetPacket(m_packet.data(), packetLength, 1762956721, 250001);
    }

    [[nodiscard]] const CrmEventSource& Source() const { return m_source; }

  private:
    std::vector<uint8_t> m_packet;
    CrmEventSource m_source{4};
};

// A channel of this process's own, open at both ends.
class Channel {
  public:
    Channel() : m_producer(CrmEventProducer::GetInstance()) {
        if (m_producer->Open(m_id) != 0 || !m_reader.Open(true)) {
            std::abort();
        }
    }
    ~Channel() {
        m_producer->Release();
        for (const char* const suffix : {"-0", "-1"}) {
            unlink((m_base + suffix).c_str());
        }
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    [[nodiscard]] CrmEventProducer* Producer() const { return m_producer; }

    void Drain() {
        uint32_t length = 0;
        do {
            length = static_cast<uint32_t>(m_buffer.size());
        } while (m_reader.read(m_buffer.data(), &length) == PIPE_OK);
    }

  private:
    const int32_t m_id = 100000 + getpid() % 4194304;
    const std::string m_base =
        tarn::paths::kEventQueueBase + std::string("CRM") + std::to_string(m_id);
    CrmEventProducer* m_producer;
    ShmEventPipe m_reader{READER, m_base + "-0", kEventQueueFirstRingSize};
    std::vector<uint8_t> m_buffer = std::vector<uint8_t>(1 << 20);
};

void GatherReport(benchmark::State& state) {
    const SampleEvent event(1500);
    for (auto _ : state) {
        const CrmEventMessage message(event.Source());
        benchmark::DoNotOptimize(message.Pieces());
    }
}
BENCHMARK(GatherReport);

void DispatchReport(benchmark::State& state) {
    const SampleEvent event(static_cast<uint32_t>(state.range(0)));
    Channel channel;
    for (auto _ : state) {
        while (event.Source().Dispatch(channel.Producer()) != PIPE_OK) {
            state.PauseTiming();
            channel.Drain();
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(DispatchReport)->Arg(64)->Arg(1500)->Arg(65535);

}  // namespace
