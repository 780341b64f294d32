#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "ring/shm_ring_format.h"
#include "tarnctl/health/parts.h"
#include "tarnctl/rings/message_length.h"
#include "tarnctl/rings/ring_state.h"
#include "tarnctl/rings/ring_walker.h"

namespace tarnctl {
namespace {

class ReadOnlyFile {
  public:
    explicit ReadOnlyFile(const std::string& path)
        : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)), m_error(errno) {}
    ~ReadOnlyFile() {
        if (m_fd != -1) {
            close(m_fd);
        }
    }
    ReadOnlyFile(const ReadOnlyFile&) = delete;
    ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;

    [[nodiscard]] bool IsOpen() const { return m_fd != -1; }
    [[nodiscard]] int Error() const { return m_error; }
    [[nodiscard]] bool Read(void* to, size_t length, uint64_t offset) const {
        return pread(m_fd, to, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
    }

  private:
    const int m_fd;  // owned
    const int m_error;
};

RingHealth LookAtRing(const std::string& path) {
    RingHealth health;
    health.path = path;
    const auto fail = [&health, &path](const std::string& reason) {
        health.sizeBytes = Unknown<uint64_t>(path, reason);
        health.readIndex = Unknown<uint32_t>(path, reason);
        health.writeIndex = Unknown<uint32_t>(path, reason);
        health.usedBytes = Unknown<uint64_t>(path, reason);
        health.messages = Unknown<uint64_t>(path, reason);
        health.motion = Unknown<RingMotion>(path, reason);
        return health;
    };
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        const int error = errno;
        const std::string reason = LookFailure(path, error);
        health.isThere = error == ENOENT ? Known(false, path) : Unknown<bool>(path, reason);
        return fail(reason);
    }
    if (!S_ISREG(status.st_mode)) {
        health.isThere = Known(false, path);
        return fail(path + " is no plain file");
    }
    health.isThere = Known(true, path);
    if (access(path.c_str(), R_OK) != 0) {
        return fail(LookFailure(path, errno));
    }
    RingWalker ring;
    if (!ring.Open(path)) {
        return fail(ring.Error());
    }
    const RingState state = LookAtState(ring);
    const RingLook& look = state.look;
    health.sizeBytes = Known(uint64_t{look.size}, path);
    health.readIndex = Known(look.readWord, path);
    health.writeIndex = Known(look.writeWord, path);
    health.usedBytes = Known(uint64_t{look.used}, path);
    // A walk that a quick reader overtakes counts a part only; a count includes what is taken
    // meanwhile.
    health.messages = Known(state.fault == RingFault::kNone
                                ? ring.CountFrom(look.readIndex, ReportLength).messages
                                : state.messages,
                            path);
    health.stuckReason = state.IsStuck() ? FaultText(state) : "";
    health.motion = Unknown<RingMotion>(path, "it takes two looks");
    return health;
}

// Without taking a post, and without opening the semaphore as one.
Reading<int> SemaphoreReading(const std::string& path) {
    const ReadOnlyFile file(path);
    if (!file.IsOpen()) {
        return Unknown<int>(path, LookFailure(path, file.Error()));
    }
    sem_t copy = {};
    int posts = 0;
    if (!file.Read(&copy, sizeof copy, 0) || sem_getvalue(&copy, &posts) != 0) {
        return Unknown<int>(path, path + " is no semaphore");
    }
    return Known(posts, path);
}

// A reader stores its index, so it has the ring open or mapped for writing.
Reading<Holders> LookAtReaders(const std::string& path, const ProcessTable& processes, int daemon) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return Unknown<Holders>(path, LookFailure(path, errno));
    }
    Holders holders = processes.HoldersOf(status, ProcessTable::Access::kWrite);
    for (Holder& mapper : processes.MappersOf(status, path.substr(path.rfind('/') + 1))) {
        holders.push_back(std::move(mapper));
    }
    Holders readers;
    for (Holder& holder : holders) {
        const auto isSame = [&holder](const Holder& other) {
            return other.process == holder.process;
        };
        if (holder.process != daemon && std::none_of(readers.begin(), readers.end(), isSame)) {
            readers.push_back(std::move(holder));
        }
    }
    const std::string source = processes.DescriptorsSource();
    if (readers.empty() && !processes.IsComplete()) {
        return Unknown<Holders>(source, HoldersHidden());
    }
    return Known(std::move(readers), source);
}

void CompareRings(const RingHealth& before, RingHealth& now) {
    if (!now.readIndex.IsKnown() || !before.readIndex.IsKnown()) {
        return;
    }
    const bool hasMoved = now.readIndex.value != before.readIndex.value ||
                          now.writeIndex.value != before.writeIndex.value;
    RingMotion motion = RingMotion::kWaiting;
    if (hasMoved) {
        motion = RingMotion::kMoving;
    } else if (!now.stuckReason.empty() && !before.stuckReason.empty()) {
        motion = RingMotion::kStuck;
    } else if (now.usedBytes.Is(0)) {
        motion = RingMotion::kEmpty;
    }
    now.motion = Known(motion, now.path);
}

}  // namespace

QueueHealth LookAtQueue(const HealthPlaces& places, const ProcessTable& processes,
                        Reading<int> channel, int daemon) {
    QueueHealth health;
    const std::string base = places.ringBase + std::to_string(*channel.value);
    health.channel = std::move(channel);
    for (const char* const suffix : {kShmRingFirstSuffix, kShmRingSecondSuffix}) {
        health.rings.push_back(LookAtRing(base + suffix));
    }
    health.readers = LookAtReaders(base + kShmRingFirstSuffix, processes, daemon);
    health.semaphore = SemaphoreReading(places.semaphore);
    return health;
}

void CompareQueues(const QueueHealth& before, QueueHealth& now) {
    if (!before.channel.Is(*now.channel.value)) {
        return;
    }
    for (size_t ring = 0; ring < now.rings.size(); ++ring) {
        CompareRings(before.rings[ring], now.rings[ring]);
    }
}

}  // namespace tarnctl
