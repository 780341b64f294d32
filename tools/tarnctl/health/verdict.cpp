#include "tarnctl/health/verdict.h"

#include <algorithm>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/health/health_words.h"

namespace tarnctl {
namespace {

// A process that has a file open twice is one.
size_t Processes(const Holders& holders) {
    std::vector<int> numbers;
    for (const Holder& holder : holders) {
        numbers.push_back(holder.process);
    }
    std::sort(numbers.begin(), numbers.end());
    return static_cast<size_t>(std::unique(numbers.begin(), numbers.end()) - numbers.begin());
}

class Judgement {
  public:
    Judgement(const Health& before, const Health& now, const std::vector<std::string>& without)
        : m_before(before), m_now(now), m_without(without) {}

    Verdict Run() {
        JudgeDaemon();
        JudgeAlertFifo();
        JudgeErrorFifo();
        JudgeQueue();
        for (const PeerHealth& peer : m_now.peers) {
            JudgePeer(peer);
        }
        for (const FileHealth& file : m_now.files) {
            JudgeFile(file);
        }
        JudgeLog();
        for (const RoomHealth& room : m_now.rooms) {
            JudgeRoom(room);
        }
        return std::move(m_verdict);
    }

  private:
    void Fault(const std::string& name, const std::string& text) {
        m_verdict.faults.push_back({name, text});
    }
    void Warn(const std::string& name, const std::string& text) {
        m_verdict.warnings.push_back({name, text});
    }
    // True when the reading is known; one that is not is named.
    template <typename Value>
    bool Needs(const std::string& name, const Reading<Value>& reading) {
        if (!reading.IsKnown()) {
            m_verdict.unknowns.push_back({name, reading.reason});
        }
        return reading.IsKnown();
    }
    [[nodiscard]] bool Has(const std::string& part) const {
        return std::find(m_without.begin(), m_without.end(), part) == m_without.end();
    }
    [[nodiscard]] bool IsRunning() const { return m_now.daemon.isRunning.Is(true); }

    void JudgeDaemon() {
        const DaemonHealth& daemon = m_now.daemon;
        if (!Needs("daemon", daemon.isRunning)) {
            return;
        }
        if (!*daemon.isRunning.value) {
            const bool isNamed = daemon.pidFileNumber.IsKnown();
            Fault("daemon-not-running",
                  "tarn does not run" + (isNamed ? "; its PID file is left over and names " +
                                                       std::to_string(*daemon.pidFileNumber.value)
                                                 : std::string()));
            return;
        }
        if (daemon.others.value.value_or(0) > 0) {
            Fault("daemons-many",
                  Counted(static_cast<uint64_t>(*daemon.others.value), "further process") +
                      " named tarn: alerts go to one of them by chance");
        }
        const auto isStopped = [](const Health& health) {
            const auto& threads = health.daemon.threads.value;
            return threads &&
                   std::any_of(threads->begin(), threads->end(), [](const ThreadHealth& thread) {
                       return thread.state == 'T' || thread.state == 't';
                   });
        };
        if (isStopped(m_before) && isStopped(m_now)) {
            Fault("daemon-stopped",
                  "tarn is stopped, by SIGSTOP or a debugger: kill -CONT lets it go on");
        }
    }

    void JudgeAlertFifo() {
        const FifoHealth& fifo = m_now.alerts;
        if (!Needs("alert-fifo", fifo.isThere)) {
            return;
        }
        if (!*fifo.isThere.value) {
            Fault("alert-fifo-missing", "no FIFO at " + fifo.path + ": Snort cannot write alerts");
            return;
        }
        if (Needs("alert-fifo-readers", fifo.readers)) {
            const size_t readers = Processes(*fifo.readers.value);
            const auto& former = m_before.alerts.readers.value;
            if (readers > 1) {
                Fault("alert-fifo-shared", "more than one process reads " + fifo.path + " (" +
                                               HoldersText(*fifo.readers.value) +
                                               "): each gets a part of the alerts");
            }
            // A reload closes the FIFO for a moment.
            if (readers == 0 && IsRunning() && former && former->empty()) {
                Fault("alert-fifo-unread", "nobody reads " + fifo.path);
            }
        }
        if (fifo.writers.IsKnown() && fifo.writers.value->empty() && IsRunning()) {
            Warn("alert-fifo-unwritten",
                 "nobody has " + fifo.path + " open for writing: no sensor");
        }
        if (fifo.unreadBytes.IsKnown() && fifo.capacityBytes.IsKnown() &&
            *fifo.unreadBytes.value * 2 > *fifo.capacityBytes.value) {
            Warn("alert-fifo-filling",
                 "the alert FIFO is more than half full: a record that finds "
                 "no room is cut in two");
        }
    }

    void JudgeErrorFifo() {
        const FifoHealth& fifo = m_now.errors;
        if (fifo.isThere.Is(false) && IsRunning()) {
            Fault("error-fifo-missing",
                  "no FIFO at " + fifo.path + ": Snort's error lines are lost");
        }
    }

    void JudgeQueue() {
        const QueueHealth& queue = m_now.queue;
        for (const RingHealth& ring : queue.rings) {
            JudgeRing(ring);
        }
        if (!queue.rings.front().isThere.Is(true)) {
            return;
        }
        if (Has(kPartCrm) && Needs("crm", queue.readers) && queue.readers.value->empty()) {
            Fault("crm-missing", "nobody but tarn has " + queue.rings.front().path +
                                     " open: reports pile up and are lost when it is full");
        }
        if (!queue.semaphore.IsKnown()) {
            if (IsRunning()) {
                m_verdict.unknowns.push_back({"semaphore", queue.semaphore.reason});
            }
            return;
        }
        if (queue.semaphore.Is(0) && queue.rings.front().motion.Is(RingMotion::kWaiting)) {
            Warn("semaphore-empty",
                 "reports wait and the semaphore has no post for them: a CRM "
                 "that sleeps does not wake");
        }
    }

    void JudgeRing(const RingHealth& ring) {
        if (ring.isThere.Is(false)) {
            if (IsRunning()) {
                Fault("ring-missing", "no ring at " + ring.path + ": what tarn writes nobody sees");
            }
            return;
        }
        if (!Needs("ring", ring.motion)) {
            return;
        }
        if (ring.motion.Is(RingMotion::kStuck)) {
            Fault("ring-stuck", ring.path + ": " + ring.stuckReason + ", and it did not move");
        }
        if (static_cast<double>(*ring.usedBytes.value) >
            kRingAlmostFull * static_cast<double>(*ring.sizeBytes.value)) {
            Fault("ring-full",
                  ring.path + " is almost full: the next reports are lost unless they are taken");
        } else if (ring.motion.Is(RingMotion::kWaiting)) {
            Warn("ring-waiting", Counted(*ring.messages.value, "report") + " in " + ring.path +
                                     " and none was taken between two looks");
        }
    }

    void JudgePeer(const PeerHealth& peer) {
        const std::string& name = peer.place.name;
        if (!Has(name) || !Needs(name, peer.isListening) || *peer.isListening.value) {
            return;
        }
        Fault(name + "-missing", (peer.isThere.Is(true) ? "nobody receives at " + peer.place.path
                                                        : "no socket at " + peer.place.path) +
                                     ": " + peer.place.carries + " cannot be sent");
    }

    void JudgeFile(const FileHealth& file) {
        if (!file.modifiedTime.IsKnown()) {
            Fault(file.name + "-missing",
                  file.modifiedTime.reason + ": a start or a reload ends tarn");
            return;
        }
        if (!IsRunning() || !Needs(file.name, file.isNewer)) {
            return;
        }
        if (*file.isNewer.value) {
            const size_t slash = file.path.rfind('/');
            Fault(file.name + "-newer", file.path.substr(slash + 1) +
                                            " is newer than what is in force: a hangup loads it");
        }
    }

    void JudgeLog() {
        const LogHealth& log = m_now.log;
        if (IsRunning() && log.isWritten.Is(false)) {
            Fault("log-not-written", "tarn does not write to " + log.path + ": its log is lost");
        }
        if (!log.losses.IsKnown()) {
            if (IsRunning()) {
                m_verdict.unknowns.push_back({"log", log.losses.reason});
            }
            return;
        }
        for (const LossHealth& loss : *log.losses.value) {
            if (loss.recentCount > 0) {
                Fault(std::string("log-") + loss.kind->name,
                      std::to_string(loss.recentCount) + " " + loss.kind->meaning + ", last at " +
                          TimeText(static_cast<uint64_t>(loss.lastTime)));
            }
        }
    }

    void JudgeRoom(const RoomHealth& room) {
        if (room.freeBytes.IsKnown() && *room.freeBytes.value < room.neededBytes) {
            Fault("room-" + room.purpose,
                  room.path + " has " + std::to_string(*room.freeBytes.value) +
                      " bytes free and needs " + std::to_string(room.neededBytes));
        }
    }

    const Health& m_before;
    const Health& m_now;
    const std::vector<std::string>& m_without;
    Verdict m_verdict;
};

}  // namespace

HealthState Verdict::State() const {
    if (!faults.empty()) {
        return HealthState::kUnhealthy;
    }
    return unknowns.empty() ? HealthState::kHealthy : HealthState::kUnknown;
}

Verdict Judge(const Health& before, const Health& now, const std::vector<std::string>& without,
              bool isStrict) {
    Verdict verdict = Judgement(before, now, without).Run();
    if (isStrict) {
        verdict.faults.insert(verdict.faults.end(), verdict.warnings.begin(),
                              verdict.warnings.end());
        verdict.warnings.clear();
    }
    return verdict;
}

}  // namespace tarnctl
