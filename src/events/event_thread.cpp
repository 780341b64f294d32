#include "events/event_thread.h"

#include <csignal>

#include "events/event_bridge.h"
#include "logging/log.h"
#include "threads/cancellation.h"

using vald::Log;

EventThread::EventThread(const char* name, int32_t reserved, int32_t cpu)
    : Thread(name), m_reserved(reserved), m_cpu(cpu) {
    m_resumeGate.Init();
    m_suspendedGate.Init();
    m_suspendedGate.Close();
}

EventThread::~EventThread() {
    m_suspendedGate.Destroy();
    m_resumeGate.Destroy();
}

int EventThread::Stop() {
    m_stop.store(true, std::memory_order_release);
    m_resumeGate.Open(false);
    return 1;
}

void EventThread::Suspend() {
    m_resumeGate.Close();
    m_suspend.store(true, std::memory_order_release);
}

void EventThread::Resume() {
    m_suspend.store(false, std::memory_order_release);
    m_resumeGate.Open(false);
}

bool EventThread::WaitSuspended(unsigned timeoutMs) {
    return m_suspendedGate.Wait(timeoutMs);
}

int EventThread::Run() {
    const CancellationOff off;

    sigset_t userSignal;
    sigemptyset(&userSignal);
    sigaddset(&userSignal, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &userSignal, nullptr);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGUSR2, &ignore, nullptr);

    Log* const log = Log::GetInstance();
    const auto self = static_cast<unsigned long>(pthread_self());
    log->Write(Log::kDebug, "event thread %lu starting.", self);
    BindToCpu();

    m_stop.store(false, std::memory_order_release);
    int exitCode = kExitStopped;
    m_bridge = EventBridge::GetInstance();
    if (m_bridge == nullptr) {
        m_stop.store(true, std::memory_order_release);
        exitCode = kExitNoBridge;
    }

    while (!m_stop.load(std::memory_order_acquire)) {
        if (m_suspend.load(std::memory_order_acquire)) {
            WaitWhileSuspended();
        }
        if (m_stop.load(std::memory_order_acquire)) {
            continue;
        }
        if (m_bridge->ProcessEventQueue(1, 1) < 0) {
            m_stop.store(true, std::memory_order_release);
            exitCode = kExitBridgeRefused;
        }
    }

    if (m_bridge != nullptr) {
        m_bridge->Release();
        m_bridge = nullptr;
    }
    log->Write(Log::kDebug, "Event thread %lu exiting: %d", self, exitCode);
    return exitCode;
}

void EventThread::BindToCpu() const {
    // Deliberate: CPU 0 cannot be chosen; 0 means no binding.
    if (m_cpu <= 0) {
        return;
    }
    const auto self = static_cast<unsigned long>(pthread_self());
    if (BindCallingThreadToCpu(m_cpu)) {
        Log::GetInstance()->Write(Log::kDebug, "Assigned event thread %lu to CPU %d", self, m_cpu);
    } else {
        Log::GetInstance()->Write(Log::kWarning, "Unable to assign event thread %lu to CPU %d",
                                  self, m_cpu);
    }
}

void EventThread::WaitWhileSuspended() {
    Log* const log = Log::GetInstance();
    const auto self = static_cast<unsigned long>(pthread_self());
    log->Write(Log::kDebug, "Event thread %lu suspended.", self);
    m_suspendedGate.Open(true);
    {
        const CancellationOn window;
        (void)m_resumeGate.Wait();  // a wait that failed counts as resumed: the loop looks again
    }
    m_suspendedGate.Close();
    log->Write(Log::kDebug, "Event thread %lu resumed.", self);
}

void EventThread::ForceQuit() {
    if (!IsRunning()) {
        return;
    }
    if (CancelAndJoin() && m_bridge != nullptr) {
        m_bridge->Release();
        m_bridge = nullptr;
    }
}
