#include "tarnctl/selftest/trial.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <thread>

#include "paths.h"
#include "tarnctl/health/health.h"
#include "tarnctl/health/verdict.h"
#include "tarnctl/selftest/child.h"
#include "tarnctl/selftest/trial_alert.h"

namespace tarnctl {
namespace {

using Clock = std::chrono::steady_clock;

// All of it stays below ten seconds: alerts leave the daemon after a quiet second, and a peer that
// is not there costs it a little more.
constexpr std::chrono::milliseconds kStartPatience(2500);
constexpr std::chrono::milliseconds kRoadPatience(4000);
constexpr std::chrono::milliseconds kStopPatience(2000);
constexpr std::chrono::milliseconds kPause(10);
constexpr const char* kPeers[] = {kPartCrm, kPartMessages, kPartSecmgr, kPartPacketlog};

template <typename Condition>
bool WaitFor(std::chrono::milliseconds patience, Condition condition) {
    const auto deadline = Clock::now() + patience;
    while (!condition()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
    return true;
}

bool IsAmong(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool WriteText(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(file << text << std::flush);
}

// The writing end of a FIFO that somebody reads.
class FifoEnd {
  public:
    ~FifoEnd() {
        if (m_fd != -1) {
            close(m_fd);
        }
    }
    bool Open(const char* path) {
        m_fd = m_fd != -1 ? m_fd : open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        return m_fd != -1;
    }
    [[nodiscard]] bool Write(const void* bytes, size_t length) const {
        return write(m_fd, bytes, length) == static_cast<ssize_t>(length);
    }

  private:
    int m_fd = -1;  // owned
};

class Trial {
  public:
    explicit Trial(const TrialOptions& options) : m_options(options) {}

    TrialResult Run() {
        const auto began = Clock::now();
        TrialResult result;
        if (!WriteText(tarn::paths::kConfigFile, TrialConfig()) ||
            !WriteText(tarn::paths::kEventConfigFile, TrialEvents())) {
            result.error = std::string(tarn::paths::kConfigFile) + ": " + std::strerror(errno);
            return result;
        }
        for (const char* const name : kPeers) {
            StartPeer(name);
        }
        (void)WaitFor(kStartPatience, [this] { return ArePeersReady(); });
        Child daemon({m_options.daemon}, m_options.folder + "/tarn");
        if (!daemon.Error().empty()) {
            result.error = daemon.Error();
            return result;
        }
        m_output.hasBegun =
            WaitFor(kStartPatience,
                    [&] { return m_alerts.Open(tarn::paths::kAlertFifo) || !daemon.IsAlive(); }) &&
            daemon.IsAlive();
        for (const std::string& name : m_options.killed) {
            const auto peer = m_peers.find(name);
            if (peer != m_peers.end()) {
                peer->second->Kill();  // it leaves its socket's file behind
            }
        }
        if (m_output.hasBegun) {
            m_output.isFed = Feed();
            (void)WaitFor(kRoadPatience, [this, &daemon] {
                Collect();
                return AreProven(JudgeLegs(m_output)) || !daemon.IsAlive();
            });
        }
        const bool isWell = AreProven(JudgeLegs(m_output));
        if (!isWell) {
            AddSurroundings();
        }
        m_output.status = daemon.End(kStopPatience);
        result.legs = JudgeLegs(m_output);
        AddSurroundingsTo(result.legs);
        if (!AreProven(result.legs)) {
            result.log = EndOfLog(daemon);
        }
        m_peers.clear();
        result.seconds = std::chrono::duration<double>(Clock::now() - began).count();
        return result;
    }

  private:
    void StartPeer(const std::string& name) {
        if (IsAmong(m_options.without, name)) {
            return;
        }
        std::vector<std::string> words = {m_options.tarnctl, name, "--json"};
        if (name == kPartPacketlog) {
            words.insert(words.end(), {"--dir", m_options.folder});
        }
        m_peers.emplace(name, std::make_unique<Child>(words, m_options.folder + "/" + name));
    }

    // Each says on standard error that it has begun.
    bool ArePeersReady() {
        return std::all_of(m_peers.begin(), m_peers.end(), [](auto& peer) {
            return !peer.second->Messages().empty() || !peer.second->IsAlive();
        });
    }

    bool Feed() {
        const auto now = static_cast<uint32_t>(std::time(nullptr));
        uint32_t eventId = 0;
        for (const uint32_t signature :
             {kReportSignature, kQuarantineSignature, kCaptureSignature}) {
            const TrialAlert alert{signature, ++eventId, now,
                                   static_cast<uint16_t>(40000 + eventId), true};
            for (const std::vector<std::byte>& record : RecordsOf(alert)) {
                if (!m_alerts.Write(record.data(), record.size())) {
                    return false;
                }
            }
        }
        FifoEnd errors;
        return WaitFor(kStartPatience,
                       [&errors] { return errors.Open(tarn::paths::kErrorFifo); }) &&
               errors.Write(kTrialError, std::strlen(kTrialError));
    }

    void Collect() {
        const std::pair<const char*, std::string*> outputs[] = {
            {kPartCrm, &m_output.reports},
            {kPartMessages, &m_output.messages},
            {kPartSecmgr, &m_output.rules},
            {kPartPacketlog, &m_output.requests}};
        for (const auto& [name, text] : outputs) {
            const auto peer = m_peers.find(name);
            if (peer != m_peers.end()) {
                *text = peer->second->Output();
            }
        }
    }

    // What is wrong around the daemon while it still runs.
    void AddSurroundings() {
        HealthCollector collector(DaemonHealthPlaces(), 60);
        const Health before = collector.Look();
        std::this_thread::sleep_for(10 * kPause);
        const Health now = collector.Look();
        for (const HealthFinding& fault : Judge(before, now, {}, false).faults) {
            m_surroundings += (m_surroundings.empty() ? "" : "; ") + fault.text;
        }
    }

    void AddSurroundingsTo(std::vector<Leg>& legs) const {
        for (Leg& leg : legs) {
            if (!leg.isProven && !m_surroundings.empty()) {
                leg.look += "; seen: " + m_surroundings;
            }
        }
    }

    static std::string EndOfLog(const Child& daemon) {
        std::ifstream file(tarn::paths::kLogFile);
        std::string text{std::istreambuf_iterator<char>(file), {}};
        text = text.empty() ? daemon.Messages() : text;
        constexpr size_t kShown = 2000;  // bytes
        if (text.size() > kShown) {
            text.erase(0, text.find('\n', text.size() - kShown) + 1);
        }
        return text;
    }

    const TrialOptions& m_options;
    std::map<std::string, std::unique_ptr<Child>> m_peers;
    FifoEnd m_alerts;
    TrialOutput m_output;
    std::string m_surroundings;
};

}  // namespace

TrialResult RunTrial(const TrialOptions& options) {
    return Trial(options).Run();
}

}  // namespace tarnctl
