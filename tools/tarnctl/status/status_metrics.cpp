#include "tarnctl/status/status_metrics.h"

#include <array>
#include <cstdio>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace tarnctl {
namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

// Backslash, quotation mark and line end are the three that the format escapes.
std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char letter : text) {
        if (letter == '\n') {
            escaped += "\\n";
            continue;
        }
        if (letter == '\\' || letter == '"') {
            escaped += '\\';
        }
        escaped += letter;
    }
    return escaped;
}

std::string NumberText(double number) {
    std::array<char, 64> text = {};
    std::snprintf(text.data(), text.size(), "%.15g", number);
    return text.data();
}

// All samples of one name, with the two lines that go in front of them. One without a sample is
// left out.
class Metric {
  public:
    Metric(std::ostream& out, std::string name, const char* type, const char* help)
        : m_out(out), m_name("tarn_" + std::move(name)), m_type(type), m_help(help) {}

    void Add(double value, const Labels& labels = {}) {
        if (!m_hasSample) {
            m_out << "# HELP " << m_name << " " << m_help << "\n# TYPE " << m_name << " " << m_type
                  << "\n";
            m_hasSample = true;
        }
        m_out << m_name;
        const char* before = "{";
        for (const auto& [label, text] : labels) {
            m_out << before << label << "=\"" << Escaped(text) << "\"";
            before = ",";
        }
        m_out << (labels.empty() ? " " : "} ") << NumberText(value) << "\n";
    }

    template <typename Value>
    void Add(const Reading<Value>& reading, const Labels& labels = {}) {
        if (reading.IsKnown()) {
            Add(static_cast<double>(*reading.value), labels);
        }
    }

  private:
    std::ostream& m_out;
    const std::string m_name;
    const char* const m_type;
    const char* const m_help;
    bool m_hasSample = false;
};

void WriteFindings(const Verdict& verdict, std::ostream& out) {
    Metric healthy(out, "healthy", "gauge",
                   "1 when nothing is wrong, 0 when something is; absent when it cannot be said.");
    if (verdict.State() != HealthState::kUnknown) {
        healthy.Add(verdict.State() == HealthState::kHealthy ? 1 : 0);
    }
    Metric faults(out, "fault", "gauge", "Faults that are there, by name.");
    // A name may come twice, as for two rings, and a sample may not.
    std::vector<std::pair<std::string, int>> counts;
    for (const HealthFinding& finding : verdict.faults) {
        bool isNew = true;
        for (auto& [name, count] : counts) {
            if (name == finding.name) {
                ++count;
                isNew = false;
            }
        }
        if (isNew) {
            counts.emplace_back(finding.name, 1);
        }
    }
    for (const auto& [name, count] : counts) {
        faults.Add(count, {{"name", name}});
    }
    Metric(out, "warnings", "gauge", "Warnings that are there.")
        .Add(static_cast<double>(verdict.warnings.size()));
    Metric(out, "unknowns", "gauge", "Readings that the verdict needs and that cannot be had.")
        .Add(static_cast<double>(verdict.unknowns.size()));
}

void WriteDaemon(const DaemonHealth& daemon, std::ostream& out) {
    Metric(out, "up", "gauge", "1 when the daemon runs.").Add(daemon.isRunning);
    Metric(out, "start_time_seconds", "gauge", "When the daemon was started, since the epoch.")
        .Add(daemon.startTime);
    Metric(out, "resident_memory_bytes", "gauge", "Memory that the daemon has.")
        .Add(daemon.memoryBytes);
    if (!daemon.threads.IsKnown()) {
        return;
    }
    Metric cpu(out, "thread_cpu_seconds_total", "counter", "CPU time of each thread.");
    for (const ThreadHealth& thread : *daemon.threads.value) {
        cpu.Add(thread.cpuSeconds, {{"thread", std::to_string(thread.number)}});
    }
}

void WriteFifos(const Health& health, std::ostream& out) {
    const std::pair<const char*, const FifoHealth*> fifos[] = {{"alerts", &health.alerts},
                                                               {"errors", &health.errors}};
    Metric unread(out, "fifo_unread_bytes", "gauge", "Bytes that the daemon has not read yet.");
    for (const auto& [name, fifo] : fifos) {
        unread.Add(fifo->unreadBytes, {{"fifo", name}});
    }
    Metric capacity(out, "fifo_capacity_bytes", "gauge", "Bytes that the FIFO takes.");
    for (const auto& [name, fifo] : fifos) {
        capacity.Add(fifo->capacityBytes, {{"fifo", name}});
    }
    Metric readers(out, "fifo_readers", "gauge", "Descriptors that are open for reading.");
    for (const auto& [name, fifo] : fifos) {
        if (fifo->readers.IsKnown()) {
            readers.Add(static_cast<double>(fifo->readers.value->size()), {{"fifo", name}});
        }
    }
    Metric writers(out, "fifo_writers", "gauge", "Descriptors that are open for writing.");
    for (const auto& [name, fifo] : fifos) {
        if (fifo->writers.IsKnown()) {
            writers.Add(static_cast<double>(fifo->writers.value->size()), {{"fifo", name}});
        }
    }
}

void WriteQueue(const QueueHealth& queue, std::ostream& out) {
    const auto labels = [](size_t ring) { return Labels{{"ring", std::to_string(ring)}}; };
    Metric size(out, "ring_size_bytes", "gauge", "Bytes that the ring takes.");
    for (size_t ring = 0; ring < queue.rings.size(); ++ring) {
        size.Add(queue.rings[ring].sizeBytes, labels(ring));
    }
    Metric used(out, "ring_used_bytes", "gauge", "Bytes that wait in the ring.");
    for (size_t ring = 0; ring < queue.rings.size(); ++ring) {
        used.Add(queue.rings[ring].usedBytes, labels(ring));
    }
    Metric messages(out, "ring_messages", "gauge", "Reports that wait in the ring.");
    for (size_t ring = 0; ring < queue.rings.size(); ++ring) {
        messages.Add(queue.rings[ring].messages, labels(ring));
    }
    Metric stuck(out, "ring_stuck", "gauge", "1 when the ring can never move again by itself.");
    for (size_t ring = 0; ring < queue.rings.size(); ++ring) {
        if (queue.rings[ring].motion.IsKnown()) {
            stuck.Add(queue.rings[ring].motion.Is(RingMotion::kStuck) ? 1 : 0, labels(ring));
        }
    }
    Metric(out, "semaphore_posts", "gauge", "Posts that wait in the semaphore.")
        .Add(queue.semaphore);
}

void WriteSurroundings(const Health& health, std::ostream& out) {
    Metric peers(out, "peer_listening", "gauge", "1 when somebody receives at the socket.");
    for (const PeerHealth& peer : health.peers) {
        peers.Add(peer.isListening, {{"peer", peer.place.name}});
    }
    Metric(out, "load_time_seconds", "gauge", "When the daemon looked at its files last.")
        .Add(health.loadTime);
    Metric newer(out, "file_newer", "gauge", "1 when the file is newer than what is in force.");
    for (const FileHealth& file : health.files) {
        newer.Add(file.isNewer, {{"file", file.name}});
    }
    Metric recent(out, "log_recent_losses", "gauge",
                  "Losses and errors of the last while in the log, by kind.");
    if (health.log.losses.IsKnown()) {
        for (const LossHealth& loss : *health.log.losses.value) {
            recent.Add(static_cast<double>(loss.recentCount), {{"kind", loss.kind->name}});
        }
    }
    Metric room(out, "free_bytes", "gauge", "Bytes that are free, by what they are for.");
    for (const RoomHealth& place : health.rooms) {
        room.Add(place.freeBytes, {{"purpose", place.purpose}});
    }
}

}  // namespace

void WriteStatusMetrics(const Health& health, const Verdict& verdict, std::ostream& out) {
    WriteFindings(verdict, out);
    WriteDaemon(health.daemon, out);
    WriteFifos(health, out);
    WriteQueue(health.queue, out);
    WriteSurroundings(health, out);
}

}  // namespace tarnctl
