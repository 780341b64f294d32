// What becomes of each record of the spool.

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tarnctl/common/signals.h"
#include "tarnctl/feed/feeder.h"
#include "unified2/unified2_format.h"

namespace tarnctl {
namespace {

using std::chrono::milliseconds;

// Room in the ring that stays free for what an alert's packet and extra data add to its report.
constexpr uint64_t kSpareRoom = 1U << 18;
// What a report has besides its texts and its packet, with room to spare.
constexpr uint64_t kReportBytes = 512;
// A packet or a text that claims more would leave no room for any other report.
constexpr uint64_t kLongestAttachment = 1U << 21;

// The alerts whose packets may still come.
constexpr size_t kMostFates = 256;

// What is read last of an alert has come when nothing came for so long.
constexpr milliseconds kGroupEnds{200};

constexpr milliseconds kSlow{3000};

constexpr int kRoomPoll = 100;  // milliseconds

bool IsAlert(uint32_t type) {
    return type == unified2::kAlertIpv4 || type == unified2::kAlertIpv6;
}

bool IsAttachment(uint32_t type) {
    return type == unified2::kPacket || type == unified2::kExtraData;
}

}  // namespace

Feeder::Step Feeder::FeedOne() {
    const auto now = Clock::now();
    const bool hasRecord = Source().Peek(now) == SpoolReader::State::kRecord;
    if (hasRecord) {
        m_idleSince = now;
    }
    const uint32_t type = hasRecord ? Source().Type() : 0;
    if (!m_again.empty()) {
        // The packets of the alert that went last go with it, before anything else comes between.
        const bool isWithin =
            hasRecord ? IsAttachment(type) &&
                            m_underWay.IsNewest(AttachmentEventId(type, Source().Bytes()))
                      : !m_underWay.IsEmpty() && now - m_idleSince < kGroupEnds;
        if (!isWithin) {
            return FeedAgain();
        }
    }
    if (!hasRecord) {
        return Step::kEnd;
    }
    if (IsAlert(type)) {
        return FeedAlert(type, Source().Bytes());
    }
    return IsAttachment(type) ? FeedAttachment(type, Source().Bytes()) : SkipForeign(type);
}

void Feeder::PassRecord() {
    Source().Pass();
}

Feeder::Step Feeder::SkipForeign(uint32_t type) {
    ++m_counters.foreignRecords;
    if (m_namedKinds.insert(type).second) {
        Tell("records of type " + std::to_string(type) + " are skipped: tarn does not take them");
    }
    PassRecord();
    return Step::kGoesOn;
}

void Feeder::NoteFate(uint32_t eventId, Fate fate) {
    m_fates.emplace_back(eventId, fate);
    if (m_fates.size() > kMostFates) {
        m_fates.pop_front();
    }
}

std::optional<Feeder::Fate> Feeder::FateOf(uint32_t eventId) const {
    const auto latest = std::find_if(m_fates.rbegin(), m_fates.rend(),
                                     [eventId](const auto& fate) { return fate.first == eventId; });
    return latest == m_fates.rend() ? std::nullopt : std::optional(latest->second);
}

bool Feeder::TakeReportedBefore(const AlertKey& key) {
    if (m_before.empty()) {
        return false;
    }
    const auto found = m_before.find(key);
    const bool isThere = found != m_before.end();
    if (isThere && --found->second == 0) {
        m_before.erase(found);
    }
    // Only what has an entry was fed, and no alert further on than that many can have been.
    if ((isThere || m_guard.HasEntry(key.signature)) && --m_beforeAlerts == 0) {
        m_before.clear();
    }
    return isThere;
}

bool Feeder::HasRoom(uint64_t reportBytes) {
    if (m_watch->Free() > m_underWay.ReportBytes() + reportBytes + kSpareRoom) {
        return true;
    }
    SetWaiting("the ring has no room for more reports; nobody takes them");
    return false;
}

bool Feeder::IsDue() {
    if (m_options.rate == 0) {
        return true;
    }
    const auto now = Clock::now();
    if (!m_due) {
        m_due = now + m_pacer.DelayBeforeNext(now);
    }
    return now >= *m_due;
}

Feeder::Step Feeder::FeedAlert(uint32_t type, std::span<const std::byte> record) {
    if (!m_present) {
        m_present = ReadAlert(type, record);
        if (TakeReportedBefore(m_present->key)) {
            ++m_counters.reportedBefore;
            NoteFate(m_present->eventId, Fate::kSkipped);
            m_present.reset();
            PassRecord();
            return Step::kGoesOn;
        }
    }
    const uint32_t signature = m_present->key.signature;
    if (!m_guard.HasEntry(signature)) {
        if (m_namedSignatures.insert(signature).second) {
            Tell("signature " + std::to_string(signature) +
                 " has no entry in force; its alerts go to " + m_rejects.Path());
        }
        const Step step = Reject(record);
        if (step == Step::kGoesOn) {
            ++m_counters.rejectedAlerts;
            NoteFate(m_present->eventId, Fate::kRejected);
            m_present.reset();
            PassRecord();
        }
        return step;
    }
    const uint64_t reportBytes = kReportBytes + m_guard.TextBytes(signature);
    if (!MayFeed(reportBytes)) {
        return Step::kBlocked;
    }
    const Step step = Send(record);
    if (step == Step::kGoesOn) {
        m_due.reset();
        ++m_counters.alerts;
        NoteFate(m_present->eventId, Fate::kFed);
        FedAlert alert = m_underWay.Blank();
        alert.key = m_present->key;
        alert.eventId = m_present->eventId;
        alert.position = Source().Here();
        alert.reportBytes = reportBytes;
        alert.records.Add(record);
        m_underWay.Add(std::move(alert));
        m_present.reset();
        PassRecord();
    }
    return step;
}

bool Feeder::MayFeed(uint64_t reportBytes) {
    if (m_underWay.Size() >= m_options.window) {
        // The daemon keeps the last alerts for a second, so a full window is worth a line only
        // later.
        if (Clock::now() - m_stillSince >= kSlow) {
            SetWaiting("tarn makes no reports of " + std::to_string(m_underWay.Size()) +
                       " alerts under way");
        }
        return false;
    }
    if (!HasRoom(reportBytes) || !IsDue()) {
        return false;
    }
    if (m_isBookmarkFailing && m_reportsSinceBookmark + m_underWay.Size() >= m_options.window) {
        SetWaiting("the bookmark cannot be written");
        return false;
    }
    // The bookmark says that something may be inside the daemon before that is so.
    if (m_bookmark.isSettled && !WriteBookmark(false)) {
        SetWaiting("the bookmark cannot be written");
        return false;
    }
    return true;
}

Feeder::Step Feeder::FeedAttachment(uint32_t type, std::span<const std::byte> record) {
    const uint32_t eventId = AttachmentEventId(type, record);
    const std::optional<Fate> fate = FateOf(eventId);
    if (fate == Fate::kSkipped) {
        PassRecord();
        return Step::kGoesOn;
    }
    const uint64_t bytes = AttachmentReportBytes(type, record);
    const bool isHarmful = EndsTheDaemon(type, record) || bytes > kLongestAttachment;
    if (isHarmful || fate == Fate::kRejected) {
        const Step step = Reject(record);
        if (step == Step::kGoesOn) {
            if (isHarmful && m_counters.rejectedRecords++ == 0) {
                Tell("a record of type " + std::to_string(type) +
                     " would end tarn or leave no room for its report; such records go to " +
                     m_rejects.Path());
            }
            PassRecord();
        }
        return step;
    }
    const Step step = Send(record);
    if (step == Step::kGoesOn) {
        (void)m_underWay.Append(eventId, record, bytes);
        PassRecord();
    }
    return step;
}

Feeder::Step Feeder::Send(std::span<const std::byte> record) {
    switch (m_fifo.Send(record)) {
        case FeedFifo::Result::kDone:
            ++m_counters.records;
            m_counters.bytes += record.size();
            m_stillSince = Clock::now();
            return Step::kGoesOn;
        case FeedFifo::Result::kTooLong:
            if (Reject(record) == Step::kGoesOn) {
                ++m_counters.rejectedRecords;
                Tell(m_fifo.Error() + "; it goes to " + m_rejects.Path());
                PassRecord();
            }
            return Step::kBlocked;
        case FeedFifo::Result::kFailed:
            Tell(m_fifo.Error());
            m_isFailed = true;
            return Step::kBlocked;
        default:
            return Step::kBlocked;
    }
}

bool Feeder::SendWaiting(std::span<const std::byte> record) {
    while (!StopRequested() && !m_isFailed && !m_daemonEnd.HasEnded() && m_fifo.HasReader()) {
        if (Send(record) == Step::kGoesOn) {
            return true;
        }
        m_fifo.WaitForRoom(m_fifo.Unread() > 0 && record.size() > kReportBytes ? 1 : kRoomPoll);
    }
    return false;
}

Feeder::Step Feeder::FeedAgain() {
    FedAlert& next = m_again.front();
    if (!m_guard.HasEntry(next.key.signature)) {
        for (const auto record : next.records.All()) {
            if (Reject(record) != Step::kGoesOn) {
                return Step::kBlocked;
            }
        }
        ++m_counters.rejectedAlerts;
        m_again.pop_front();
        return Step::kGoesOn;
    }
    if (!MayFeed(next.reportBytes) || Send(next.records.All().front()) != Step::kGoesOn) {
        return Step::kBlocked;
    }
    m_due.reset();
    ++m_counters.alerts;
    ++m_counters.fedAgain;
    // It is under way from its first record on. What of its packets cannot be sent now goes with it
    // when it is fed again.
    const FedRecords kept = next.records;
    const auto records = kept.All();
    m_underWay.Add(std::move(next));
    m_again.pop_front();
    for (size_t index = 1; index < records.size(); ++index) {
        if (!SendWaiting(records[index])) {
            return Step::kBlocked;
        }
    }
    return Step::kGoesOn;
}

Feeder::Step Feeder::Reject(std::span<const std::byte> record) {
    std::string fault = m_rejects.Open();
    // A crash from here on finds in the bookmark how much of the file was right.
    if (fault.empty() && !m_bookmark.rejects && !WriteBookmark(false)) {
        fault = "the bookmark cannot be written";
    }
    if (fault.empty()) {
        fault = m_rejects.Add(record);
    }
    if (!fault.empty()) {
        SetWaiting(fault);
        return Step::kBlocked;
    }
    return Step::kGoesOn;
}

}  // namespace tarnctl
