#include "tarnctl/feed/feeder.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>

#include "tarnctl/common/atomic_file.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/failure_text.h"
#include "tarnctl/common/feed_words.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/tarn_process.h"

namespace tarnctl {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// Records that are fed before reports and signals are looked at again.
constexpr int kRecordsAtOnce = 128;

// A bookmark is written after this time, or after so many reports, whichever comes first.
constexpr milliseconds kBookmarkInterval{500};
constexpr milliseconds kBookmarkRetry{1000};
constexpr uint64_t kBookmarkReports = 16384;
// A part of the ring after which it is written too: the reports since a bookmark have to be there
// still when the next feeder looks for them.
constexpr uint64_t kBookmarkRingPart = 4;

constexpr milliseconds kPrometheusInterval{5000};
// The daemon passes the last alerts on after a quiet second.
constexpr milliseconds kLastReports{3000};
// What is read last has no more to come when nothing came for so long.
constexpr milliseconds kIdle{200};

// Nothing wakes a writer when the ring moves. A daemon that is busy is through with all that the
// pipe holds, or the window, in a part of a millisecond.
constexpr microseconds kPollBusy{100};
constexpr milliseconds kBusy{5};  // since it has moved last
constexpr milliseconds kPollBlocked{1};
constexpr milliseconds kPollUnderWay{5};
constexpr milliseconds kPollWaiting{10};
constexpr milliseconds kPollIdle{250};

constexpr const char* kRefeedEnding = ".refeed";

// An interrupted or failed wait is over early; whoever waits looks again at what it waits for.
void PollFor(std::span<pollfd> entries, microseconds time) {
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(time);
    const timespec limit = {.tv_sec = 0, .tv_nsec = nanoseconds.count()};
    (void)ppoll(entries.data(), entries.size(), &limit, nullptr);
}

std::string OrElse(const std::string& text, const std::string& other) {
    return text.empty() ? other : text;
}

}  // namespace

Feeder::Feeder(const FeedOptions& options, std::ostream& out, std::ostream& err)
    : m_options(options),
      m_out(out),
      m_err(err),
      m_bar(err, options),
      m_guard({options.configFile, options.eventFile, options.stateFile}),
      m_spool(options.spool, [this](const std::string& text) { Tell(text); }),
      m_rejects(OrElse(options.rejects, options.bookmark + ".rejects")),
      m_fifo(options.fifo),
      m_pacer(options.rate) {}

Feeder::~Feeder() = default;

void Feeder::Tell(const std::string& text) {
    m_bar.Clear();
    m_err << "tarnctl feed: " << text << std::endl;
}

void Feeder::SetWaiting(const std::string& reason) {
    const auto now = Clock::now();
    if (reason != m_waitingNow) {
        m_waitingNow = reason;
        m_waitingSince = now;
    }
    if (reason.empty()) {
        if (!m_waiting.empty()) {
            Tell("going on");
        }
        m_waiting.clear();
    } else if (reason != m_waiting && now - m_waitingSince >= milliseconds(kSilentWait)) {
        m_waiting = reason;
        Tell("waiting: " + reason);
    }
    m_counters.waitingFor = m_waiting;
}

std::string Feeder::Begin() {
    std::string fault =
        m_control.Open(OrElse(m_options.control, m_options.bookmark + kFeedSocketEnding));
    if (fault.empty()) {
        fault = LoadBookmark(m_options.bookmark, m_bookmark);
    }
    if (fault.empty()) {
        fault = m_rejects.CutTo(m_bookmark.rejects);
    }
    if (fault.empty()) {
        fault = BeginSpool();
    }
    if (fault.empty()) {
        m_mayBeInside = !m_bookmark.isSettled;
        // A bookmark that cannot be written shows before anything is fed.
        fault = SaveBookmark(m_options.bookmark, m_bookmark);
    }
    return fault;
}

std::string Feeder::BeginSpool() {
    const std::string path = m_rejects.Path() + kRefeedEnding;
    std::error_code ignored;
    bool isThere = std::filesystem::exists(path, ignored);
    if (m_options.refeed && !isThere && std::filesystem::exists(m_rejects.Path(), ignored)) {
        if (std::rename(m_rejects.Path().c_str(), path.c_str()) != 0) {
            return FailureText(path, errno);
        }
        isThere = true;
        m_bookmark.refeed.reset();
        m_bookmark.rejects.reset();
    }
    // What a feeder before this one began to feed again is finished first.
    if (isThere) {
        m_refeed =
            std::make_unique<SpoolReader>(path, [this](const std::string& text) { Tell(text); });
        m_refeed->Begin(m_bookmark.refeed);
    }
    m_spool.Begin(m_bookmark.spool);
    return "";
}

int Feeder::Run() {
    const std::string fault = Begin();
    if (!fault.empty()) {
        Tell(fault);
        return kExitFailure;
    }
    while (!StopRequested() && !m_isFailed && !IsAllDone()) {
        LoopOnce(true);
        WaitForNews();
    }
    m_bar.Clear();
    if (!m_isFailed) {
        WaitForLastReports();
    }
    SaveBookmarkIfDue(true);
    WritePrometheus(true);
    m_counters.underWay = m_underWay.Size();
    m_out << (m_options.json ? AsJson(m_counters).dump() : AsText(m_counters)) << std::endl;
    return m_isFailed || m_isBookmarkFailing || !m_out ? kExitFailure : kExitFine;
}

void Feeder::WaitForLastReports() {
    const auto deadline = Clock::now() + kLastReports;
    while (!m_underWay.IsEmpty() && !m_isFailed && Clock::now() < deadline) {
        LoopOnce(false);
        PollFor({}, kPollWaiting);
    }
}

void Feeder::LoopOnce(bool mayFeed) {
    m_control.Serve([this](const std::string& word) { return Answer(word); });
    m_counters.isHeld = m_control.IsHeld();
    LookAtDaemon();
    ReadReports();
    LookForStillness();
    m_lastStep = Step::kBlocked;
    const bool isReady = m_phase == Phase::kFeeding && !m_isUnsure && !m_guardIsLate;
    if (mayFeed && isReady && !m_counters.isHeld) {
        FeedSome();
    }
    m_counters.underWay = m_underWay.Size();
    m_counters.mostUnderWay = std::max(m_counters.mostUnderWay, m_counters.underWay);
    SaveBookmarkIfDue(false);
    WritePrometheus(false);
    ShowCounters();
}

void Feeder::FeedSome() {
    m_lastStep = Step::kGoesOn;
    for (int count = 0; count < kRecordsAtOnce && m_lastStep == Step::kGoesOn; ++count) {
        m_lastStep = FeedOne();
    }
    if (m_lastStep != Step::kBlocked) {
        SetWaiting("");
    }
    const bool isFinished = m_lastStep == Step::kEnd && m_underWay.IsEmpty() && m_again.empty() &&
                            Clock::now() - m_idleSince >= kIdle;
    if (m_refeed && isFinished) {
        FinishRefeed();
    }
}

void Feeder::FinishRefeed() {
    const std::string path = m_rejects.Path() + kRefeedEnding;
    if (unlink(path.c_str()) != 0) {
        Tell(FailureText(path, errno));
        m_isFailed = true;
        return;
    }
    Tell("all that was rejected before has been fed again or rejected again");
    m_refeed.reset();
    m_fates.clear();
    SaveBookmarkIfDue(true);
}

bool Feeder::IsAllDone() {
    if (!m_options.once || m_refeed || !m_underWay.IsEmpty() || !m_again.empty()) {
        return false;
    }
    const auto now = Clock::now();
    if (m_spool.Peek(now) == SpoolReader::State::kRecord || m_spool.IsWaitingForTail()) {
        m_idleSince = now;
    }
    return now - m_idleSince >= kIdle;
}

void Feeder::WaitForNews() {
    if (m_lastStep == Step::kGoesOn) {
        return;
    }
    microseconds time = kPollIdle;
    if (m_lastStep == Step::kBlocked) {
        time = Clock::now() - m_stillSince < kBusy ? kPollBusy : kPollBlocked;
    }
    const bool isAtEnd = m_lastStep == Step::kEnd;
    if (m_phase != Phase::kFeeding || m_counters.isHeld || m_guardIsLate || m_isUnsure ||
        (isAtEnd && m_underWay.IsEmpty() && m_options.once)) {
        time = kPollWaiting;
    } else if (isAtEnd && !m_underWay.IsEmpty()) {
        time = kPollUnderWay;
    }
    std::vector<pollfd> entries;
    m_control.AddTo(entries);
    if (m_daemonEnd.IsWatching()) {
        entries.push_back({m_daemonEnd.Descriptor(), POLLIN, 0});
    }
    if (const int folder = Source().Folder().Descriptor(); folder != -1) {
        entries.push_back({folder, POLLIN, 0});
    }
    PollFor(entries, time);
    Source().Folder().TakeNews();
}

void Feeder::SaveBookmarkIfDue(bool isLast) {
    const auto now = Clock::now();
    const uint64_t ringPart =
        m_watch && m_watch->IsAttached() ? m_watch->Size() / kBookmarkRingPart : UINT64_MAX;
    const bool isMany =
        m_reportsSinceBookmark >= kBookmarkReports || m_bytesSinceBookmark >= ringPart;
    const auto interval = m_isBookmarkFailing ? kBookmarkRetry : kBookmarkInterval;
    const bool isTime = now - m_bookmarkTime >= interval;
    if (isLast || isTime || (isMany && !m_isBookmarkFailing)) {
        (void)WriteBookmark(m_underWay.IsEmpty() && !m_isUnsure && !m_mayBeInside);
    }
}

bool Feeder::WriteBookmark(bool isSettled) {
    Bookmark next = m_bookmark;
    std::optional<SpoolPosition> position = m_underWay.Earliest();
    for (const FedAlert& alert : m_again) {
        position = std::min(position.value_or(alert.position), alert.position);
    }
    const SpoolPosition here = Source().Here();
    const SpoolPosition earliest = std::min(position.value_or(here), here);
    Source().Forget(earliest);
    if (const auto place = Source().PlaceOf(earliest)) {
        (m_refeed ? next.refeed : next.spool) = place;
    }
    if (!m_refeed) {
        next.refeed.reset();
    }
    // Until it is known what is inside the daemon the old place in the ring stays the right one.
    if (m_watch && m_watch->IsAttached() && !m_isFirst) {
        next.ring = m_watch->Place();
    }
    next.isSettled = isSettled;
    std::string fault = m_rejects.Sync();
    if (m_rejects.IsOpen()) {
        next.rejects = m_rejects.Place();
    }
    m_bookmarkTime = Clock::now();
    if (fault.empty() && next == m_bookmark && !m_isBookmarkFailing) {
        return true;
    }
    if (fault.empty()) {
        fault = SaveBookmark(m_options.bookmark, next);
    }
    if (!fault.empty()) {
        ++m_counters.bookmarkFailures;
        if (!std::exchange(m_isBookmarkFailing, true)) {
            Tell("the bookmark cannot be written: " + fault);
        }
        return false;
    }
    if (std::exchange(m_isBookmarkFailing, false)) {
        Tell("the bookmark is written again");
    }
    ++m_counters.bookmarks;
    m_bookmark = next;
    m_reportsSinceBookmark = 0;
    m_bytesSinceBookmark = 0;
    return true;
}

std::string Feeder::Answer(const std::string& word) {
    m_counters.underWay = m_underWay.Size();
    m_counters.isHeld = m_control.IsHeld();
    nlohmann::ordered_json answer = AsJson(m_counters);
    if (word == kFeedHold) {
        m_policiesBefore = m_guard.CurrentPolicies();
    } else if (word == kFeedReloaded) {
        OnReaderCloses(1);
        ReadChangedEntries();
        answer = m_guard.ChangesSince(m_policiesBefore);
    } else if (word != kFeedCounters && word != kFeedRelease) {
        answer = {{"error", "no such word"}};
    }
    return answer.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

void Feeder::ShowCounters() {
    const SpoolCounts& counts = m_spool.Counts();
    m_counters.cutRecords = counts.cut;
    m_counters.filesAnew = counts.anew;
    m_counters.filesVanished = counts.vanished;
    m_counters.filesDamaged = counts.damaged;
    if (m_options.errorIsTerminal) {
        const auto size = static_cast<double>(std::max<uint64_t>(1, Source().FileSize()));
        m_bar.Show(static_cast<double>(Source().Here().offset) / size,
                   Source().FileName() + ": " + Counted(m_counters.alerts, "alert") + ", " +
                       std::to_string(m_counters.underWay) + " under way");
    }
}

void Feeder::WritePrometheus(bool isLast) {
    const auto now = Clock::now();
    if (m_options.prometheus.empty() || (!isLast && now - m_prometheusTime < kPrometheusInterval)) {
        return;
    }
    m_prometheusTime = now;
    const std::string fault =
        WriteFileAtOnce(m_options.prometheus, AsPrometheus(m_counters), Durability::kVisible);
    if (fault.empty() != m_isPrometheusFailing) {
        return;
    }
    m_isPrometheusFailing = !fault.empty();
    if (!fault.empty()) {
        Tell("the counters cannot be written: " + fault);
    }
}

}  // namespace tarnctl
