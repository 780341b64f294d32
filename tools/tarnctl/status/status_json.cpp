#include "tarnctl/status/status_json.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <ostream>

#include "tarnctl/common/text_forms.h"
#include "tarnctl/health/health_words.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

template <typename Value>
Json ValueAsJson(const Value& value) {
    return value;
}

Json ValueAsJson(const std::string& value) {
    return TextAsJson(value);
}

Json ValueAsJson(RingMotion motion) {
    return MotionWord(motion);
}

Json ValueAsJson(double value) {
    constexpr double kMillisecond = 1000;
    return std::round(value * kMillisecond) / kMillisecond;
}

Json ValueAsJson(const Holders& holders) {
    Json list = Json::array();
    for (const Holder& holder : holders) {
        list.push_back({{"process", holder.process}, {"name", TextAsJson(holder.name)}});
    }
    return list;
}

Json ValueAsJson(const std::vector<ThreadHealth>& threads) {
    Json list = Json::array();
    for (const ThreadHealth& thread : threads) {
        list.push_back({{"number", thread.number},
                        {"state", std::string(1, thread.state)},
                        {"cpuSeconds", thread.cpuSeconds},
                        {"startTime", ValueAsJson(thread.startTime)}});
    }
    return list;
}

Json ValueAsJson(const std::vector<LossHealth>& losses) {
    Json list = Json::array();
    for (const LossHealth& loss : losses) {
        list.push_back({{"kind", loss.kind->name},
                        {"count", loss.count},
                        {"recentCount", loss.recentCount},
                        {"lastTime", ValueAsJson(loss.lastTime)}});
    }
    return list;
}

template <typename Value>
Json ReadingAsJson(const Reading<Value>& reading) {
    return {{"value", reading.IsKnown() ? ValueAsJson(*reading.value) : Json()},
            {"source", TextAsJson(reading.source)},
            {"reason", reading.reason.empty() ? Json() : TextAsJson(reading.reason)}};
}

Json FindingsAsJson(const std::vector<HealthFinding>& findings) {
    Json list = Json::array();
    for (const HealthFinding& finding : findings) {
        list.push_back({{"name", finding.name}, {"text", TextAsJson(finding.text)}});
    }
    return list;
}

Json DaemonAsJson(const DaemonHealth& daemon) {
    return {{"running", ReadingAsJson(daemon.isRunning)},
            {"process", ReadingAsJson(daemon.pid)},
            {"pidFileProcess", ReadingAsJson(daemon.pidFileNumber)},
            {"others", ReadingAsJson(daemon.others)},
            {"startTime", ReadingAsJson(daemon.startTime)},
            {"ageSeconds", ReadingAsJson(daemon.ageSeconds)},
            {"memoryBytes", ReadingAsJson(daemon.memoryBytes)},
            {"threads", ReadingAsJson(daemon.threads)}};
}

Json FifoAsJson(const FifoHealth& fifo) {
    return {{"path", TextAsJson(fifo.path)},
            {"there", ReadingAsJson(fifo.isThere)},
            {"readers", ReadingAsJson(fifo.readers)},
            {"writers", ReadingAsJson(fifo.writers)},
            {"unreadBytes", ReadingAsJson(fifo.unreadBytes)},
            {"capacityBytes", ReadingAsJson(fifo.capacityBytes)}};
}

Json QueueAsJson(const QueueHealth& queue) {
    Json rings = Json::array();
    for (const RingHealth& ring : queue.rings) {
        rings.push_back({{"path", TextAsJson(ring.path)},
                         {"there", ReadingAsJson(ring.isThere)},
                         {"sizeBytes", ReadingAsJson(ring.sizeBytes)},
                         {"usedBytes", ReadingAsJson(ring.usedBytes)},
                         {"readIndex", ReadingAsJson(ring.readIndex)},
                         {"writeIndex", ReadingAsJson(ring.writeIndex)},
                         {"messages", ReadingAsJson(ring.messages)},
                         {"motion", ReadingAsJson(ring.motion)}});
    }
    return {{"channel", ReadingAsJson(queue.channel)},
            {"rings", std::move(rings)},
            {"readers", ReadingAsJson(queue.readers)},
            {"semaphore", ReadingAsJson(queue.semaphore)}};
}

Json PeersAsJson(const std::vector<PeerHealth>& peers) {
    Json list = Json::array();
    for (const PeerHealth& peer : peers) {
        list.push_back({{"name", peer.place.name},
                        {"path", TextAsJson(peer.place.path)},
                        {"there", ReadingAsJson(peer.isThere)},
                        {"owner", ReadingAsJson(peer.owner)},
                        {"listening", ReadingAsJson(peer.isListening)},
                        {"listeners", ReadingAsJson(peer.listeners)}});
    }
    return list;
}

Json FilesAsJson(const std::vector<FileHealth>& files) {
    Json list = Json::array();
    for (const FileHealth& file : files) {
        list.push_back({{"name", file.name},
                        {"path", TextAsJson(file.path)},
                        {"modifiedTime", ReadingAsJson(file.modifiedTime)},
                        {"newer", ReadingAsJson(file.isNewer)}});
    }
    return list;
}

Json LogAsJson(const LogHealth& log) {
    return {{"path", TextAsJson(log.path)},
            {"written", ReadingAsJson(log.isWritten)},
            {"firstTime", ReadingAsJson(log.firstTime)},
            {"lastTime", ReadingAsJson(log.lastTime)},
            {"losses", ReadingAsJson(log.losses)}};
}

Json RoomsAsJson(const std::vector<RoomHealth>& rooms) {
    Json list = Json::array();
    for (const RoomHealth& room : rooms) {
        list.push_back({{"path", TextAsJson(room.path)},
                        {"purpose", room.purpose},
                        {"freeBytes", ReadingAsJson(room.freeBytes)},
                        {"neededBytes", room.neededBytes}});
    }
    return list;
}

const char* StateWord(HealthState state) {
    return state == HealthState::kHealthy     ? "healthy"
           : state == HealthState::kUnhealthy ? "unhealthy"
                                              : "unknown";
}

}  // namespace

void WriteStatusJson(const Health& health, const Verdict& verdict, std::ostream& out) {
    const Json whole = {{"time", ValueAsJson(health.time)},
                        {"state", StateWord(verdict.State())},
                        {"faults", FindingsAsJson(verdict.faults)},
                        {"warnings", FindingsAsJson(verdict.warnings)},
                        {"unknowns", FindingsAsJson(verdict.unknowns)},
                        {"daemon", DaemonAsJson(health.daemon)},
                        {"alertFifo", FifoAsJson(health.alerts)},
                        {"errorFifo", FifoAsJson(health.errors)},
                        {"queue", QueueAsJson(health.queue)},
                        {"peers", PeersAsJson(health.peers)},
                        {"loadTime", ReadingAsJson(health.loadTime)},
                        {"files", FilesAsJson(health.files)},
                        {"log", LogAsJson(health.log)},
                        {"rooms", RoomsAsJson(health.rooms)}};
    out << whole.dump() << "\n";
}

}  // namespace tarnctl
