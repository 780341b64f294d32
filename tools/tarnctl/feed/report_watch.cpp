#include "tarnctl/feed/report_watch.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "crm/event_report_format.h"
#include "ring/shm_ring_format.h"
#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

// Far above the daemon's rings; offsets in one may be added in 32 bits.
constexpr std::size_t kLargestFile = 1U << 30;

// No report has more: the report, a packet, the name-value pairs and the end.
constexpr int kMostChunks = 4;

}  // namespace

ReportWatch::ReportWatch(std::string path) : m_path(std::move(path)) {}

ReportWatch::~ReportWatch() {
    Detach();
}

void ReportWatch::Detach() {
    if (m_map != nullptr) {
        munmap(const_cast<std::byte*>(m_map), m_mapBytes);
        m_map = nullptr;
    }
    m_size = 0;
}

std::string ReportWatch::Attach() {
    Detach();
    const int fd = open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return FailureText(m_path, errno);
    }
    struct stat status = {};
    void* map = MAP_FAILED;
    int error = fstat(fd, &status) == 0 ? 0 : errno;
    const auto bytes = static_cast<std::size_t>(status.st_size);
    const bool isRing = error == 0 && bytes >= kShmRingSmallestFile && bytes <= kLargestFile &&
                        bytes % kShmRingWordSize == 0;
    if (isRing) {
        map = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
        error = map == MAP_FAILED ? errno : 0;
    }
    close(fd);
    if (map == MAP_FAILED) {
        return error != 0 ? FailureText(m_path, error) : m_path + ": not a ring yet";
    }
    m_map = static_cast<const std::byte*>(map);
    m_mapBytes = bytes;
    m_size = static_cast<uint32_t>(bytes) - kShmRingHeaderSize;
    m_device = status.st_dev;
    m_inode = status.st_ino;
    m_at = WriteIndex();
    return "";
}

bool ReportWatch::GoTo(const RingPlace& place) {
    if (m_map == nullptr || place.device != m_device || place.inode != m_inode ||
        place.index >= m_size || place.index % kShmRingWordSize != 0) {
        return false;
    }
    m_at = place.index;
    return true;
}

bool ReportWatch::IsReplaced() const {
    struct stat status = {};
    return stat(m_path.c_str(), &status) != 0 || status.st_ino != m_inode ||
           status.st_dev != m_device;
}

// Pairs with the release of the same word in the daemon and in its reader. The map is not written
// to; atomic_ref has no form for that.
uint32_t ReportWatch::LoadIndex(std::size_t offset) const {
    auto* const word = const_cast<uint32_t*>(reinterpret_cast<const uint32_t*>(m_map + offset));
    const uint32_t index = std::atomic_ref<uint32_t>(*word).load(std::memory_order_acquire);
    // A number that is no index is taken as both sides take it.
    return index % kShmRingWordSize == 0 && index < m_size ? index : ShmRingRoundUp(index) % m_size;
}

uint32_t ReportWatch::WriteIndex() const {
    return LoadIndex(offsetof(ShmRingHeader, writeIndex));
}

uint32_t ReportWatch::Free() const {
    const uint32_t write = WriteIndex();
    const uint32_t read = LoadIndex(offsetof(ShmRingHeader, readIndex));
    const uint32_t used = write >= read ? write - read : m_size - read + write;
    return m_size - used;
}

uint32_t ReportWatch::LengthWord(uint32_t at) const {
    auto* const word =
        const_cast<uint32_t*>(reinterpret_cast<const uint32_t*>(m_map + kShmRingHeaderSize + at));
    return std::atomic_ref<uint32_t>(*word).load(std::memory_order_relaxed);
}

void ReportWatch::Copy(uint32_t at, void* to, uint32_t length) const {
    at %= m_size;
    const uint32_t first = std::min(length, m_size - at);
    std::memcpy(to, m_map + kShmRingHeaderSize + at, first);
    std::memcpy(static_cast<std::byte*>(to) + first, m_map + kShmRingHeaderSize, length - first);
}

uint32_t ReportWatch::LengthOfChunks(uint32_t at, uint32_t limit) const {
    uint64_t length = 0;
    for (int count = 0; count < kMostChunks; ++count) {
        ChunkHeader chunk;
        if (length + sizeof chunk > limit) {
            return 0;
        }
        Copy(at + static_cast<uint32_t>(length), &chunk, sizeof chunk);
        const bool isFirst = count == 0;
        const uint32_t least =
            isFirst ? sizeof(ReportChunkHeader) + sizeof(EventReport) : sizeof(ChunkHeader);
        if ((chunk.chunkType == kChunkReport) != isFirst || chunk.chunkLength < least) {
            return 0;
        }
        length += chunk.chunkLength;
        if (length > limit) {
            return 0;
        }
        if (chunk.chunkType == kChunkEnd) {
            return static_cast<uint32_t>(length);
        }
    }
    return 0;
}

ReportWatch::Look ReportWatch::Next(AlertKey& key) {
    if (m_map == nullptr) {
        return Look::kNothing;
    }
    const uint32_t write = WriteIndex();
    if (write == m_at) {
        return Look::kNothing;
    }
    const uint32_t ahead = write > m_at ? write - m_at : m_size - m_at + write;
    const uint32_t body = (m_at + kShmRingWordSize) % m_size;
    const uint32_t length = LengthOfChunks(body, ahead - kShmRingWordSize);
    const uint32_t word = LengthWord(m_at);
    const uint32_t step = ShmRingRoundUp(kShmRingWordSize + length);
    if (length == 0 || (word != 0 && word != length) || step > ahead) {
        m_at = write;
        return Look::kUnsure;
    }
    EventReport report;
    Copy(body + sizeof(ReportChunkHeader), &report, sizeof report);
    key = KeyOf(report);
    m_at = (m_at + step) % m_size;
    return Look::kReport;
}

}  // namespace tarnctl
