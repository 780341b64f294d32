#include "logging/log_guards.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

using log_signals::kHeldBack;
using log_signals::t_inside;

namespace {

constexpr uint32_t BitOf(size_t index) {
    return uint32_t{1} << index;
}

}  // namespace

bool HoldBack(int signal, const siginfo_t* info) {
    if (t_inside.depth.load(std::memory_order_relaxed) == 0) {
        return false;
    }
    const auto* const place = std::find(kHeldBack.begin(), kHeldBack.end(), signal);
    if (place == kHeldBack.end()) {
        return false;
    }
    const auto index = static_cast<size_t>(place - kHeldBack.begin());
    if ((t_inside.kept.load(std::memory_order_relaxed) & BitOf(index)) != 0) {
        return true;
    }
    t_inside.details[index] = info != nullptr ? *info : siginfo_t{};
    // Nothing is sent before the thread leaves the log, and so not before the details are there.
    t_inside.kept.fetch_or(BitOf(index), std::memory_order_relaxed);
    return true;
}

void log_signals::SendKept() {
    for (size_t index = 0; index < kHeldBack.size(); ++index) {
        siginfo_t details = t_inside.details[index];
        // The handler of another signal may have logged, and sent this one already.
        const uint32_t kept = t_inside.kept.fetch_and(~BitOf(index), std::memory_order_relaxed);
        if ((kept & BitOf(index)) != 0) {
            // To oneself any details may be sent, and a standard signal always arrives.
            (void)syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), kHeldBack[index], &details);
        }
    }
}
