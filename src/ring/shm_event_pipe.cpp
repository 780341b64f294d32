#include "ring/shm_event_pipe.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "threads/cancellation.h"

static_assert(std::atomic_ref<uint32_t>::is_always_lock_free,
              "a lock inside this process would not keep the other one out");
static_assert(alignof(ShmRingHeader) >= std::atomic_ref<uint32_t>::required_alignment);

namespace {

constexpr mode_t kFileMode = 0700;
constexpr size_t kResetSyncBytes = 16;

// Pairs with StoreRelease of the same word in the other process.
uint32_t LoadAcquire(uint32_t& word) {
    return std::atomic_ref<uint32_t>(word).load(std::memory_order_acquire);
}

// Pairs with LoadAcquire of the same word in the other process.
void StoreRelease(uint32_t& word, uint32_t value) {
    std::atomic_ref<uint32_t>(word).store(value, std::memory_order_release);
}

// The side that stores an index needs no order to read its own last value back.
uint32_t LoadOwn(uint32_t& word) {
    return std::atomic_ref<uint32_t>(word).load(std::memory_order_relaxed);
}

}  // namespace

ShmEventPipe::ShmEventPipe(ShmPipeRole role, std::string path, uint32_t fileSize)
    : m_eRole(role), m_strPath(std::move(path)), m_uSize(ShmRingRoundUp(fileSize)) {}

ShmEventPipe::~ShmEventPipe() {
    const CancellationOff off;
    Close();
    CloseDescriptor();
}

void ShmEventPipe::CloseDescriptor() {
    if (m_iFd != -1) {
        ::close(m_iFd);
        m_iFd = -1;
    }
}

// The format comes from the caller, which passes a literal with one %s; the type of this pointer
// does not ask for a literal here.
void ShmEventPipe::ReportErrno(const char* method, const char* format) const {
    const int error = errno;
    if (m_pfnLog != nullptr) {
        int (*const report)(const char*, const char*, int64_t, const char*, ...) = m_pfnLog;
        report(m_szClass, method, m_iInfoLevel, format, std::strerror(error));
    }
}

bool ShmEventPipe::Create() {
    CloseDescriptor();
    m_bCreated = false;
    m_uSize = ShmRingRoundUp(m_uSize);
    m_iFd = ::open(m_strPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
    if (m_iFd == -1) {
        ReportErrno("Create", "open: %s");
        return false;
    }
    if (::ftruncate(m_iFd, m_uSize) == -1) {
        ReportErrno("Create", "ftruncate: %s");
        ::unlink(m_strPath.c_str());
        CloseDescriptor();
        return false;
    }
    m_bCreated = true;
    return true;
}

// A file that Create made is sized already, and its descriptor is still open.
bool ShmEventPipe::OpenFile() {
    if (m_bCreated) {
        return true;
    }
    CloseDescriptor();
    m_iFd = ::open(m_strPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
    if (m_iFd == -1) {
        ReportErrno("Open", "open: %s");
        return false;
    }
    if (::ftruncate(m_iFd, m_uSize) == -1) {
        ReportErrno("Open", "ftruncate: %s");
        CloseDescriptor();
        return false;
    }
    return true;
}

// The mapping of the whole file, or null, which has been reported.
void* ShmEventPipe::MapFile() const {
    // The kernel refuses to map a file of no size. A file with no place for a ring is refused in
    // the same way.
    if (m_uSize < kShmRingSmallestFile) {
        errno = EINVAL;
        ReportErrno("Open", "mmap: %s");
        return nullptr;
    }
    void* const map = ::mmap(nullptr, m_uSize, PROT_READ | PROT_WRITE, MAP_SHARED, m_iFd, 0);
    if (map == MAP_FAILED) {
        ReportErrno("Open", "mmap: %s");
        return nullptr;
    }
    return map;
}

bool ShmEventPipe::Open(bool option) {
    m_bOpenOption = !option;
    if (m_bMapped) {
        ::munmap(m_pMap, size_t{m_uSize} + kShmRingHeaderSize);
        m_bMapped = false;
    }
    if (!OpenFile()) {
        return false;
    }
    void* const map = MapFile();
    if (map == nullptr) {
        // The descriptor that Create left is kept for the next Open.
        if (!m_bCreated) {
            CloseDescriptor();
        }
        return false;
    }
    m_bMapped = true;
    m_pMap = map;
    m_pHeader = static_cast<ShmRingHeader*>(map);
    m_pData = static_cast<std::byte*>(map) + ShmRingRoundUp(kShmRingHeaderSize);
    // Deliberate: a second Open takes the header off once more and then disagrees with the other
    // side about the size of the ring. The owners open an object once.
    m_uSize -= kShmRingHeaderSize;
    m_pDataEnd = m_pData + ShmRingRoundUp(m_uSize);

    // Each side changes its own index only. The messages stay in place, so that a side that was
    // restarted continues where it stopped.
    if (m_eRole == WRITER) {
        const uint32_t writeIndex = AdoptIndex(LoadOwn(m_pHeader->writeIndex));
        StoreRelease(m_pHeader->writeIndex, writeIndex);
        StoreWord(writeIndex, 0);
    } else {
        StoreRelease(m_pHeader->readIndex, AdoptIndex(LoadOwn(m_pHeader->readIndex)));
    }
    return true;
}

bool ShmEventPipe::Close() {
    if (!m_bMapped) {
        return true;
    }
    const CancellationOff off;
    if (::munmap(m_pMap, size_t{m_uSize} + kShmRingHeaderSize) == -1) {
        ReportErrno("Close", "munmap: %s");
        return false;
    }
    m_bMapped = false;
    CloseDescriptor();
    return true;
}

bool ShmEventPipe::Reset() {
    if (!m_bMapped) {
        return false;
    }
    StoreRelease(m_pHeader->readIndex, 0);
    StoreRelease(m_pHeader->writeIndex, 0);
    StoreWord(0, 0);
    if (::msync(m_pMap, kResetSyncBytes, MS_SYNC) == -1) {
        ReportErrno("Reset", "msync: %s");
        return false;
    }
    return true;
}

bool ShmEventPipe::Destroy() {
    if (!m_bCreated) {
        return true;
    }
    if (::unlink(m_strPath.c_str()) == -1) {
        ReportErrno("Destroy", "unlink: %s");
        return false;
    }
    m_bCreated = false;
    return true;
}

ShmRingState ShmEventPipe::State() const {
    if (!m_bMapped) {
        return {};
    }
    // The write index first: what it covers is in place, so a length word of 0 below it stays 0.
    const uint32_t writeIndex = AdoptIndex(LoadAcquire(m_pHeader->writeIndex));
    const uint32_t readIndex = AdoptIndex(LoadAcquire(m_pHeader->readIndex));
    const uint32_t used =
        writeIndex >= readIndex ? writeIndex - readIndex : m_uSize - readIndex + writeIndex;
    return {m_uSize, readIndex, writeIndex, used, used != 0 && LoadWord(readIndex) == 0};
}

// The other process can write any number into an index word. A number that is no index of this ring
// is rounded up to a multiple of 4 and taken modulo the ring size, at Open and at every later use.
inline uint32_t ShmEventPipe::AdoptIndex(uint32_t index) const {
    if (index % kShmRingWordSize != 0 || index >= m_uSize) [[unlikely]] {
        return ShmRingRoundUp(index) % m_uSize;
    }
    return index;
}

// The modulo, by subtraction: the sum is at most twice the ring size, since the index is at least a
// word below the size and the length at most the size. A division would take several times as long.
inline uint32_t ShmEventPipe::NextIndex(uint32_t at, uint32_t length) const {
    uint64_t next = ShmRingRoundUp(uint64_t{at} + kShmRingWordSize + length);
    if (next >= m_uSize) {
        next -= m_uSize;
        if (next >= m_uSize) [[unlikely]] {
            next -= m_uSize;
        }
    }
    return static_cast<uint32_t>(next);
}

// Length words and terminators need no order of their own: the index that covers them has it.
inline uint32_t ShmEventPipe::LoadWord(uint32_t at) const {
    return std::atomic_ref<uint32_t>(*reinterpret_cast<uint32_t*>(m_pData + at))
        .load(std::memory_order_relaxed);
}

inline void ShmEventPipe::StoreWord(uint32_t at, uint32_t value) {
    std::atomic_ref<uint32_t>(*reinterpret_cast<uint32_t*>(m_pData + at))
        .store(value, std::memory_order_relaxed);
}

inline ShmPipeResult ShmEventPipe::Claim(uint32_t length, Slot& slot) {
    if (m_eRole != WRITER) [[unlikely]] {
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "write", m_iInfoLevel, "Cannot write to READER pipe");
        }
        return PIPE_ERROR;
    }
    if (!m_bMapped) [[unlikely]] {
        return PIPE_ERROR;
    }
    if (m_uSize < length) [[unlikely]] {
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "write", m_iInfoLevel,
                     "Cannot write message larger than pipe size");
        }
        return PIPE_ERROR;
    }
    const uint32_t readIndex = LoadAcquire(m_pHeader->readIndex);
    const uint32_t writeIndex = AdoptIndex(LoadOwn(m_pHeader->writeIndex));
    // The bytes that unread messages take up. The read index comes from the other process and may
    // be any number. It is used in this sum only and never as an offset, so none of them does harm.
    uint32_t used = writeIndex - readIndex;
    if (writeIndex < readIndex) {
        used += m_uSize;
    }
    if (used >= m_uSize) [[unlikely]] {
        used %= m_uSize;
    }
    // A message goes in only if free bytes remain after it. If it took the last ones, the write
    // index would become equal to the read index, and equal indexes mean an empty ring. Deliberate:
    // for a message that needs the whole ring the answer is therefore always "full". It is refused
    // as too large only above the ring size, which is where the peer expects it.
    const uint64_t need = ShmRingRoundUp(uint64_t{kShmRingWordSize} + length);
    if (m_uSize - used <= need) {
        return PIPE_FULL;
    }
    slot = {writeIndex, NextIndex(writeIndex, length)};
    // The padding after a body that ends within a word is zero: its last word is cleared here, and
    // the body is copied over it.
    if (length % kShmRingWordSize != 0) {
        StoreWord((slot.next != 0 ? slot.next : m_uSize) - kShmRingWordSize, 0);
    }
    return PIPE_OK;
}

// Returns the ring offset after the copy, which is the ring size when it ends at the end of the
// ring.
inline uint32_t ShmEventPipe::CopyIn(uint32_t at, const void* from, uint32_t length) {
    const uint32_t room = m_uSize - at;
    if (length <= room) [[likely]] {
        std::memcpy(m_pData + at, from, length);
        return at + length;
    }
    std::memcpy(m_pData + at, from, room);
    std::memcpy(m_pData, static_cast<const std::byte*>(from) + room, length - room);
    return length - room;
}

inline void ShmEventPipe::CopyOut(uint32_t at, void* to, uint32_t length) const {
    const uint32_t room = m_uSize - at;
    if (length <= room) [[likely]] {
        std::memcpy(to, m_pData + at, length);
        return;
    }
    std::memcpy(to, m_pData + at, room);
    std::memcpy(static_cast<std::byte*>(to) + room, m_pData, length - room);
}

// The terminator is stored before the index moves. It never overwrites the length word of an unread
// message, because the room test keeps the next index off the read index. The store of the write
// index comes last of all: it publishes the message.
inline void ShmEventPipe::Publish(const Slot& slot) {
    StoreWord(slot.next, 0);
    StoreRelease(m_pHeader->writeIndex, slot.next);
}

ShmPipeResult ShmEventPipe::write(const void* buffer, const uint32_t* length) {
    // Deliberate: a length of 0 is accepted here and in the other form. It means "no message here",
    // so the reader stops at it. The callers never send one, and a check would cost every message.
    const uint32_t bytes = *length;
    Slot slot;
    const ShmPipeResult result = Claim(bytes, slot);
    if (result != PIPE_OK) {
        return result;
    }
    if (bytes != 0) {
        CopyIn(slot.at + kShmRingWordSize, buffer, bytes);
    }
    StoreWord(slot.at, bytes);
    Publish(slot);
    return PIPE_OK;
}

ShmPipeResult ShmEventPipe::write(const iovec* pieces, int32_t count) {
    uint32_t length = 0;
    for (int32_t i = 0; i < count; ++i) {
        length += static_cast<uint32_t>(pieces[i].iov_len);
    }
    Slot slot;
    const ShmPipeResult result = Claim(length, slot);
    if (result != PIPE_OK) {
        return result;
    }
    StoreWord(slot.at, length);
    uint32_t at = slot.at + kShmRingWordSize;
    // The sum is kept in 32 bits, so it can be less than the pieces hold. No more than the sum is
    // copied.
    uint32_t left = length;
    for (int32_t i = 0; i < count && left != 0; ++i) {
        const auto pieceBytes = static_cast<uint32_t>(std::min<size_t>(pieces[i].iov_len, left));
        if (pieceBytes != 0) {
            at = CopyIn(at, pieces[i].iov_base, pieceBytes);
            left -= pieceBytes;
        }
    }
    Publish(slot);
    return PIPE_OK;
}

ShmPipeResult ShmEventPipe::read(void* buffer, uint32_t* size, uint32_t* status) {
    uint32_t unwanted = 0;
    status = status != nullptr ? status : &unwanted;
    if (m_eRole != READER) [[unlikely]] {
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "read", m_iInfoLevel, "Cannot read from WRITER pipe");
        }
        *status = READ_WRONG_ROLE;
        return PIPE_ERROR;
    }
    const uint32_t capacity = std::exchange(*size, 0);
    *status = READ_EMPTY;
    if (!m_bMapped) [[unlikely]] {
        return PIPE_ERROR;
    }
    const uint32_t readIndex = AdoptIndex(LoadOwn(m_pHeader->readIndex));
    const uint32_t writeIndex = AdoptIndex(LoadAcquire(m_pHeader->writeIndex));
    if (readIndex == writeIndex) {
        return PIPE_NO_DATA;
    }
    const uint32_t length = LoadWord(readIndex);
    if (length > m_uSize) [[unlikely]] {
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "read", m_iErrorLevel,
                     "Invalid message size %u at offset %u. write index: %u", length, readIndex,
                     writeIndex);
        }
        // Deliberate: all pending messages are dropped, because the start of the next good one is
        // not known.
        StoreRelease(m_pHeader->readIndex, writeIndex);
        *status = READ_BAD_SIZE;
        return PIPE_ERROR;
    }
    if (length == 0) [[unlikely]] {
        return PIPE_NO_DATA;
    }
    const uint32_t next = NextIndex(readIndex, length);
    ShmPipeResult result = PIPE_OK;
    if (length > capacity) [[unlikely]] {
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "read", m_iInfoLevel,
                     "output buffer too small: size = %u; msgSize = %u", capacity, length);
        }
        // Deliberate: the message is skipped all the same. A caller whose buffer is too small would
        // otherwise meet it at every call.
        *status = READ_BUFFER_TOO_SMALL;
        result = PIPE_NO_DATA;
    } else {
        CopyOut(readIndex + kShmRingWordSize, buffer, length);
        *size = length;
        *status = READ_OK;
    }
    StoreWord(readIndex, 0);
    StoreRelease(m_pHeader->readIndex, next);
    return result;
}
