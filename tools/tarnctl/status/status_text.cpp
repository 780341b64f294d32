#include "tarnctl/status/status_text.h"

#include <array>
#include <cstdio>
#include <ostream>

#include "tarnctl/common/help_text.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/health/health_words.h"

namespace tarnctl {
namespace {

constexpr size_t kLabelColumns = 18;

const char* ThreadStateWord(char state) {
    switch (state) {
        case 'R':
            return "runs";
        case 'S':
        case 'I':
            return "sleeps";
        case 'D':
            return "waits for a disk";
        case 'T':
        case 't':
            return "stopped";
        default:
            return "ends";
    }
}

std::string Decimal(double number) {
    std::array<char, 64> text = {};
    std::snprintf(text.data(), text.size(), "%.2f", number);
    return text.data();
}

class StatusText {
  public:
    StatusText(const Health& health, const Display& display, std::ostream& out)
        : m_health(health), m_display(display), m_out(out) {}

    void Write(const Verdict& verdict) {
        WriteVerdict(verdict);
        WriteDaemon();
        WriteFifo("alert FIFO", m_health.alerts);
        WriteFifo("error FIFO", m_health.errors);
        WriteQueue();
        WritePeers();
        WriteFiles();
        WriteLog();
        WriteRooms();
    }

  private:
    void Group(const std::string& name) {
        m_out << "\n" << Painted(name, Color::kBold, m_display.color) << "\n";
    }

    void Line(const std::string& label, const std::string& text, Color color = Color::kNone) {
        const Cell cells[] = {{"  " + label, Color::kNone, kLabelColumns}, {text, color, 0}};
        m_out << LineOf(cells, m_display) << "\n";
    }

    // The reading in words, or why there is none.
    template <typename Value, typename Words>
    void Show(const std::string& label, const Reading<Value>& reading, Words words,
              Color color = Color::kNone) {
        if (reading.IsKnown()) {
            Line(label, words(*reading.value), color);
        } else {
            Line(label, "unknown: " + ForTerminal(reading.reason), Color::kYellow);
        }
    }

    void WriteFindings(const std::vector<HealthFinding>& findings, const char* word, Color color) {
        for (const HealthFinding& finding : findings) {
            // Wrapped and not cut: these lines are what the command is run for.
            const size_t width = m_display.Width() == 0 ? std::string::npos : m_display.Width();
            const std::string text = Wrapped(
                std::string(word) + ": " + ForTerminal(finding.text) + " [" + finding.name + "]",
                width, 0);
            const size_t after = std::string_view(word).size();
            m_out << Painted(word, color, m_display.color) << text.substr(after);
        }
    }

    void WriteVerdict(const Verdict& verdict) {
        const HealthState state = verdict.State();
        const bool isHealthy = state == HealthState::kHealthy;
        const bool isUnknown = state == HealthState::kUnknown;
        m_out << Painted(isHealthy   ? "healthy"
                         : isUnknown ? "cannot be said"
                                     : "not healthy",
                         isHealthy   ? Color::kGreen
                         : isUnknown ? Color::kYellow
                                     : Color::kRed,
                         m_display.color)
              << "\n";
        WriteFindings(verdict.faults, "fault", Color::kRed);
        WriteFindings(verdict.unknowns, "unknown", Color::kYellow);
        WriteFindings(verdict.warnings, "warning", Color::kYellow);
    }

    void WriteDaemon() {
        const DaemonHealth& daemon = m_health.daemon;
        Group("daemon");
        Show(
            "runs", daemon.isRunning,
            [&daemon](bool isRunning) {
                return isRunning ? "process " + std::to_string(daemon.pid.value.value_or(0)) : "no";
            },
            daemon.isRunning.Is(false) ? Color::kRed : Color::kGreen);
        Show("PID file", daemon.pidFileNumber, [&daemon](int number) {
            std::string text = std::to_string(number);
            if (daemon.pid.Is(number)) {
                return text;
            }
            return text + (daemon.isRunning.Is(true)
                               ? ", the process that put tarn into the background"
                               : ", which is not tarn");
        });
        if (!daemon.pid.IsKnown()) {
            return;
        }
        Show("age", daemon.ageSeconds, AgeText);
        Show("memory", daemon.memoryBytes, BytesText);
        if (!daemon.threads.IsKnown()) {
            Line("threads", "unknown: " + ForTerminal(daemon.threads.reason), Color::kYellow);
            return;
        }
        for (const ThreadHealth& thread : *daemon.threads.value) {
            const bool isMain = daemon.pid.Is(thread.number);
            const bool isStopped = thread.state == 'T' || thread.state == 't';
            Line((isMain ? "main thread " : "thread ") + std::to_string(thread.number),
                 "CPU " + Decimal(thread.cpuSeconds) + " s, age " +
                     AgeText(m_health.time - thread.startTime) + ", " +
                     ThreadStateWord(thread.state),
                 isStopped ? Color::kRed : Color::kNone);
        }
    }

    void WriteFifo(const std::string& name, const FifoHealth& fifo) {
        Group(name);
        Show(
            "file", fifo.isThere,
            [&fifo](bool isThere) { return fifo.path + (isThere ? "" : ": no FIFO"); },
            fifo.isThere.Is(false) ? Color::kRed : Color::kNone);
        if (!fifo.isThere.Is(true)) {
            return;
        }
        Show("read by", fifo.readers, HoldersText);
        Show("written by", fifo.writers, HoldersText);
        Show("unread", fifo.unreadBytes, [&fifo](uint64_t bytes) {
            return BytesText(bytes) + (fifo.capacityBytes.IsKnown()
                                           ? " of " + BytesText(*fifo.capacityBytes.value)
                                           : std::string());
        });
    }

    void WriteQueue() {
        const QueueHealth& queue = m_health.queue;
        Group("CRM queue");
        Show("channel", queue.channel, [&queue](int channel) {
            return std::to_string(channel) + " (" + queue.channel.source + ")";
        });
        for (size_t number = 0; number < queue.rings.size(); ++number) {
            WriteRing("ring -" + std::to_string(number), queue.rings[number]);
        }
        Show("taken by", queue.readers, HoldersText);
        Show("semaphore", queue.semaphore, [](int posts) { return std::to_string(posts); });
    }

    void WriteRing(const std::string& label, const RingHealth& ring) {
        if (!ring.isThere.Is(true) || !ring.usedBytes.IsKnown()) {
            Line(label,
                 ring.isThere.Is(false) ? "none at " + ring.path
                                        : "unknown: " + ForTerminal(ring.usedBytes.reason),
                 ring.isThere.Is(false) ? Color::kRed : Color::kYellow);
            return;
        }
        const bool isStuck = ring.motion.Is(RingMotion::kStuck);
        const std::string motion = ring.motion.IsKnown() ? MotionWord(*ring.motion.value) : "";
        Line(label,
             motion + ", " + Decimal(PercentOf(*ring.usedBytes.value, *ring.sizeBytes.value)) +
                 "% full, " + std::to_string(*ring.messages.value) + " waiting, read at " +
                 std::to_string(*ring.readIndex.value) + ", write at " +
                 std::to_string(*ring.writeIndex.value),
             isStuck ? Color::kRed : Color::kNone);
    }

    void WritePeers() {
        Group("peers");
        for (const PeerHealth& peer : m_health.peers) {
            if (!peer.isListening.IsKnown()) {
                Line(peer.place.name, "unknown: " + ForTerminal(peer.isListening.reason),
                     Color::kYellow);
                continue;
            }
            const bool isListening = *peer.isListening.value;
            const std::string owner =
                peer.owner.IsKnown() ? " (" + *peer.owner.value + ")" : std::string();
            std::string who = !isListening
                                  ? (peer.isThere.Is(true) ? "nobody receives" : "no socket")
                              : peer.listeners.IsKnown() ? HoldersText(*peer.listeners.value)
                                                         : "a process of another user";
            who.append(" at ").append(peer.place.path).append(owner);
            Line(peer.place.name, who, isListening ? Color::kNone : Color::kRed);
        }
    }

    void WriteFiles() {
        Group("files");
        Show("loaded", m_health.loadTime,
             [](double time) { return TimeText(static_cast<uint64_t>(time)); });
        for (const FileHealth& file : m_health.files) {
            Show(
                file.name, file.modifiedTime,
                [&file](double time) {
                    return file.path + " of " + TimeText(static_cast<uint64_t>(time)) +
                           (file.isNewer.Is(true) ? ", newer than what is in force" : "");
                },
                file.isNewer.Is(true) ? Color::kRed : Color::kNone);
        }
    }

    void WriteLog() {
        const LogHealth& log = m_health.log;
        Group("log");
        Line("file", log.path + (log.isWritten.Is(false) ? ", not written by tarn" : ""),
             log.isWritten.Is(false) ? Color::kRed : Color::kNone);
        Show("last line", log.lastTime,
             [](double time) { return TimeText(static_cast<uint64_t>(time)); });
        if (!log.losses.IsKnown()) {
            return;
        }
        for (const LossHealth& loss : *log.losses.value) {
            Line(loss.kind->name,
                 std::to_string(loss.count) + " " + loss.kind->meaning + ", " +
                     std::to_string(loss.recentCount) + " recent, last at " +
                     TimeText(static_cast<uint64_t>(loss.lastTime)),
                 loss.recentCount > 0 ? Color::kRed : Color::kNone);
        }
        if (log.losses.value->empty()) {
            Line("losses", "none");
        }
    }

    void WriteRooms() {
        Group("room");
        for (const RoomHealth& room : m_health.rooms) {
            Show(
                room.path, room.freeBytes,
                [&room](uint64_t bytes) {
                    return BytesText(bytes) + " free for the " + room.purpose + ", which needs " +
                           BytesText(room.neededBytes);
                },
                room.freeBytes.value.value_or(room.neededBytes) < room.neededBytes ? Color::kRed
                                                                                   : Color::kNone);
        }
    }

    const Health& m_health;
    const Display& m_display;
    std::ostream& m_out;
};

}  // namespace

void WriteStatusText(const Health& health, const Verdict& verdict, const Display& display,
                     std::ostream& out) {
    StatusText(health, display, out).Write(verdict);
}

}  // namespace tarnctl
