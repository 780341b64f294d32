// One message into the ring and out again, held against the two copies that no ring can do without:
// the same bytes into the same mapping and out of it.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "ring/shm_event_pipe.h"

namespace {

constexpr uint32_t kFileSize = 0x800000;  // the ring that reports go through

class Ring {
  public:
    Ring() {
        if (!m_writer.Open(true) || !m_reader.Open(true)) {
            std::abort();
        }
    }
    ~Ring() { std::filesystem::remove(m_path); }
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    const std::string m_path =
        std::filesystem::temp_directory_path() / ("ring-bench-" + std::to_string(getpid()));
    ShmEventPipe m_writer{WRITER, m_path, kFileSize};
    ShmEventPipe m_reader{READER, m_path, kFileSize};
};

void CountMessages(benchmark::State& state, uint32_t length) {
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * length);
}

void TwoCopies(benchmark::State& state) {
    const auto length = static_cast<uint32_t>(state.range(0));
    Ring ring;
    std::vector<unsigned char> in(length, 0x5A);
    std::vector<unsigned char> out(length);
    uint32_t at = 0;
    for (auto _ : state) {
        std::memcpy(ring.m_writer.m_pData + at, in.data(), length);
        benchmark::ClobberMemory();
        std::memcpy(out.data(), ring.m_reader.m_pData + at, length);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
        at += length + 4;
        if (at + length > ring.m_writer.m_uSize) {
            at = 0;
        }
    }
    CountMessages(state, length);
}

void WriteAndRead(benchmark::State& state) {
    const auto length = static_cast<uint32_t>(state.range(0));
    Ring ring;
    std::vector<unsigned char> in(length, 0x5A);
    std::vector<unsigned char> out(length);
    for (auto _ : state) {
        uint32_t size = length;
        if (ring.m_writer.write(in.data(), &length) != PIPE_OK ||
            ring.m_reader.read(out.data(), &size) != PIPE_OK) {
            state.SkipWithError("the ring lost a message");
            break;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    CountMessages(state, length);
}

// A report goes in as nine pieces, most of them short.
void GatherAndRead(benchmark::State& state) {
    const auto length = static_cast<uint32_t>(state.range(0));
    const auto count = static_cast<int32_t>(state.range(1));
    const uint32_t piece = length / static_cast<uint32_t>(count);
    Ring ring;
    std::vector<unsigned char> in(length, 0x5A);
    std::vector<unsigned char> out(length);
    std::vector<iovec> pieces;
    for (int32_t i = 0; i < count; ++i) {
        const uint32_t at = static_cast<uint32_t>(i) * piece;
        pieces.push_back({&in[at], i + 1 < count ? piece : length - at});
    }
    for (auto _ : state) {
        uint32_t size = length;
        if (ring.m_writer.write(pieces.data(), count) != PIPE_OK ||
            ring.m_reader.read(out.data(), &size) != PIPE_OK) {
            state.SkipWithError("the ring lost a message");
            break;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    CountMessages(state, length);
}

}  // namespace

BENCHMARK(TwoCopies)->Arg(64)->Arg(512)->Arg(4096);
BENCHMARK(WriteAndRead)->Arg(64)->Arg(512)->Arg(4096);
BENCHMARK(GatherAndRead)->Args({512, 2})->Args({512, 9})->Args({4096, 2});
