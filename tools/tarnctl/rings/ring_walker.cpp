#include "tarnctl/rings/ring_walker.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

// A reader that moves with every look is faster than this process. What was seen last is then
// taken, and the check after each copy finds out what has become of it.
constexpr int kLooks = 64;

// Each word is loaded with acquire, so that the loads stay in the order of the program: the index
// that says that a message is there, the message, and the index that says that it still is.
// Pairs with the release of the index words by the two sides. The mapping is for reading only; the
// cast gives std::atomic_ref the form that it asks for.
uint32_t LoadAcquire(const std::byte* from) {
    auto* const word = reinterpret_cast<uint32_t*>(const_cast<std::byte*>(from));
    return std::atomic_ref<uint32_t>(*word).load(std::memory_order_acquire);
}

}  // namespace

bool RingBytes::Copy(uint32_t offset, std::span<std::byte> to) const {
    if (offset > m_size || to.size() > m_size - offset) {
        return false;
    }
    auto at = static_cast<uint32_t>((uint64_t{m_at} + offset) % m_ringSize);
    while (!to.empty()) {
        const uint32_t within = at % kShmRingWordSize;
        const uint32_t word = LoadAcquire(m_ring + (at - within));
        const size_t part = std::min<size_t>(kShmRingWordSize - within, to.size());
        std::memcpy(to.data(), reinterpret_cast<const std::byte*>(&word) + within, part);
        to = to.subspan(part);
        at += static_cast<uint32_t>(part);
        at = at == m_ringSize ? 0 : at;
    }
    return true;
}

RingWalker::~RingWalker() {
    Unmap();
}

void RingWalker::Unmap() {
    if (m_map != nullptr) {
        munmap(m_map, m_fileSize);
        m_map = nullptr;
    }
    m_size = 0;
}

bool RingWalker::Open(const std::string& path) {
    Unmap();
    m_path = path;
    // A FIFO without a writer would hold a plain open for ever.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd == -1) {
        m_error = FailureText(path, errno);
        return false;
    }
    struct stat status = {};
    void* map = MAP_FAILED;
    if (fstat(fd, &status) != 0) {
        m_error = FailureText(path, errno);
    } else if (!S_ISREG(status.st_mode)) {
        m_error = path + " is no ring: it is not a plain file";
    } else if (status.st_size < off_t{kShmRingSmallestFile} || status.st_size > off_t{UINT32_MAX}) {
        m_error = path + " is no ring: it has " + std::to_string(status.st_size) +
                  " bytes, and a ring has from 12 to 4294967295";
    } else {
        map = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ, MAP_SHARED, fd, 0);
        if (map == MAP_FAILED) {
            m_error = FailureText(path, errno);
        }
    }
    close(fd);
    if (map == MAP_FAILED) {
        return false;
    }
    m_map = static_cast<std::byte*>(map);
    m_fileSize = static_cast<uint64_t>(status.st_size);
    m_device = status.st_dev;
    m_inode = status.st_ino;
    // A size that is no multiple of 4 is none of a ring's sides; what is beyond has no place in it.
    m_size = (static_cast<uint32_t>(m_fileSize) - kShmRingHeaderSize) & ~(kShmRingWordSize - 1);
    m_error.clear();
    Restart();
    return true;
}

bool RingWalker::IsCurrent() const {
    struct stat status = {};
    return m_map != nullptr && stat(m_path.c_str(), &status) == 0 && status.st_dev == m_device &&
           status.st_ino == m_inode && static_cast<uint64_t>(status.st_size) == m_fileSize;
}

uint32_t RingWalker::WordAt(uint32_t at) const {
    return LoadAcquire(m_map + kShmRingHeaderSize + at);
}

uint32_t RingWalker::ReadWord() const {
    return LoadAcquire(m_map + offsetof(ShmRingHeader, readIndex));
}

// As the daemon's own ring takes an index that is none: rounded up, then modulo the size.
uint32_t RingWalker::Adopt(uint32_t index) const {
    return ShmRingRoundUp(index) % m_size;
}

// Bytes from one ring offset forward to another.
uint32_t RingWalker::Distance(uint32_t from, uint32_t to) const {
    return to >= from ? to - from : m_size - from + to;
}

// The ring offset of the message after one of this length.
uint32_t RingWalker::After(uint32_t at, uint32_t length) const {
    return static_cast<uint32_t>(ShmRingRoundUp(uint64_t{at} + kShmRingWordSize + length) % m_size);
}

// A read index that is the same before and after the write index was loaded was so at that moment
// too, so that the two belong together.
RingLook RingWalker::Look() const {
    RingLook look;
    if (m_map == nullptr) {
        return look;
    }
    look.size = m_size;
    uint32_t after = ReadWord();
    for (int i = 0; i < kLooks; ++i) {
        look.readWord = after;
        look.writeWord = LoadAcquire(m_map + offsetof(ShmRingHeader, writeIndex));
        look.firstLength = WordAt(Adopt(look.readWord));
        after = ReadWord();
        if (after == look.readWord) {
            break;
        }
    }
    look.readIndex = Adopt(look.readWord);
    look.writeIndex = Adopt(look.writeWord);
    look.used = Distance(look.readIndex, look.writeIndex);
    return look;
}

void RingWalker::Restart() {
    const RingLook look = Look();
    m_at = look.readIndex;
    m_bodyAt = m_at;
}

// Whether the walk is still at the start of a message, or at the write index. The ring may have
// gone round since the last call, with the indexes where they were.
bool RingWalker::IsOnItsWay(const RingLook& look) const {
    const uint32_t passed = Distance(look.readIndex, m_at);
    if (passed == 0) {
        return true;
    }
    if (passed > look.used) {
        return false;
    }
    // Where the message before is as it was, the next one begins after it. That spares most calls
    // the way from the read index.
    const uint32_t before = Distance(m_bodyAt, m_at);
    if (before != 0 && before <= passed &&
        IsStillThere(m_bodyAt, static_cast<uint32_t>(m_body.size()))) {
        return true;
    }
    return LeadsTo(look.readIndex, passed);
}

// Whether the length words from this ring offset on lead to the one `target` bytes further.
bool RingWalker::LeadsTo(uint32_t from, uint32_t target) const {
    uint64_t done = 0;
    while (done < target) {
        const uint32_t length = WordAt(static_cast<uint32_t>((from + done) % m_size));
        if (length == 0) {
            return false;
        }
        done += ShmRingRoundUp(uint64_t{kShmRingWordSize} + length);
    }
    return done == target;
}

WalkResult RingWalker::Overtaken() {
    Restart();
    return WalkResult::kOvertaken;
}

void RingWalker::CopyBody(uint32_t at, uint32_t length) {
    m_body.resize(ShmRingRoundUp(length));
    uint32_t from = at + kShmRingWordSize;
    for (uint32_t done = 0; done < length; done += kShmRingWordSize, from += kShmRingWordSize) {
        from = from == m_size ? 0 : from;
        const uint32_t word = WordAt(from);
        std::memcpy(m_body.data() + done, &word, sizeof word);
    }
    m_body.resize(length);
}

// Whether the ring still has what was copied. Without a lap of the writer between the copy and this
// second look all of it was there at once. One lap alone cannot make a copy of two halves look
// right: what the first look found of the newer message, the second one finds of the whole.
bool RingWalker::IsStillThere(uint32_t at, uint32_t length) const {
    uint32_t from = at + kShmRingWordSize;
    for (uint32_t done = 0; done < length; done += kShmRingWordSize, from += kShmRingWordSize) {
        from = from == m_size ? 0 : from;
        const uint32_t word = WordAt(from);
        const uint32_t left = length - done;
        // A comparison of a whole word is an instruction, one of a part of it a call.
        const bool isSame = left >= sizeof word
                                ? std::memcmp(m_body.data() + done, &word, sizeof word) == 0
                                : std::memcmp(m_body.data() + done, &word, left) == 0;
        if (!isSame) {
            return false;
        }
    }
    return WordAt(at) == length;
}

WalkResult RingWalker::Next() {
    if (m_map == nullptr) {
        return WalkResult::kEnd;
    }
    const RingLook look = Look();
    if (!IsOnItsWay(look)) {
        return Overtaken();
    }
    const uint32_t passed = Distance(look.readIndex, m_at);
    const uint32_t left = look.used - passed;
    if (left == 0) {
        return WalkResult::kEnd;
    }
    // The reader has passed the place once its index has moved by more than what lay between. It
    // zeroes the length word before that, so a word of 0 is no hole while the index moves.
    const auto isTaken = [this, &look, passed] {
        return Distance(look.readIndex, Adopt(ReadWord())) > passed;
    };
    const uint32_t length = WordAt(m_at);
    const uint64_t need = ShmRingRoundUp(uint64_t{kShmRingWordSize} + length);
    if (length == 0 || need > left) {
        if (isTaken()) {
            return Overtaken();
        }
        return length == 0 ? WalkResult::kHole : WalkResult::kTooLong;
    }
    CopyBody(m_at, length);
    if (isTaken() || !IsStillThere(m_at, length) || isTaken()) {
        return Overtaken();
    }
    m_bodyAt = m_at;
    m_at = After(m_at, length);
    return WalkResult::kMessage;
}

RingBytes RingWalker::BytesAt(uint32_t at) const {
    if (m_map == nullptr) {
        return {nullptr, 1, 0, 0};
    }
    const uint32_t place = Adopt(at);
    const uint32_t left = Distance(place, Look().writeIndex);
    const uint32_t size = left < kShmRingWordSize ? 0 : left - kShmRingWordSize;
    return {m_map + kShmRingHeaderSize, m_size, After(place, 0), size};
}

// The end is taken once. What is written meanwhile belongs to the next count.
RingCount RingWalker::CountFrom(uint32_t start, const MessageLength& lengthOf) const {
    RingCount count;
    if (m_map == nullptr || start % kShmRingWordSize != 0 || start >= m_size) {
        return count;
    }
    const uint32_t end = Look().writeIndex;
    count.end = start;
    while (count.end != end) {
        const uint32_t left = Distance(count.end, end);
        uint32_t length = WordAt(count.end);
        if (length == 0) {
            const RingBytes body(m_map + kShmRingHeaderSize, m_size, After(count.end, 0),
                                 left - kShmRingWordSize);
            length = lengthOf ? lengthOf(body).value_or(0) : 0;
        }
        const uint64_t need = ShmRingRoundUp(uint64_t{kShmRingWordSize} + length);
        if (length == 0 || need > left) {
            return count;
        }
        ++count.messages;
        count.end = After(count.end, length);
    }
    count.isWhole = true;
    return count;
}

}  // namespace tarnctl
