#include "tarnctl/packetlog/packet_store.h"

#include <grp.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <ctime>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/packetlog/capture_retention.h"
#include "tarnctl/packetlog/packetlog_command.h"

namespace tarnctl {
namespace {

constexpr std::chrono::minutes kLookInterval{1};
constexpr std::chrono::seconds kShortestInterval{1};
constexpr std::chrono::hours kDay{24};
constexpr uint64_t kFilesOfAll = 4;  // that fit into the limit of bytes, at least

// A group by its name or its number.
std::optional<gid_t> GroupOf(const std::string& name) {
    const group* const entry = getgrnam(name.c_str());
    if (entry != nullptr) {
        return entry->gr_gid;
    }
    gid_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    return error == std::errc() && end == name.data() + name.size() ? std::optional(number)
                                                                    : std::nullopt;
}

}  // namespace

CaptureSettings PacketStore::Settings() const {
    CaptureSettings settings;
    settings.directory = m_options.directory;
    settings.format = CaptureFormatFrom(m_options.format).value_or(CaptureFormat::kPcap);
    settings.linkType = m_options.linkType;
    settings.newFileBytes = m_options.newFileBytes;
    if (m_options.keep.bytes != 0) {
        // What is being written stays whatever the limit is.
        settings.newFileBytes = std::min(settings.newFileBytes,
                                         std::max<uint64_t>(m_options.keep.bytes / kFilesOfAll, 1));
    }
    if (m_options.keep.days != 0) {
        settings.newFileAge = kDay;
    }
    return settings;
}

std::string PacketStore::Open() {
    CaptureSettings settings = Settings();
    if (!m_options.group.empty()) {
        settings.group = GroupOf(m_options.group);
        if (!settings.group) {
            return "--group: " + m_options.group + " is no group; make it with addgroup";
        }
    }
    m_files = std::make_unique<CaptureFiles>(std::move(settings));
    if (!m_files->Open()) {
        return m_files->Error();
    }
    News news;
    ApplyLimits(news);
    return m_trouble;
}

PacketStore::News PacketStore::Keep(const CapturedPacket& packet) {
    if (m_files->Write(packet)) {
        if (m_lostAtOnce == 0) {
            return {};
        }
        const std::string lost = Counted(m_lostAtOnce, "packet") + " lost";
        m_lostAtOnce = 0;
        return {"packets are kept again; " + lost};
    }
    ++m_lost;
    // The first one tells; the others have the same reason.
    return ++m_lostAtOnce == 1 ? News{"packets are lost: " + m_files->Error()} : News{};
}

PacketStore::News PacketStore::LookAfter() {
    News news;
    const Clock::time_point now = Clock::now();
    if (!m_options.keep.AreNone() && TakeRequest(SIGHUP)) {
        news.emplace_back(m_files->Renew() ? "hangup: new files are begun"
                                           : "hangup: " + m_files->Error());
        ApplyLimits(news);
    } else if (IsLookDue(now)) {
        // What cannot be begun now is told with the next packet.
        (void)m_files->RenewAged(now);
        ApplyLimits(news);
    }
    return news;
}

bool PacketStore::IsLookDue(Clock::time_point now) const {
    const Clock::duration since = now - m_lastLook;
    const bool isFuller = m_files->Made() != m_madeAtLook || m_files->Written() - m_writtenAtLook >=
                                                                 m_options.keep.bytes / kFilesOfAll;
    return !m_options.keep.AreNone() &&
           (since >= kLookInterval || (isFuller && since >= kShortestInterval));
}

void PacketStore::ApplyLimits(News& news) {
    const KeepOutcome outcome =
        KeepWithin(m_options.keep, m_options.directory, std::time(nullptr), m_files->InUse());
    if (outcome.files > 0) {
        m_deleted += outcome.files;
        news.push_back(Counted(outcome.files, "file") + " of " + Counted(outcome.bytes, "byte") +
                       " deleted, for the limits");
        // One that cannot be looked at shows with the next packet.
        (void)m_files->LookAgain();
    }
    if (!outcome.error.empty() && outcome.error != m_trouble) {
        news.push_back("the limits cannot be kept: " + outcome.error);
    }
    m_trouble = outcome.error;
    m_lastLook = Clock::now();
    m_writtenAtLook = m_files->Written();
    m_madeAtLook = m_files->Made();
}

std::string PacketStore::Counts() const {
    return (m_lost > 0 ? ", " + std::to_string(m_lost) + " lost" : std::string()) +
           (m_deleted > 0 ? ", " + Counted(m_deleted, "file") + " deleted" : std::string());
}

}  // namespace tarnctl
