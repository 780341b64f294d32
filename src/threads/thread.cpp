#include "threads/thread.h"

#include <cxxabi.h>
#include <sched.h>

#include <cerrno>
#include <stdexcept>

namespace {

// A cancelled thread ends at its next wait. One that is held up in the kernel, by a log file on a
// dead disk for example, is given up after this time and not waited for.
constexpr unsigned kCancelLimitMs = 2000;

}  // namespace

bool BindCallingThreadToCpu(int cpu) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(static_cast<size_t>(cpu), &cpus);  // beyond the set's 1024 it sets nothing
    return pthread_setaffinity_np(pthread_self(), sizeof(cpus), &cpus) == 0;
}

Thread::Thread(const char* name) : m_name(name) {
    m_doneGate.Init();
    m_doneGate.Close();
    m_begunGate.Init();
    m_begunGate.Close();
}

Thread::~Thread() {
    m_begunGate.Destroy();
    m_doneGate.Destroy();
}

void Thread::OnException(const std::exception& /*e*/) {}

bool Thread::Start(bool detached) {
    if (m_handle != 0) {
        if (!m_finished.load(std::memory_order_acquire)) {
            return false;
        }
        // The former thread is on its last lines and may still be opening the gate.
        if (!Join(nullptr)) {
            return false;
        }
        m_finished.store(false, std::memory_order_release);
        m_running.store(false, std::memory_order_release);
    }
    // A first start that failed has left the done gate open.
    m_doneGate.Close();
    m_begunGate.Close();

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (detached) {
        // Deliberate: it stays so for later starts. How an object's thread is waited for is settled
        // once.
        m_detached = true;
    }
    if (m_detached) {
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    }
    pthread_attr_setscope(&attributes, PTHREAD_SCOPE_SYSTEM);
    pthread_t handle{};
    const int failure = pthread_create(&handle, &attributes, &Thread::EntryPoint, this);
    pthread_attr_destroy(&attributes);
    if (failure != 0) {
        // Deliberate: after a restart that failed every later Start is refused, since the object
        // can no longer distinguish a thread that is not there from one that is about to run.
        m_doneGate.Open(true);
        return false;
    }
    m_handle = handle;
    m_joined = false;
    return true;
}

// A forced unwind carries no exception object, so the reference that catches it is a null one,
// which the undefined-behaviour sanitizer would take for a slip.
__attribute__((no_sanitize("null"))) void* Thread::EntryPoint(void* self) {
    auto* const thread = static_cast<Thread*>(self);
    thread->m_running.store(true, std::memory_order_release);
    thread->m_begunGate.Open(true);
    try {
        thread->m_exitCode.store(thread->Run(), std::memory_order_release);
    } catch (const std::exception& e) {
        thread->OnException(e);
    } catch (const abi::__forced_unwind&) {
        // A cancelled thread must go on unwinding, and those who wait for its end must learn of it.
        thread->MarkFinished();
        throw;
    } catch (...) {
        thread->OnException(std::runtime_error("Unhandled Exception"));
    }
    const long exitCode = thread->m_exitCode.load(std::memory_order_acquire);
    thread->MarkFinished();
    return reinterpret_cast<void*>(exitCode);
}

void Thread::MarkFinished() {
    m_running.store(false, std::memory_order_release);
    m_finished.store(true, std::memory_order_release);
    m_doneGate.Open(true);
}

bool Thread::Join(unsigned timeoutMs, void** result) {
    if (m_detached) {
        (void)m_doneGate.Wait(timeoutMs);  // whether the gate is open says it all
        return m_doneGate.IsOpen();
    }
    if (m_handle == 0) {
        return false;
    }
    if (!m_joined) {
        const timespec deadline = DeadlineFromNow(timeoutMs);
        m_joined = pthread_timedjoin_np(m_handle, nullptr, &deadline) == 0;
    }
    if (m_joined && result != nullptr) {
        *result = reinterpret_cast<void*>(ExitCode());
    }
    return m_joined;
}

bool Thread::Join(void** result) {
    if (m_detached) {
        (void)m_doneGate.Wait();  // whether the gate is open says it all
        return m_doneGate.IsOpen();
    }
    if (m_handle == 0) {
        return false;
    }
    if (!m_joined) {
        m_joined = pthread_join(m_handle, nullptr) == 0;
    }
    if (m_joined && result != nullptr) {
        *result = reinterpret_cast<void*>(ExitCode());
    }
    return m_joined;
}

void Thread::Cancel() {
    if (m_handle == 0 || m_joined) {
        return;
    }
    OnLiveHandle([this] { pthread_cancel(m_handle); });
    if (!m_detached && pthread_detach(m_handle) == 0) {
        m_detached = true;
    }
}

// While the done gate is closed and held the thread cannot get past its last lines, so the handle
// names a live thread even when it is detached.
template <typename Action>
void Thread::OnLiveHandle(Action action) {
    if (m_handle != 0) {
        (void)m_doneGate.WhileClosed(action);  // a thread that has finished is left alone
    }
}

bool Thread::CancelAndJoin() {
    if (m_handle == 0 || m_joined) {
        return true;
    }
    pthread_cancel(m_handle);
    return Join(kCancelLimitMs, nullptr);
}

int Thread::SetPriority(int priority) {
    sched_param parameters{};
    parameters.sched_priority = priority;
    int failure = ESRCH;
    OnLiveHandle([&] { failure = pthread_setschedparam(m_handle, SCHED_FIFO, &parameters); });
    return failure;
}

int Thread::GetPriority(int* priority) {
    int policy = 0;
    sched_param parameters{};
    int failure = ESRCH;
    OnLiveHandle([&] { failure = pthread_getschedparam(m_handle, &policy, &parameters); });
    if (failure == 0) {
        *priority = parameters.sched_priority;
    }
    return failure;
}

bool Thread::AwaitBegun(unsigned timeoutMs) {
    if (m_handle == 0) {
        return false;
    }
    if (m_joined) {  // after a restart that failed there is nothing to wait for
        return m_begunGate.IsOpen();
    }
    return m_begunGate.Wait(timeoutMs);
}

bool Thread::Settle(unsigned timeoutMs) {
    if (m_handle == 0 || m_joined) {
        return true;
    }
    return Join(timeoutMs, nullptr);
}
