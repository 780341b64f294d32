#include "tarnctl/secmgr/table_signal.h"

#include <atomic>
#include <csignal>

namespace tarnctl {
namespace {

std::atomic<bool> s_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the flag is stored by a signal handler");

extern "C" void OnTableSignal(int) {
    s_requested.store(true, std::memory_order_relaxed);
}

}  // namespace

void CatchTableSignal() {
    struct sigaction action = {};
    action.sa_handler = OnTableSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, nullptr);
}

bool TakeTableRequest() {
    return s_requested.exchange(false, std::memory_order_relaxed);
}

}  // namespace tarnctl
