#include "tarnctl/common/signals.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstddef>

namespace tarnctl {
namespace {

constexpr size_t kSignals = 32;  // the standard signals and one more, since they begin at 1

std::atomic<bool> s_stop{false};
std::array<std::atomic<bool>, kSignals> s_requests{};
static_assert(std::atomic<bool>::is_always_lock_free, "the flags are stored by signal handlers");

extern "C" void OnStopSignal(int) {
    s_stop.store(true, std::memory_order_relaxed);
}

extern "C" void OnRequest(int signal) {
    s_requests[static_cast<size_t>(signal)].store(true, std::memory_order_relaxed);
}

void Handle(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

bool IsIgnored(int signal) {
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

void CatchStopSignals() {
    Handle(SIGINT, OnStopSignal);
    Handle(SIGTERM, OnStopSignal);
    if (!IsIgnored(SIGHUP)) {
        Handle(SIGHUP, OnStopSignal);
    }
    Handle(SIGPIPE, SIG_IGN);
}

bool StopRequested() {
    return s_stop.load(std::memory_order_relaxed);
}

void CatchRequests(int signal) {
    Handle(signal, OnRequest);
}

bool TakeRequest(int signal) {
    return s_requests[static_cast<size_t>(signal)].exchange(false, std::memory_order_relaxed);
}

}  // namespace tarnctl
