#include "tarnctl/packetlog/capture_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

constexpr uint64_t kBytesPerKByte = 1024;

}  // namespace

CaptureFiles::CaptureFiles(CaptureSettings settings)
    : m_settings(std::move(settings)),
      m_head(CaptureHead(m_settings.format, m_settings.linkType)) {}

bool CaptureFiles::Open() {
    return LookAgain() && OpenAll();
}

bool CaptureFiles::LookAgain() {
    const std::optional<std::vector<KeptCapture>> captures = CapturesIn(m_settings.directory);
    if (!captures) {
        return Fail(FailureText(m_settings.directory, errno) +
                    "; name a directory with --dir that this user may write into");
    }
    m_olderOfAll = 0;
    for (auto& [event, files] : m_events) {
        files.older = 0;
    }
    for (const KeptCapture& capture : *captures) {
        if (capture.name.format == m_settings.format) {
            uint32_t& older =
                capture.name.event ? m_events[*capture.name.event].older : m_olderOfAll;
            older = std::max(older, capture.name.age);
        }
    }
    return true;
}

// A file that has packets becomes the one before. The head of the new one goes in at once, so that
// it can be read before the first packet.
bool CaptureFiles::OpenAll() {
    const std::string path = PathOf(std::nullopt, 0);
    if (!m_all.Open(path, m_settings.group)) {
        return Fail(m_all.Error());
    }
    if (m_all.Bytes() != 0) {
        const bool hasPackets = m_all.Bytes() > m_head.size();
        m_all.Close();
        if (hasPackets ? !Rotate(std::nullopt, m_olderOfAll, 0) : std::remove(path.c_str()) != 0) {
            return hasPackets ? false : Fail(FailureText(path, errno));
        }
        if (!m_all.Open(path, m_settings.group)) {
            return Fail(m_all.Error());
        }
    }
    m_allBegun = Clock::now();
    ++m_made;
    if (!m_all.Append(m_head)) {
        m_all.Close();
        return Fail(m_all.Error());
    }
    return true;
}

bool CaptureFiles::Write(const CapturedPacket& packet) {
    const std::string record = CaptureRecord(m_settings.format, packet);
    const bool isInAll = WriteToAll(record);
    // What the one file has no room for may find some in the other.
    return (packet.event == 0 || WriteToEvent(packet, record)) && isInAll;
}

bool CaptureFiles::WriteToAll(const std::string& record) {
    if (!m_all.HasItsName()) {
        // Somebody has moved or deleted it, or it could not be opened before.
        m_all.Close();
        if (!OpenAll()) {
            return false;
        }
    }
    const uint64_t limit = m_settings.newFileBytes;
    if (limit != 0 && m_all.Bytes() > m_head.size() && m_all.Bytes() + record.size() > limit &&
        !OpenAll()) {
        return false;
    }
    return Put(m_all, record);
}

bool CaptureFiles::WriteToEvent(const CapturedPacket& packet, const std::string& record) {
    EventFiles& files = m_events[packet.event];
    CaptureFile file;
    const std::string path = PathOf(packet.event, 0);
    if (!file.Open(path, m_settings.group)) {
        return Fail(file.Error());
    }
    const uint64_t limit = packet.maxKBytes * kBytesPerKByte;
    const bool isFull = limit != 0 && file.Bytes() + record.size() > limit;
    if (file.Bytes() != 0 && (isFull || !files.isBegun)) {
        file.Close();
        if (!Rotate(packet.event, files.older, packet.maxFiles)) {
            return false;
        }
        if (!file.Open(path, m_settings.group)) {
            return Fail(file.Error());
        }
    }
    files.isBegun = true;
    m_lastEvent = packet.event;
    if (file.Bytes() != 0) {
        if (Put(file, record)) {
            return true;
        }
        files.isBegun = file.IsOpen();  // closed: half a packet is at its end
        return false;
    }
    // Head and packet are in the file, or neither is, and then an empty file is of no use.
    ++m_made;
    if (!Put(file, m_head + record)) {
        (void)std::remove(path.c_str());
        return false;
    }
    return true;
}

bool CaptureFiles::Renew() {
    for (auto& [event, files] : m_events) {
        files.isBegun = false;
    }
    m_lastEvent.reset();
    return m_all.HasItsName() && m_all.Bytes() <= m_head.size() ? true : OpenAll();
}

bool CaptureFiles::RenewAged(Clock::time_point now) {
    const bool isAged = m_settings.newFileAge.count() != 0 && m_all.IsOpen() &&
                        m_all.Bytes() > m_head.size() && now - m_allBegun >= m_settings.newFileAge;
    return !isAged || OpenAll();
}

bool CaptureFiles::Put(CaptureFile& file, const std::string& record) {
    if (!file.Append(record)) {
        return Fail(file.Error());
    }
    m_written += record.size();
    return true;
}

bool CaptureFiles::Rotate(std::optional<uint32_t> event, uint32_t& older, uint32_t maxFiles) {
    if (maxFiles != 0) {
        // Room for one more; a limit that has been lowered meanwhile takes effect at once.
        for (; older + 1 >= maxFiles && older > 0; --older) {
            (void)std::remove(PathOf(event, older).c_str());  // one that is gone is as good
        }
    }
    if (maxFiles == 1) {
        const std::string path = PathOf(event, 0);
        return std::remove(path.c_str()) == 0 || errno == ENOENT || Fail(FailureText(path, errno));
    }
    for (uint32_t age = older + 1; age > 0; --age) {
        const std::string from = PathOf(event, age - 1);
        if (std::rename(from.c_str(), PathOf(event, age).c_str()) != 0 && errno != ENOENT) {
            return Fail(FailureText(from, errno));
        }
    }
    ++older;
    return true;
}

std::vector<CaptureName> CaptureFiles::InUse() const {
    std::vector<CaptureName> names{{std::nullopt, m_settings.format, 0}};
    if (m_lastEvent) {
        names.push_back({m_lastEvent, m_settings.format, 0});
    }
    return names;
}

std::string CaptureFiles::PathOf(std::optional<uint32_t> event, uint32_t age) const {
    return m_settings.directory + "/" + CaptureName{event, m_settings.format, age}.Text();
}

bool CaptureFiles::Fail(const std::string& reason) {
    m_error = reason;
    return false;
}

}  // namespace tarnctl
