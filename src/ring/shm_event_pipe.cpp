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
constexpr std::size_t kResetSyncBytes = 16;

// Pairs with StoreRelease of the same word in the other process.
uint32_t LoadAcquire(uint32_t& uWord) {
    return std::atomic_ref<uint32_t>(uWord).load(std::memory_order_acquire);
}

// Pairs with LoadAcquire of the same word in the other process.
void StoreRelease(uint32_t& uWord, uint32_t uValue) {
    std::atomic_ref<uint32_t>(uWord).store(uValue, std::memory_order_release);
}

// The side that stores an index needs no order to read its own last value back.
uint32_t LoadOwn(uint32_t& uWord) {
    return std::atomic_ref<uint32_t>(uWord).load(std::memory_order_relaxed);
}

}  // namespace

ShmEventPipe::ShmEventPipe(ShmPipeRole eRole, std::string strPath, uint32_t uFileSize)
    : m_eRole(eRole), m_strPath(std::move(strPath)), m_uSize(ShmRingRoundUp(uFileSize)) {}

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

bool ShmEventPipe::Create() {
    CloseDescriptor();
    m_bCreated = true;
    m_uSize = ShmRingRoundUp(m_uSize);
    m_iFd = ::open(m_strPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
    if (m_iFd == -1 && errno != EEXIST) {
        const int error = errno;
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "Create", m_iInfoLevel, "open: %s", std::strerror(error));
        }
        m_bCreated = false;
        return false;
    }
    if (::ftruncate(m_iFd, m_uSize) == -1) {
        const int error = errno;
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "Create", m_iInfoLevel, "ftruncate: %s", std::strerror(error));
        }
        m_bCreated = false;
        ::unlink(m_strPath.c_str());
    }
    return m_bCreated;
}

// A file that Create made is sized already, and its descriptor is still open.
bool ShmEventPipe::OpenFile() {
    if (m_bCreated) {
        return true;
    }
    CloseDescriptor();
    m_iFd = ::open(m_strPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
    if (m_iFd == -1) {
        const int error = errno;
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "Open", m_iInfoLevel, "open: %s", std::strerror(error));
        }
        return false;
    }
    if (::ftruncate(m_iFd, m_uSize) == -1) {
        const int error = errno;
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "Open", m_iInfoLevel, "ftruncate: %s", std::strerror(error));
        }
        return false;
    }
    return true;
}

bool ShmEventPipe::Open(bool bOption) {
    m_bOpenOption = !bOption;
    if (m_bMapped) {
        ::munmap(m_pMap, std::size_t{m_uSize} + kShmRingHeaderSize);
        m_bMapped = false;
    }
    if (!OpenFile()) {
        return false;
    }
    // The kernel refuses to map a file of no size; one with no place for a ring goes the same way.
    errno = EINVAL;
    void* const pMap = m_uSize < kShmRingSmallestFile
                           ? MAP_FAILED
                           : ::mmap(nullptr, m_uSize, PROT_READ | PROT_WRITE, MAP_SHARED, m_iFd, 0);
    if (pMap == MAP_FAILED) {
        const int error = errno;
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "Open", m_iInfoLevel, "mmap: %s", std::strerror(error));
        }
        return false;
    }
    m_bMapped = true;
    m_pMap = pMap;
    m_pHeader = static_cast<ShmRingHeader*>(pMap);
    m_pData = static_cast<std::byte*>(pMap) + ShmRingRoundUp(kShmRingHeaderSize);
    // Deliberate: a second Open takes the header off once more and so disagrees with the other
    // side about the ring; the owners open an object once.
    m_uSize -= kShmRingHeaderSize;
    m_pDataEnd = m_pData + ShmRingRoundUp(m_uSize);

    // Each side touches its own index only. The messages stay in place, so that a side that was
    // restarted carries on where it stopped.
    if (m_eRole == WRITER) {
        const uint32_t uWrite = AdoptIndex(LoadOwn(m_pHeader->uWriteIndex));
        StoreRelease(m_pHeader->uWriteIndex, uWrite);
        StoreWord(uWrite, 0);
    } else {
        StoreRelease(m_pHeader->uReadIndex, AdoptIndex(LoadOwn(m_pHeader->uReadIndex)));
    }
    return true;
}

bool ShmEventPipe::Close() {
    if (!m_bMapped) {
        return true;
    }
    const CancellationOff off;
    if (::munmap(m_pMap, std::size_t{m_uSize} + kShmRingHeaderSize) == -1) {
        const int error = errno;
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "Close", m_iInfoLevel, "munmap: %s", std::strerror(error));
        }
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
    StoreRelease(m_pHeader->uReadIndex, 0);
    StoreRelease(m_pHeader->uWriteIndex, 0);
    StoreWord(0, 0);
    if (::msync(m_pMap, kResetSyncBytes, MS_SYNC) == -1) {
        const int error = errno;
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "Reset", m_iInfoLevel, "msync: %s", std::strerror(error));
        }
        return false;
    }
    return true;
}

bool ShmEventPipe::Destroy() {
    if (!m_bCreated) {
        return true;
    }
    if (::unlink(m_strPath.c_str()) == -1) {
        const int error = errno;
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "Destroy", m_iInfoLevel, "unlink: %s", std::strerror(error));
        }
        return false;
    }
    m_bCreated = false;
    return true;
}

// The other process can write anything into an index word. One that is no index of this ring is
// rounded up to a word and wrapped, at Open and at every later use alike.
inline uint32_t ShmEventPipe::AdoptIndex(uint32_t uIndex) const {
    if (uIndex % kShmRingWordSize != 0 || uIndex >= m_uSize) [[unlikely]] {
        return ShmRingRoundUp(uIndex) % m_uSize;
    }
    return uIndex;
}

// At most two laps lie behind the longest message that a length word can tell of, and subtracting
// them is several times cheaper than the division of a modulo.
inline uint32_t ShmEventPipe::NextIndex(uint32_t uAt, uint32_t uLength) const {
    uint64_t uNext = ShmRingRoundUp(uint64_t{uAt} + kShmRingWordSize + uLength);
    if (uNext >= m_uSize) {
        uNext -= m_uSize;
        if (uNext >= m_uSize) [[unlikely]] {
            uNext -= m_uSize;
        }
    }
    return static_cast<uint32_t>(uNext);
}

// Length words and terminators need no order of their own: the index that covers them has it.
inline uint32_t ShmEventPipe::LoadWord(uint32_t uAt) const {
    return std::atomic_ref<uint32_t>(*reinterpret_cast<uint32_t*>(m_pData + uAt))
        .load(std::memory_order_relaxed);
}

inline void ShmEventPipe::StoreWord(uint32_t uAt, uint32_t uValue) {
    std::atomic_ref<uint32_t>(*reinterpret_cast<uint32_t*>(m_pData + uAt))
        .store(uValue, std::memory_order_relaxed);
}

inline ShmPipeResult ShmEventPipe::Claim(uint32_t uLength, Slot& slot) {
    if (m_eRole != WRITER) [[unlikely]] {
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "write", m_iInfoLevel, "Cannot write to READER pipe");
        }
        return PIPE_ERROR;
    }
    if (!m_bMapped) [[unlikely]] {
        return PIPE_ERROR;
    }
    if (m_uSize < uLength) [[unlikely]] {
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "write", m_iInfoLevel,
                     "Cannot write message larger than pipe size");
        }
        return PIPE_ERROR;
    }
    const uint32_t uRead = LoadAcquire(m_pHeader->uReadIndex);
    const uint32_t uWrite = AdoptIndex(LoadOwn(m_pHeader->uWriteIndex));
    // The read index only enters this sum and is never an offset, so any value of it is safe.
    uint32_t uUsed = uWrite - uRead;
    if (uWrite < uRead) {
        uUsed += m_uSize;
    }
    if (uUsed >= m_uSize) [[unlikely]] {
        uUsed %= m_uSize;
    }
    // Strictly less, so that a full ring is never mistaken for an empty one. Deliberate: what needs
    // the whole ring is called full for ever and not refused; the peer draws the line at the size.
    const uint64_t uNeed = ShmRingRoundUp(uint64_t{kShmRingWordSize} + uLength);
    if (m_uSize - uUsed <= uNeed) {
        return PIPE_FULL;
    }
    slot = {uWrite, NextIndex(uWrite, uLength)};
    // Zeroes as padding behind a body that ends inside a word; the body is copied over the rest.
    if (uLength % kShmRingWordSize != 0) {
        StoreWord((slot.uNext != 0 ? slot.uNext : m_uSize) - kShmRingWordSize, 0);
    }
    return PIPE_OK;
}

// Returns the ring offset behind the copy; the size of the ring where it ends at the end.
inline uint32_t ShmEventPipe::CopyIn(uint32_t uAt, const void* pFrom, uint32_t uLength) {
    const uint32_t uRoom = m_uSize - uAt;
    if (uLength <= uRoom) [[likely]] {
        std::memcpy(m_pData + uAt, pFrom, uLength);
        return uAt + uLength;
    }
    std::memcpy(m_pData + uAt, pFrom, uRoom);
    std::memcpy(m_pData, static_cast<const std::byte*>(pFrom) + uRoom, uLength - uRoom);
    return uLength - uRoom;
}

inline void ShmEventPipe::CopyOut(uint32_t uAt, void* pTo, uint32_t uLength) const {
    const uint32_t uRoom = m_uSize - uAt;
    if (uLength <= uRoom) [[likely]] {
        std::memcpy(pTo, m_pData + uAt, uLength);
        return;
    }
    std::memcpy(pTo, m_pData + uAt, uRoom);
    std::memcpy(static_cast<std::byte*>(pTo) + uRoom, m_pData, uLength - uRoom);
}

// The terminator goes in before the index moves. The room test has kept it off the read index, so
// it never lands on the length word of an unread message. The store of the index publishes all of
// the message and is the last of all.
inline void ShmEventPipe::Publish(const Slot& slot) {
    StoreWord(slot.uNext, 0);
    StoreRelease(m_pHeader->uWriteIndex, slot.uNext);
}

ShmPipeResult ShmEventPipe::write(const void* pBuffer, const uint32_t* pLength) {
    // Deliberate: a length of 0 is let through here and below. It stands for no message, so the
    // reader stops there; the callers never send one, and a check would cost every message.
    const uint32_t uLength = *pLength;
    Slot slot;
    const ShmPipeResult eResult = Claim(uLength, slot);
    if (eResult != PIPE_OK) {
        return eResult;
    }
    if (uLength != 0) {
        CopyIn(slot.uAt + kShmRingWordSize, pBuffer, uLength);
    }
    StoreWord(slot.uAt, uLength);
    Publish(slot);
    return PIPE_OK;
}

ShmPipeResult ShmEventPipe::write(const iovec* pPieces, int32_t iCount) {
    uint32_t uLength = 0;
    for (int32_t i = 0; i < iCount; ++i) {
        uLength += static_cast<uint32_t>(pPieces[i].iov_len);
    }
    Slot slot;
    const ShmPipeResult eResult = Claim(uLength, slot);
    if (eResult != PIPE_OK) {
        return eResult;
    }
    StoreWord(slot.uAt, uLength);
    uint32_t uAt = slot.uAt + kShmRingWordSize;
    // A sum that has passed 32 bits promises fewer bytes than the pieces hold, and no more than it
    // promises may go in.
    uint32_t uLeft = uLength;
    for (int32_t i = 0; i < iCount && uLeft != 0; ++i) {
        const auto uPiece = static_cast<uint32_t>(std::min<std::size_t>(pPieces[i].iov_len, uLeft));
        if (uPiece != 0) {
            uAt = CopyIn(uAt, pPieces[i].iov_base, uPiece);
            uLeft -= uPiece;
        }
    }
    Publish(slot);
    return PIPE_OK;
}

ShmPipeResult ShmEventPipe::read(void* pBuffer, uint32_t* pSize, uint32_t* pStatus) {
    uint32_t uUnwanted = 0;
    pStatus = pStatus != nullptr ? pStatus : &uUnwanted;
    if (m_eRole != READER) [[unlikely]] {
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "read", m_iInfoLevel, "Cannot read from WRITER pipe");
        }
        *pStatus = READ_WRONG_ROLE;
        return PIPE_ERROR;
    }
    const uint32_t uCapacity = std::exchange(*pSize, 0);
    *pStatus = READ_EMPTY;
    if (!m_bMapped) [[unlikely]] {
        return PIPE_ERROR;
    }
    const uint32_t uRead = AdoptIndex(LoadOwn(m_pHeader->uReadIndex));
    const uint32_t uWrite = AdoptIndex(LoadAcquire(m_pHeader->uWriteIndex));
    if (uRead == uWrite) {
        return PIPE_NO_DATA;
    }
    const uint32_t uLength = LoadWord(uRead);
    if (uLength > m_uSize) [[unlikely]] {
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "read", m_iErrorLevel,
                     "Invalid message size %u at offset %u. write index: %u", uLength, uRead,
                     uWrite);
        }
        // Deliberate: where the next good message begins cannot be told, so all pending ones go.
        StoreRelease(m_pHeader->uReadIndex, uWrite);
        *pStatus = READ_BAD_SIZE;
        return PIPE_ERROR;
    }
    if (uLength == 0) [[unlikely]] {
        return PIPE_NO_DATA;
    }
    const uint32_t uNext = NextIndex(uRead, uLength);
    ShmPipeResult eResult = PIPE_OK;
    if (uLength > uCapacity) [[unlikely]] {
        if (m_pfnLog != nullptr) {
            m_pfnLog(m_szClass, "read", m_iInfoLevel,
                     "output buffer too small: size = %u; msgSize = %u", uCapacity, uLength);
        }
        // Deliberate: the message is passed over all the same, since a caller whose buffer is too
        // small would meet it for ever.
        *pStatus = READ_BUFFER_TOO_SMALL;
        eResult = PIPE_NO_DATA;
    } else {
        CopyOut(uRead + kShmRingWordSize, pBuffer, uLength);
        *pSize = uLength;
        *pStatus = READ_OK;
    }
    StoreWord(uRead, 0);
    StoreRelease(m_pHeader->uReadIndex, uNext);
    return eResult;
}
