#pragma once

// The feeder: what is read from the spool goes to the daemon, stays under way until its report is
// seen in the ring, and is fed again if that does not come.
//
// An alert leaves the daemon's reader when 128 younger ones have come or the FIFO has been quiet
// for a second; in both thread modes it then becomes one report, in the order in which the alerts
// came. An alert is therefore lost when a later one is reported, when the daemon has ended, or when
// nothing has moved for long. The window keeps the alerts under way below what the daemon's queue
// holds, and the room kept free in the ring takes the reports of all of them.
//
// Owned by RunFeed. Threads: one at a time.

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tarnctl/common/daemon_process.h"
#include "tarnctl/common/entry_guard.h"
#include "tarnctl/common/pacer.h"
#include "tarnctl/common/processors.h"
#include "tarnctl/common/progress_bar.h"
#include "tarnctl/feed/alert_key.h"
#include "tarnctl/feed/bookmark.h"
#include "tarnctl/feed/control_server.h"
#include "tarnctl/feed/feed_command.h"
#include "tarnctl/feed/feed_counters.h"
#include "tarnctl/feed/feed_fifo.h"
#include "tarnctl/feed/reject_file.h"
#include "tarnctl/feed/report_watch.h"
#include "tarnctl/feed/spool_reader.h"
#include "tarnctl/feed/under_way.h"

namespace tarnctl {

class Feeder {
  public:
    using Clock = std::chrono::steady_clock;

    Feeder(const FeedOptions& options, std::ostream& out, std::ostream& err);
    ~Feeder();
    Feeder(const Feeder&) = delete;
    Feeder& operator=(const Feeder&) = delete;

    // Feeds until all is done or a stop is requested. Returns an exit status.
    [[nodiscard]] int Run();

  private:
    enum class Phase {
        kConnecting,  // no daemon, or not all of it
        kSettling,    // it is not known yet what is inside the daemon
        kFeeding,
    };
    // What became of an alert, for the records that belong to it.
    enum class Fate { kFed, kRejected, kSkipped };
    // What FeedOne made of the next record.
    enum class Step {
        kGoesOn,
        kEnd,      // nothing more to read at present
        kBlocked,  // something is waited for
    };

    // feeder.cpp: the loop.
    [[nodiscard]] std::string Begin();
    [[nodiscard]] std::string BeginSpool();
    void LoopOnce(bool mayFeed);
    void FeedSome();
    void WaitForNews();
    [[nodiscard]] bool IsAllDone();
    void WaitForLastReports();
    void Tell(const std::string& text);
    // Tells what is waited for, unless it has been told; an empty text: nothing.
    void SetWaiting(const std::string& reason);
    [[nodiscard]] std::string Answer(const std::string& word);
    void SaveBookmarkIfDue(bool isLast);
    // False when it could not be written.
    bool WriteBookmark(bool isSettled);
    void FinishRefeed();
    void ShowCounters();
    void WritePrometheus(bool isLast);

    // feeder_daemon.cpp: the daemon and its reports.
    void LookAtDaemon();
    void Connect();
    [[nodiscard]] bool AttachRing();
    [[nodiscard]] bool KnowEntries(const std::optional<DaemonProcess>& daemon);
    void OnDaemonEnd();
    void OnReaderCloses(uint32_t closes);
    void ReadChangedEntries();
    void ReadReports();
    [[nodiscard]] bool TakeFromAgain(const AlertKey& key);
    void KeepLost(std::vector<FedAlert> lost);
    void LookForStillness();
    void EndSettling();
    void TakeAllAgain(bool isLostInside);

    // feeder_records.cpp: what becomes of each record.
    Step FeedOne();
    Step FeedAlert(uint32_t type, std::span<const std::byte> record);
    Step FeedAttachment(uint32_t type, std::span<const std::byte> record);
    Step FeedAgain();
    Step Send(std::span<const std::byte> record);
    [[nodiscard]] bool SendWaiting(std::span<const std::byte> record);
    Step Reject(std::span<const std::byte> record);
    Step SkipForeign(uint32_t type);
    [[nodiscard]] bool MayFeed(uint64_t reportBytes);
    [[nodiscard]] bool HasRoom(uint64_t reportBytes);
    [[nodiscard]] bool IsDue();
    void NoteFate(uint32_t eventId, Fate fate);
    [[nodiscard]] std::optional<Fate> FateOf(uint32_t eventId) const;
    [[nodiscard]] bool TakeReportedBefore(const AlertKey& key);
    void PassRecord();

    [[nodiscard]] SpoolReader& Source() { return m_refeed ? *m_refeed : m_spool; }

    const FeedOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    ProgressBar m_bar;
    FeedCounters m_counters;
    ControlServer m_control;
    EntryGuard m_guard;
    SpoolReader m_spool;
    std::unique_ptr<SpoolReader> m_refeed;  // while rejected alerts are fed again
    RejectFile m_rejects;
    FeedFifo m_fifo;
    std::unique_ptr<ReportWatch> m_watch;
    ProcessEnd m_daemonEnd;
    const Processors m_processors;
    Pacer m_pacer;

    Phase m_phase = Phase::kConnecting;
    Step m_lastStep = Step::kBlocked;
    bool m_isFailed = false;  // what is at fault will not mend itself
    bool m_isFirst = true;    // it is not known yet which reports are of alerts after the bookmark
    bool m_isLoaded = false;  // the guard has read the files since the FIFO was opened
    bool m_mayBeInside = false;  // a feeder before this one may have left alerts in the daemon
    bool m_isUnsure = false;     // the count of what is under way is not to be relied on
    bool m_hasCycled = false;    // the FIFO was opened anew since something was fed last
    bool m_guardIsLate = false;  // the daemon has read its files and the guard has not yet
    Clock::time_point m_nextConnect;
    Clock::time_point m_readerGone;  // since when nobody reads the FIFO; the epoch: somebody does
    Clock::time_point m_stillSince;  // since when FIFO and ring have not moved
    uint32_t m_stillIndex = 0;
    int m_stillUnread = 0;

    UnderWay m_underWay;
    std::deque<FedAlert> m_again;                                   // to be fed again, oldest first
    std::unordered_map<AlertKey, uint32_t, AlertKeyHash> m_before;  // reported after the bookmark
    uint64_t m_beforeAlerts = 0;                    // alerts that may still be among them
    std::deque<std::pair<uint32_t, Fate>> m_fates;  // of the last alerts, by event id, oldest first
    std::optional<AlertRead> m_present;             // the next record, once it has been looked at
    std::optional<Clock::time_point> m_due;         // of the next alert, by --rate
    Clock::time_point m_idleSince;

    Bookmark m_bookmark;  // as it was written last
    Clock::time_point m_bookmarkTime;
    bool m_isBookmarkFailing = false;
    uint64_t m_reportsSinceBookmark = 0;
    uint64_t m_bytesSinceBookmark = 0;  // of reports, at most

    EntryGuard::Policies m_policiesBefore;  // as the feeder was held
    std::set<uint32_t> m_namedSignatures;
    std::set<uint32_t> m_namedKinds;
    std::string m_waiting;  // what was told last of it
    std::string m_waitingNow;
    Clock::time_point m_waitingSince;
    Clock::time_point m_prometheusTime;
    bool m_isPrometheusFailing = false;
};

}  // namespace tarnctl
