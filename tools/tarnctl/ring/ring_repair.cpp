#include "tarnctl/ring/ring_repair.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

#include "ring/shm_event_pipe.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/failure_text.h"
#include "tarnctl/rings/ring_users.h"

namespace tarnctl {
namespace {

// The ring's words, mapped to write. Which store suffices for which state, and in which order:
//
// - The read index belongs to the reader. While no reader runs, this process stands in for it, and
//   may do what a reader may: move the read index to the start of a message or to the write index.
//   The store is a release, as the reader's own, so that everything that was read of the messages
//   was read before the writer, which loads the index with acquire, puts new ones there. The write
//   index that is stored was loaded with acquire: all messages up to it are in place. A writer that
//   moves on meanwhile publishes a message that begins exactly there. So the store never cuts a
//   message in two, and the writer sees nothing but a ring with more room.
//
// - The length word of the message at the read index belongs to the reader, too, once the write
//   index has passed it: the writer stores length words only from its own index on, and a
//   terminator only where that does not meet the read index. To put it back, one relaxed store is
//   enough. Who reads it next is a reader that starts afterwards, and a start of a process orders
//   the two.
//
// - The write index belongs to the writer. It is stored only while no other process has the ring
//   mapped to write, so no order is needed between the two sides; the release keeps the terminator
//   in front of it all the same.
//
// An index is stored by a compare-and-exchange with what the looks found. If a reader has come back
// in spite of all that was made sure, and has moved its index, nothing is stored.
class RingWords {
  public:
    ~RingWords() {
        if (m_map != nullptr) {
            munmap(m_map, m_bytes);
        }
        if (m_fd != -1) {
            close(m_fd);
        }
    }
    RingWords() = default;
    RingWords(const RingWords&) = delete;
    RingWords& operator=(const RingWords&) = delete;

    // Returns an empty text, or the reason why the ring cannot be mapped.
    std::string Open(const std::string& path, uint64_t bytes) {
        m_fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
        if (m_fd == -1) {
            return FailureText(path, errno);
        }
        void* const map = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
        if (map == MAP_FAILED) {
            return FailureText(path, errno);
        }
        m_map = static_cast<std::byte*>(map);
        m_bytes = bytes;
        return "";
    }

    bool MoveReadIndex(uint32_t from, uint32_t to) {
        return Exchange(offsetof(ShmRingHeader, readIndex), from, to, std::memory_order_release);
    }
    bool MoveWriteIndex(uint32_t from, uint32_t to) {
        return Exchange(offsetof(ShmRingHeader, writeIndex), from, to, std::memory_order_release);
    }
    bool StoreLength(uint32_t at, uint32_t from, uint32_t to) {
        return Exchange(kShmRingHeaderSize + at, from, to, std::memory_order_relaxed);
    }

  private:
    bool Exchange(size_t offset, uint32_t from, uint32_t to, std::memory_order order) {
        if (m_map == nullptr) {
            return false;
        }
        auto& word = *reinterpret_cast<uint32_t*>(m_map + offset);
        return std::atomic_ref<uint32_t>(word).compare_exchange_strong(from, to, order,
                                                                       std::memory_order_relaxed);
    }

    int m_fd = -1;               // owned
    std::byte* m_map = nullptr;  // owned
    uint64_t m_bytes = 0;
};

// The lock by which two of these commands keep apart. That of a channel is on its first ring.
class RingLock {
  public:
    ~RingLock() {
        if (m_fd != -1) {
            close(m_fd);
        }
    }
    RingLock() = default;
    RingLock(const RingLock&) = delete;
    RingLock& operator=(const RingLock&) = delete;

    // Returns an empty text, or the reason why the lock cannot be had.
    std::string Take(const RingPlace& place) {
        std::string path = place.path;
        if (place.kind == RingKind::kReports && place.half == 1) {
            path.back() = '0';
        }
        m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (m_fd == -1 && errno == ENOENT && path != place.path) {
            m_fd = open(place.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        }
        if (m_fd == -1) {
            return FailureText(path, errno);
        }
        if (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
            const int error = errno;
            return error == EWOULDBLOCK ? path + ": another tarnctl uses this ring; stop it first"
                                        : FailureText(path, error);
        }
        return "";
    }

  private:
    int m_fd = -1;  // owned
};

// Returns an empty text, or the reason why it is not certain that nobody but the writer, or with
// `withWriter` nobody at all, uses the ring.
std::string WhoIsInTheWay(const RingPlace& place, const RepairOptions& options, bool withWriter) {
    RingUsers found = UsersOfRing(place.path, options.writer);
    if (!found.error.empty()) {
        return found.error;
    }
    std::erase_if(found.users,
                  [withWriter](const RingUser& user) { return user.isWriter && !withWriter; });
    if (!found.users.empty()) {
        return UsersText(found.users) + (found.users.size() == 1 ? " has" : " have") +
               " the ring mapped; stop " + (found.users.size() == 1 ? "it" : "them") + " first";
    }
    if (found.unseen > 0 && !options.isForced) {
        return "it cannot be seen what " + std::to_string(found.unseen) +
               (found.unseen == 1 ? " process of another user has"
                                  : " processes of other users have") +
               " mapped; run this as root, or use --force where none of them is a reader";
    }
    return "";
}

Repair Refused(const RingState& state, std::string text) {
    return {RepairOutcome::kRefused, state, std::move(text), 0};
}

bool IsWriteIndexFault(RingFault fault) {
    return fault == RingFault::kWriteIndexOffGrid || fault == RingFault::kWriteIndexOutside;
}

// The length of the message at the read index, if its own form tells it and the messages after it
// lead to the write index.
std::optional<uint32_t> LengthOfFirst(const RingWalker& walker, const RingState& state,
                                      RingKind kind) {
    const MessageLength lengthOf = LengthFunction(kind);
    if (!lengthOf) {
        return std::nullopt;
    }
    const std::optional<uint32_t> length = lengthOf(walker.BytesAt(state.at));
    if (!length) {
        return std::nullopt;
    }
    const auto next = static_cast<uint32_t>(
        ShmRingRoundUp(uint64_t{state.at} + kShmRingWordSize + *length) % state.look.size);
    return walker.CountFrom(next, nullptr).isWhole ? length : std::nullopt;
}

Repair Mend(const RingPlace& place, RingWalker& walker, const RingState& state) {
    RingWords words;
    const std::string obstacle = words.Open(place.path, walker.FileSize());
    if (!obstacle.empty()) {
        return Refused(state, obstacle);
    }
    Repair repair{RepairOutcome::kRepaired, state, "", 0};
    const RingLook& look = state.look;
    bool isStored = false;
    if (IsWriteIndexFault(state.fault)) {
        repair.text = "the ring is empty now; how much waited in it is not known, and it is lost";
        const uint32_t first = walker.LengthWord();
        isStored = words.StoreLength(look.readIndex, first, 0) &&
                   words.MoveReadIndex(look.readWord, look.readIndex) &&
                   words.MoveWriteIndex(look.writeWord, look.readIndex);
    } else if (const auto length = state.at == look.readWord
                                       ? LengthOfFirst(walker, state, place.kind)
                                       : std::nullopt) {
        repair.text = "the message that a reader did not finish waits again; nothing is lost";
        isStored = words.StoreLength(state.at, state.length, *length);
    } else {
        repair.lostBytes = look.used;
        repair.text = "the ring goes on with the next message that is written; " +
                      Counted(look.used, "byte") + " of messages that waited " +
                      (look.used == 1 ? "is" : "are") + " lost";
        isStored = words.MoveReadIndex(look.readWord, look.writeIndex);
    }
    return isStored ? repair : Refused(state, "the ring moves; a reader has started meanwhile");
}

}  // namespace

Repair RepairRing(const RingPlace& place, const RepairOptions& options) {
    RingWalker walker;
    RingLock lock;
    if (!walker.Open(place.path)) {
        return Refused({}, walker.Error());
    }
    RingState state = LookAtState(walker);
    if (state.fault == RingFault::kNone) {
        return {RepairOutcome::kHealthy, state, "there is nothing to repair", 0};
    }
    std::string obstacle = lock.Take(place);
    const bool isForWriter = IsWriteIndexFault(state.fault);
    if (obstacle.empty()) {
        obstacle = WhoIsInTheWay(place, options, isForWriter);
    }
    if (!obstacle.empty()) {
        return Refused(state, obstacle);
    }
    std::this_thread::sleep_for(options.interval);
    const RingState second = LookAtState(walker);
    if (second.fault == RingFault::kNone) {
        return {RepairOutcome::kHealthy, second, "there is nothing to repair", 0};
    }
    if (!IsSameFault(state, second)) {
        return Refused(second, "the ring moves; a reader has started meanwhile");
    }
    if (!second.IsStuck()) {
        return Refused(second, Counted(second.messages, "message") +
                                   " in front of the damage can be read; let a reader take " +
                                   (second.messages == 1 ? "it" : "them") +
                                   ", stop it, and repair");
    }
    obstacle = WhoIsInTheWay(place, options, isForWriter);
    return obstacle.empty() ? Mend(place, walker, second) : Refused(second, obstacle);
}

Repair ResetRing(const RingPlace& place, const RepairOptions& options) {
    RingWalker walker;
    RingLock lock;
    if (!walker.Open(place.path)) {
        return Refused({}, walker.Error());
    }
    const RingState state = LookAtState(walker);
    std::string obstacle = lock.Take(place);
    if (obstacle.empty()) {
        obstacle = WhoIsInTheWay(place, options, true);
    }
    if (!obstacle.empty()) {
        return Refused(state, obstacle);
    }
    // To open a ring sizes its file, so it is opened at the size that it has.
    ShmEventPipe pipe(READER, place.path, static_cast<uint32_t>(walker.FileSize()));
    if (!pipe.Open(true) || !pipe.Reset()) {
        return Refused(state, FailureText(place.path, errno));
    }
    return {RepairOutcome::kRepaired, state,
            "the ring is empty now; " + Counted(state.look.used, "byte") +
                " of messages that waited " + (state.look.used == 1 ? "is" : "are") + " lost",
            state.look.used};
}

}  // namespace tarnctl
