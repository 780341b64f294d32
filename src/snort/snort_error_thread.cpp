#include "snort/snort_error_thread.h"

#include <pthread.h>

#include "logging/log.h"
#include "snort/snort_error_reader.h"
#include "threads/cancellation.h"

using vald::Log;

namespace {

constexpr int kExitCode = 1;
constexpr long kReadSeconds = 1;

}  // namespace

SnortErrorThread::SnortErrorThread(const char* name, int32_t cpu) : Thread(name), m_cpu(cpu) {}

SnortErrorThread::~SnortErrorThread() = default;

int SnortErrorThread::Stop() {
    m_stop.store(true, std::memory_order_release);
    return 1;
}

int SnortErrorThread::Run() {
    const CancellationOff off;
    Log* const log = Log::GetInstance();
    const auto self = static_cast<unsigned long>(pthread_self());
    log->Write(Log::kDebug, "Snort error thread %lu starting.", self);
    BindToCpu();

    // A stop that came before this line is lost, and the owner force-quits.
    m_stop.store(false, std::memory_order_release);
    while (!m_stop.load(std::memory_order_acquire)) {
        (void)SnortErrorReader::Instance()->ReadErrors(kReadSeconds);  // the loop is the retry
        const CancellationOn window;
        pthread_testcancel();
    }
    SnortErrorReader::ReleaseInstance();
    log->Write(Log::kDebug, "Snort error thread %lu exiting", self);
    return kExitCode;
}

void SnortErrorThread::BindToCpu() const {
    // Deliberate: CPU 0 cannot be chosen; 0 means no binding.
    if (m_cpu <= 0) {
        return;
    }
    const auto self = static_cast<unsigned long>(pthread_self());
    if (BindCallingThreadToCpu(m_cpu)) {
        Log::GetInstance()->Write(Log::kDebug, "Assigned Snort error thread %lu to CPU %d", self,
                                  m_cpu);
    } else {
        Log::GetInstance()->Write(Log::kWarning,
                                  "Unable to assign Snort error thread %lu to CPU %d", self, m_cpu);
    }
}

void SnortErrorThread::ForceQuit() {
    if (!IsRunning()) {
        return;
    }
    if (CancelAndJoin()) {
        SnortErrorReader::ReleaseInstance();
    }
}
