#include "tarnctl/common/stop_signals.h"

#include <atomic>
#include <csignal>

namespace tarnctl {
namespace {

std::atomic<bool> s_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the flag is stored by a signal handler");

extern "C" void OnStopSignal(int) {
    s_stop.store(true, std::memory_order_relaxed);
}

}  // namespace

void CatchStopSignals() {
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

bool StopRequested() {
    return s_stop.load(std::memory_order_relaxed);
}

}  // namespace tarnctl
