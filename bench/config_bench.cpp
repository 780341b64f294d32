// What the configuration costs: the lookup that every event pays for, and the load that a reload
// pays for.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <random>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "config/config.h"
#include "config/event_rule_node.h"
#include "config/event_rule_table.h"
#include "support/allocation_count.h"

namespace {

constexpr uint32_t kFirstId = 2000000;

// A table of this many signatures with consecutive ids, which fill the buckets evenly.
std::unique_ptr<EventRuleTable> FilledTable(uint32_t count) {
    auto table = std::make_unique<EventRuleTable>();
    table->Initialize();
    for (uint32_t id = kFirstId; id < kFirstId + count; ++id) {
        table->SetEventName(id, "Signature");
        if (!table->Commit()) {
            std::abort();
        }
    }
    return table;
}

void FindHit(benchmark::State& state) {
    const auto count = static_cast<uint32_t>(state.range(0));
    const auto table = FilledTable(count);
    std::minstd_rand random;
    const uint64_t before = AllocationCount();
    for (auto _ : state) {
        benchmark::DoNotOptimize(table->Find(kFirstId + static_cast<uint32_t>(random()) % count));
    }
    state.counters["allocations"] = static_cast<double>(AllocationCount() - before);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(FindHit)->Arg(256)->Arg(10000)->Arg(50000);

// The same in the table that one would take from the library.
void FindInMap(benchmark::State& state) {
    const auto count = static_cast<uint32_t>(state.range(0));
    std::unordered_map<uint32_t, std::shared_ptr<Node>> map;
    std::shared_mutex mutex;
    for (uint32_t id = kFirstId; id < kFirstId + count; ++id) {
        map.emplace(id, std::make_shared<Node>(id));
    }
    const auto find = [&](uint32_t id) {
        const std::shared_lock lock(mutex);
        const auto place = map.find(id);
        return place != map.end() ? place->second : nullptr;
    };
    std::minstd_rand random;
    for (auto _ : state) {
        benchmark::DoNotOptimize(find(kFirstId + static_cast<uint32_t>(random()) % count));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(FindInMap)->Arg(10000)->Arg(50000);

void FindMiss(benchmark::State& state) {
    const auto table = FilledTable(static_cast<uint32_t>(state.range(0)));
    uint32_t id = kFirstId + static_cast<uint32_t>(state.range(0));  // after all of its bucket
    for (auto _ : state) {
        benchmark::DoNotOptimize(table->Find(id++));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(FindMiss)->Arg(10000);

enum class Order { kAscending, kDescending, kShuffled };

// Ids from kFirstId on.
std::vector<uint32_t> Ids(uint32_t count, Order order) {
    std::vector<uint32_t> ids(count);
    std::iota(ids.begin(), ids.end(), kFirstId);
    if (order == Order::kDescending) {
        std::reverse(ids.begin(), ids.end());
    } else if (order == Order::kShuffled) {
        std::shuffle(ids.begin(), ids.end(), std::minstd_rand());
    }
    return ids;
}

// An event configuration file of these signatures, removed with the object.
class EventFile {
  public:
    explicit EventFile(const std::vector<uint32_t>& ids)
        : m_path(std::filesystem::temp_directory_path() /
                 ("tarn_bench_" + std::to_string(getpid()) + ".conf")) {
        std::ofstream file(m_path);
        for (const uint32_t id : ids) {
            const std::string prefix = "se." + std::to_string(id);
            file << prefix << ".severity = medium\n"
                 << prefix << ".msg = ET POLICY Signature number " << id << '\n'
                 << prefix << ".rule = alert tcp any any -> any any (msg:\"Signature\";)\n"
                 << prefix << ".user.response = DISPLAY:WithRaw,LOGEVIDENCE\n"
                 << prefix << ".response = quarantine-traffic, quarantine-icmp-traffic\n"
                 << prefix << ".quarantine.rule = quarantine-intruder-address, duration: 600\n";
        }
    }
    ~EventFile() { std::filesystem::remove(m_path); }
    EventFile(const EventFile&) = delete;
    EventFile& operator=(const EventFile&) = delete;

    const std::string& Path() const { return m_path.native(); }

  private:
    std::filesystem::path m_path;
};

void LoadEventFile(benchmark::State& state, Order order) {
    const auto count = static_cast<uint32_t>(state.range(0));
    const EventFile file(Ids(count, order));
    Config::s_stateFile.clear();
    Config::Initialize();
    for (auto _ : state) {
        Config::Load(file.Path().c_str(), Config::kEventFile);
    }
    if (Config::s_eventTable.NodeCount() != count) {
        state.SkipWithError("the table does not hold every signature");
    }
    state.SetItemsProcessed(state.iterations() * count);
    Config::s_eventTable.Clear();
}
BENCHMARK_CAPTURE(LoadEventFile, Ascending, Order::kAscending)
    ->Arg(50000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(LoadEventFile, Descending, Order::kDescending)
    ->Arg(50000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(LoadEventFile, Shuffled, Order::kShuffled)
    ->Arg(50000)
    ->Unit(benchmark::kMillisecond);

}  // namespace
