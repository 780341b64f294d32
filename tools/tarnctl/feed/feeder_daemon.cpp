// The daemon as the feeder sees it: whether it is there, what it has read, what it reports.

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "paths.h"
#include "ring/shm_ring_format.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/feed/feeder.h"

namespace tarnctl {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kConnectInterval{20};

// The daemon waits for a second before it passes the last alerts on; its own work comes on top.
constexpr milliseconds kQuiet{1300};
// How long an empty pipe may still be followed by a read of the same record.
constexpr milliseconds kEmptyPipe{50};
// Reports that have not come by then will not come.
constexpr milliseconds kLostAfter{15000};
// The same where the daemon has opened the FIFO anew since, which drops what was pending.
constexpr milliseconds kLostAfterClose{4000};
// What each quarantine rule of an entry can cost when the security manager does not answer.
constexpr milliseconds kRulePatience{10000};
// Without a process to watch, the FIFO alone says that the daemon has ended. A daemon that reads
// its files again has it closed for up to two seconds.
constexpr milliseconds kGoneAfter{5000};

// So many times a daemon that went on has made no report of an alert: it never will.
constexpr uint32_t kMostLosses = 3;

std::string RingBase() {
    return std::string(tarn::paths::kEventQueueBase) + "CRM" +
           std::to_string(EntryGuard::Channel());
}

}  // namespace

void Feeder::LookAtDaemon() {
    if (m_daemonEnd.HasEnded()) {
        OnDaemonEnd();
    }
    if (m_phase == Phase::kConnecting) {
        Connect();
        return;
    }
    if (const uint32_t closes = m_fifo.TakeReaderCloses(); closes != 0) {
        OnReaderCloses(closes);
    }
    if (m_fifo.HasReader()) {
        m_readerGone = {};
        if (m_guardIsLate) {
            ReadChangedEntries();
        }
        return;
    }
    const auto now = Clock::now();
    if (m_readerGone == Clock::time_point()) {
        m_readerGone = now;
    }
    if (!m_daemonEnd.IsWatching() && now - m_readerGone >= kGoneAfter) {
        OnDaemonEnd();
    }
    SetWaiting("tarn does not read " + m_fifo.Path());
}

void Feeder::Connect() {
    const auto now = Clock::now();
    if (now < m_nextConnect) {
        return;
    }
    m_nextConnect = now + kConnectInterval;
    if (!m_fifo.IsOpen()) {
        const FeedFifo::Result opened = m_fifo.Open();
        if (opened == FeedFifo::Result::kFailed) {
            Tell(m_fifo.Error());
            m_isFailed = true;
        }
        if (opened != FeedFifo::Result::kDone) {
            SetWaiting("nobody reads " + m_fifo.Path() + "; start tarn");
            return;
        }
        m_isLoaded = false;
    }
    if (!m_fifo.HasReader()) {
        m_fifo.Close();
        return;
    }
    const std::optional<DaemonProcess> daemon = FindDaemon(m_fifo.Path());
    if (daemon && !m_daemonEnd.IsWatching() && !m_daemonEnd.Watch(daemon->pid)) {
        m_fifo.Close();
        return;
    }
    if (daemon) {
        m_processors.KeepOff(daemon->pid);
    }
    if (!KnowEntries(daemon) || !AttachRing()) {
        return;
    }
    (void)m_fifo.TakeReaderCloses();
    m_readerGone = {};
    m_guardIsLate = false;
    m_phase = Phase::kSettling;
    m_stillSince = now;
    m_stillIndex = m_watch->WriteIndex();
    m_stillUnread = m_fifo.Unread();
}

bool Feeder::KnowEntries(const std::optional<DaemonProcess>& daemon) {
    std::string fault;
    if (!m_isLoaded || !m_guard.Changed().empty()) {
        fault = m_guard.Load();
        m_isLoaded = fault.empty();
    }
    if (!fault.empty()) {
        SetWaiting(fault);
        return false;
    }
    if (!daemon) {
        return true;  // it cannot be seen, so its files are taken as they are
    }
    const std::string newer = m_guard.NewerThan(EntryGuard::LastLoad(daemon->pid));
    if (!newer.empty()) {
        SetWaiting(newer +
                   " is newer than what tarn has read, which is not known; send tarn a hangup");
        return false;
    }
    return true;
}

bool Feeder::AttachRing() {
    const std::string path = RingBase() + kShmRingFirstSuffix;
    if (m_watch && m_watch->IsAttached() && m_watch->Path() == path && !m_watch->IsReplaced()) {
        return true;
    }
    auto watch = std::make_unique<ReportWatch>(path);
    const std::string fault = watch->Attach();
    if (!fault.empty()) {
        SetWaiting(fault);
        return false;
    }
    m_watch = std::move(watch);
    if (m_isFirst && m_bookmark.ring && !m_watch->GoTo(*m_bookmark.ring)) {
        ++m_counters.unsureCounts;
        Tell(path + " is not the ring of the bookmark; what has been reported since is not known");
    }
    return true;
}

void Feeder::OnDaemonEnd() {
    ++m_counters.daemonEnds;
    // What stands in the pipe must not reach the next daemon; its first record may lack its head. A
    // daemon that is there already may have read some of it, and reports of that may come.
    m_mayBeInside = m_fifo.HasReader();
    m_fifo.Close();
    m_daemonEnd.Forget();
    ReadReports();
    const size_t count = m_underWay.Size();
    TakeAllAgain(false);
    m_isUnsure = false;
    m_guardIsLate = false;
    m_phase = Phase::kConnecting;
    Tell("tarn has ended; " + Counted(count, "alert") + " without a report will be fed again");
}

void Feeder::OnReaderCloses(uint32_t closes) {
    m_counters.readerCloses += closes;
    m_hasCycled = true;
    m_guardIsLate = true;
}

void Feeder::ReadChangedEntries() {
    const std::string fault = m_guard.LoadChanged();
    if (!fault.empty()) {
        SetWaiting(fault);
        return;
    }
    if (AttachRing()) {
        m_guardIsLate = false;
    }
}

void Feeder::ReadReports() {
    if (!m_watch) {
        return;
    }
    AlertKey key;
    std::vector<FedAlert> lost;
    uint32_t from = m_watch->Place().index;
    for (auto look = m_watch->Next(key); look != ReportWatch::Look::kNothing;
         look = m_watch->Next(key)) {
        const uint32_t to = m_watch->Place().index;
        m_bytesSinceBookmark += to >= from ? to - from : m_watch->Size() - from + to;
        from = to;
        if (look == ReportWatch::Look::kUnsure) {
            ++m_counters.unsureCounts;
            m_isUnsure = true;
            Tell("the ring is not as the last look has left it; waiting until tarn is quiet");
            break;
        }
        if (m_isFirst) {
            ++m_before[key];
            ++m_beforeAlerts;
            continue;
        }
        ++m_reportsSinceBookmark;
        switch (m_underWay.Report(key, lost)) {
            case UnderWay::Match::kOurs:
                ++m_counters.reports;
                break;
            case UnderWay::Match::kDuplicate:
                ++m_counters.duplicates;
                break;
            case UnderWay::Match::kForeign:
                ++(TakeFromAgain(key) ? m_counters.reports : m_counters.foreignReports);
                break;
        }
    }
    m_counters.lostInside += lost.size();
    KeepLost(std::move(lost));
    if (m_underWay.IsEmpty()) {
        m_hasCycled = false;
    }
}

// An alert that was given up too early has its report after all.
bool Feeder::TakeFromAgain(const AlertKey& key) {
    const auto found = std::find_if(m_again.begin(), m_again.end(),
                                    [&](const FedAlert& alert) { return alert.key == key; });
    if (found == m_again.end()) {
        return false;
    }
    m_again.erase(found);
    return true;
}

void Feeder::KeepLost(std::vector<FedAlert> lost) {
    for (FedAlert& alert : lost) {
        if (alert.losses < kMostLosses) {
            m_again.push_back(std::move(alert));
            continue;
        }
        Tell("tarn makes no report of an alert of signature " +
             std::to_string(alert.key.signature) + "; it is rejected");
        ++m_counters.rejectedAlerts;
        for (const auto record : alert.records.All()) {
            (void)Reject(record);
        }
    }
    std::stable_sort(m_again.begin(), m_again.end(),
                     [](const FedAlert& a, const FedAlert& b) { return a.position < b.position; });
}

void Feeder::TakeAllAgain(bool isLostInside) {
    std::vector<FedAlert> all = m_underWay.TakeAll();
    if (isLostInside) {
        m_counters.lostInside += all.size();
        for (FedAlert& alert : all) {
            ++alert.losses;
        }
    }
    KeepLost(std::move(all));
}

void Feeder::LookForStillness() {
    if (m_phase == Phase::kConnecting) {
        return;
    }
    const auto now = Clock::now();
    const int unread = m_fifo.Unread();
    const uint32_t index = m_watch->WriteIndex();
    if (unread != m_stillUnread || index != m_stillIndex || unread != 0 || !m_fifo.HasReader()) {
        m_stillUnread = unread;
        m_stillIndex = index;
        m_stillSince = now;
        return;
    }
    const auto still = now - m_stillSince;
    if (m_phase == Phase::kSettling) {
        if (still >= (m_mayBeInside ? kQuiet : kEmptyPipe)) {
            EndSettling();
        }
        return;
    }
    if (m_isUnsure && still >= kQuiet) {
        m_isUnsure = false;
        if (m_hasCycled) {
            TakeAllAgain(true);
        } else {
            // A daemon that has gone on all the time has reported what it had.
            m_counters.reports += m_underWay.Size();
            m_underWay.Settle();
        }
    }
    const auto patience =
        (m_hasCycled ? kLostAfterClose : kLostAfter) + kRulePatience * m_guard.MostBlockRules();
    if (!m_underWay.IsEmpty() && still >= patience) {
        Tell("tarn has dropped " + Counted(m_underWay.Size(), "alert") +
             ", which will be fed again");
        TakeAllAgain(true);
    }
}

void Feeder::EndSettling() {
    m_phase = Phase::kFeeding;
    m_mayBeInside = false;
    m_isUnsure = false;
    if (std::exchange(m_isFirst, false)) {
        m_beforeAlerts += m_options.window;
    }
}

}  // namespace tarnctl
