#include "tarnctl/crm/crm_channel.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <utility>

#include "paths.h"
#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

// A monitor is run by whoever may read the rings. The daemon attaches to a semaphore of any mode.
constexpr mode_t kSemaphoreMode = 0600;
constexpr mode_t kRingMode = 0700;

// What a ring said last. Its callback has no place for a context.
std::string s_ringReport;

[[gnu::format(printf, 4, 5)]] int KeepRingReport(const char*, const char*, int64_t,
                                                 const char* format, ...) {
    std::array<char, 256> text = {};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    s_ringReport = text.data();
    return 0;
}

}  // namespace

CrmChannel::CrmChannel(int channel, const char* queueName)
    : m_queue(queueName, EventQueue::ForReader::kTag, 0) {
    const std::string base =
        std::string(tarn::paths::kEventQueueBase) + queueName + std::to_string(channel);
    auto pair = std::make_unique<ShmEventPipePair>(READER, base.c_str(), kEventQueueSecondRingSize,
                                                   kEventQueueFirstRingSize, false);
    m_pair = pair.get();
    for (ShmEventPipe& ring : m_pair->m_aPipes) {
        ring.m_pfnLog = KeepRingReport;
    }
    m_queue.m_pairs.push_back(std::move(pair));
    m_queue.m_uPairCount = 1;
}

CrmChannel::~CrmChannel() {
    if (m_hasPost) {
        sem_post(m_queue.m_pSem);
    }
    if (m_lock != -1) {
        close(m_lock);
    }
}

bool CrmChannel::Fail(const std::string& reason) {
    m_error = reason;
    return false;
}

bool CrmChannel::Open() {
    // Opening a ring stores its read index, so the lock comes first.
    const std::string& path = m_pair->m_aPipes[0].m_strPath;
    m_missingRing = access(path.c_str(), F_OK) == 0 ? "" : path;
    m_lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kRingMode);
    if (m_lock == -1) {
        return Fail(FailureText(path, errno));
    }
    if (flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        return Fail(error == EWOULDBLOCK
                        ? path + ": another tarnctl reads this channel; stop it first"
                        : FailureText(path, error));
    }

    sem_t* const made = sem_open(m_queue.m_strSemName.c_str(), O_CREAT, kSemaphoreMode, 0);
    if (made == SEM_FAILED) {
        return Fail(FailureText("semaphore " + m_queue.m_strSemName, errno));
    }
    s_ringReport.clear();
    const int result = m_queue.Open();
    sem_close(made);
    if (result > 0) {
        return Fail(FailureText("semaphore " + m_queue.m_strSemName, result));
    }
    if (result != 0) {
        return Fail(
            "the rings " + path +
            " and -1 cannot be opened; run this as the user that tarn runs as: " + s_ringReport);
    }
    m_buffer = std::make_unique_for_overwrite<std::byte[]>(kEventQueueFirstRingSize);
    return true;
}

CrmChannel::ReadResult CrmChannel::Next(std::span<const std::byte>& bytes, int& ring) {
    for (ring = 0; ring < 2; ++ring) {
        ShmEventPipe& pipe = m_pair->m_aPipes[static_cast<size_t>(ring)];
        uint32_t size = kEventQueueFirstRingSize;
        uint32_t status = READ_OK;
        switch (pipe.read(m_buffer.get(), &size, &status)) {
            case PIPE_OK:
                TakePost();
                bytes = std::span<const std::byte>(m_buffer.get(), size);
                return ReadResult::kMessage;
            case PIPE_ERROR:
                m_error = pipe.m_strPath + ": all that waited in the ring is lost: " + s_ringReport;
                return ReadResult::kDamaged;
            default:
                break;
        }
        if (status == READ_EMPTY && pipe.State().isStuck) {
            m_error =
                pipe.m_strPath +
                ": the ring is stuck at a message of no bytes, which nothing moves; stop tarn, remove "
                "the file and start tarn again";
            return ReadResult::kStuck;
        }
    }
    // A post without a message is one that another reader has left behind.
    m_hasPost = false;
    return ReadResult::kEmpty;
}

ShmEventPipe& CrmChannel::Ring(int ring) const {
    return m_pair->m_aPipes[static_cast<size_t>(ring)];
}

const std::string& CrmChannel::RingPath(int ring) const {
    return Ring(ring).m_strPath;
}

// A message that is larger than the reader's buffer is taken all the same, with every store that
// goes with it. For a buffer of no bytes that is each message.
bool CrmChannel::Drop(int ring, uint32_t at) {
    ShmEventPipe& pipe = Ring(ring);
    if (pipe.State().readIndex != at) {
        return false;
    }
    const ShmReportCallback report = std::exchange(pipe.m_pfnLog, nullptr);
    uint32_t size = 0;
    uint32_t status = READ_OK;
    (void)pipe.read(m_buffer.get(), &size, &status);
    pipe.m_pfnLog = report;
    if (status != READ_BUFFER_TOO_SMALL) {
        return false;
    }
    TakePost();
    return true;
}

// The word belongs to the reader once the write index is past it, and this process is the reader.
// No order is needed: nobody else looks at the word before the read index has passed it.
void CrmChannel::PutBackLength(int ring, uint32_t at, uint32_t length) {
    auto& word = *reinterpret_cast<uint32_t*>(Ring(ring).m_pData + at);
    std::atomic_ref<uint32_t>(word).store(length, std::memory_order_relaxed);
}

void CrmChannel::TakePost() {
    if (m_hasPost) {
        m_hasPost = false;
        return;
    }
    (void)sem_trywait(m_queue.m_pSem);  // the writer may not have posted yet
}

void CrmChannel::Wait(std::chrono::milliseconds time) {
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    constexpr long kSecond = 1'000'000'000;
    deadline.tv_sec += time.count() / 1000;
    deadline.tv_nsec += time.count() % 1000 * 1'000'000;
    if (deadline.tv_nsec >= kSecond) {
        deadline.tv_nsec -= kSecond;
        ++deadline.tv_sec;
    }
    if (sem_clockwait(m_queue.m_pSem, CLOCK_MONOTONIC, &deadline) == 0) {
        m_hasPost = true;
    }
}

}  // namespace tarnctl
