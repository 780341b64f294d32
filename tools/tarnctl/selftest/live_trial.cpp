#include "tarnctl/selftest/live_trial.h"

#include <unistd.h>

#include <chrono>
#include <ctime>
#include <span>
#include <thread>

#include "config/config.h"
#include "config/event_rule_table.h"
#include "tarnctl/common/alert_fifo.h"
#include "tarnctl/common/daemon_load.h"
#include "tarnctl/health/health.h"
#include "tarnctl/health/report_trail.h"
#include "tarnctl/selftest/trial_alert.h"

namespace tarnctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPatience(6000);  // a second of quiet is the least
constexpr std::chrono::milliseconds kPause(20);
constexpr uint16_t kFirstMark = 49152;  // of the ports that nobody serves at
constexpr uint32_t kMarks = 65536 - kFirstMark;

TrialResult Refused(const std::string& reason) {
    TrialResult result;
    result.error = reason + "; nothing was sent";
    return result;
}

const FileHealth* EventFile(const Health& health) {
    for (const FileHealth& file : health.files) {
        if (file.name == "events") {
            return &file;
        }
    }
    return nullptr;
}

std::shared_ptr<Node> EntryOf(const HealthPlaces& places, const std::string& eventFile,
                              uint32_t signature) {
    const DaemonLoad load;
    Config::s_stateFile = places.stateFile;
    Config::Load(eventFile.c_str(), Config::kEventFile);
    return Config::s_eventTable.Find(signature);
}

std::string WhatHappens(const Node& entry, const TrialAlert& alert, bool isQuarantined) {
    std::string text = "sending one alert of signature " + std::to_string(alert.signature) +
                       ", from 192.0.2.1 port " + std::to_string(alert.mark) +
                       " to 198.51.100.2 port 80, into the alert FIFO; the CRM gets it as \"" +
                       entry.eventName + "\"";
    if ((entry.userResponseFlags & kUserResponseLogPackets) != 0) {
        text += ", the packet logging daemon gets its packet";
    }
    return text + (isQuarantined ? ", and the security manager its quarantine rules" : "");
}

uint64_t RecentLosses(const Health& health) {
    uint64_t count = 0;
    if (health.log.losses.IsKnown()) {
        for (const LossHealth& loss : *health.log.losses.value) {
            count += loss.count;
        }
    }
    return count;
}

}  // namespace

TrialResult RunLiveTrial(const LiveOptions& options,
                         const std::function<void(const std::string&)>& say) {
    const auto began = Clock::now();
    HealthCollector collector(options.places, 0);
    const Health before = collector.Look();
    const FileHealth* const events = EventFile(before);
    if (!before.daemon.isRunning.Is(true)) {
        return Refused("tarn does not run");
    }
    // An alert without an entry ends the daemon, so what is on the disk has to be what is in force.
    if (events == nullptr || !events->isNewer.Is(false)) {
        return Refused("it cannot be said that " + (events == nullptr ? "" : events->path) +
                       " is what is in force: reload it first (a hangup)");
    }
    if (access(events->path.c_str(), R_OK | W_OK) != 0) {
        return Refused("this user cannot open " + events->path + " as the daemon does");
    }
    const std::shared_ptr<Node> entry = EntryOf(options.places, events->path, options.signature);
    if (entry == nullptr) {
        return Refused("signature " + std::to_string(options.signature) + " has no entry in " +
                       events->path + ", so that the alert would end the daemon");
    }
    const bool isQuarantined =
        (entry->responseFlags & kResponseQuarantineTraffic) != 0 && !entry->blockRules.empty();
    if (isQuarantined && !options.withQuarantine) {
        return Refused("the entry asks for a quarantine, which --with-quarantine allows");
    }
    const auto now = static_cast<uint32_t>(std::time(nullptr));
    const TrialAlert alert{
        options.signature, now & 0xFFFF, now,
        static_cast<uint16_t>(kFirstMark + (now ^ static_cast<uint32_t>(getpid())) % kMarks), true};
    ReportTrail trail(before.queue.rings.front().path);
    (void)trail.Follow([](const EventReport&) {});  // where the ring is now
    if (!trail.IsOpen()) {
        return Refused(before.queue.rings.front().path + " cannot be read");
    }
    AlertFifo::Limits limits;
    limits.stall = kPatience;
    AlertFifo fifo(options.places.alertFifo, limits);
    say(WhatHappens(*entry, alert, isQuarantined));
    if (fifo.Open() != FifoResult::kDone) {
        return Refused(fifo.Error());
    }
    TrialResult result;
    for (const std::vector<std::byte>& record : RecordsOf(alert)) {
        if (fifo.Send(record) != FifoResult::kDone) {
            result.error = fifo.Error();
            return result;
        }
    }
    const bool isTaken = fifo.Drain() == FifoResult::kDone;
    result.legs.push_back(
        {"feed", isTaken,
         isTaken ? "the daemon took the alert from its FIFO" : "the daemon did not take the alert",
         isTaken ? "" : "the daemon's main thread: tarnctl status"});
    bool hasCome = false;
    bool isWhole = true;
    const auto deadline = Clock::now() + kPatience;
    while (!hasCome && Clock::now() < deadline) {
        std::this_thread::sleep_for(kPause);
        isWhole = trail.Follow([&](const EventReport& report) {
            hasCome =
                hasCome || (report.issueId == alert.signature && report.sourceIp == kTrialSource &&
                            report.sourcePort == alert.mark);
        }) && isWhole;
    }
    result.legs.push_back(
        {"report", hasCome,
         hasCome   ? "its report went into the CRM's ring"
         : isWhole ? "its report did not come into the CRM's ring"
                   : "its report was not seen; the ring went by faster than it was read",
         hasCome ? "" : "the event thread, the ring and the log: tarnctl status"});
    const Health after = collector.Look();
    const bool isQuiet = after.log.losses.IsKnown() && RecentLosses(after) <= RecentLosses(before);
    result.legs.push_back({"log", isQuiet,
                           isQuiet ? "the log tells of no loss meanwhile"
                           : after.log.losses.IsKnown()
                               ? "the log tells of a loss meanwhile, of this alert or another"
                               : after.log.losses.reason,
                           isQuiet ? "" : "the log: tarnctl status"});
    result.seconds = std::chrono::duration<double>(Clock::now() - began).count();
    return result;
}

}  // namespace tarnctl
