#include "tarnctl/health/loss_kinds.h"

#include <charconv>
#include <cstddef>

namespace tarnctl {
namespace {

// One message for each outcome: what a refused rule or a full queue makes the callers add is not
// counted a second time. A FIFO that cannot be opened is none: at the first start on a machine the
// error thread tries until its FIFO is made.
constexpr LossKind kKinds[] = {
    {"queue-full", "EventBridge event queue is full.", "alerts lost: 1024 waited already"},
    {"partial-read", "Partial event read: ", "records that came in pieces"},
    {"read-error", "Read event error, reason: ", "records whose rest had not come"},
    {"no-memory", "Unable to allocate memory: ", "records too long to be taken"},
    {"not-dispatched", "Unable to dispatch CRM events.", "reports lost: the CRM's ring was full"},
    {"dropped", "EventBridge drops ", "alerts dropped at a reload or stop", true},
    {"no-entry", "Fail to look up Snort event ", "alerts without an entry, which end the daemon"},
    {"rule-not-added", "Fail to add quarantine rule ", "quarantine rules that were not added"},
    {"rule-not-made", "Fail to construct quarantine rule string.",
     "quarantine rules that could not be made"},
    {"secmgr-unreachable", "DbtComm failed to open command channel.",
     "failed connections to the security manager"},
    {"secmgr-silent", "Timeout waiting for response.", "answers that did not come in time"},
    {"message-not-sent", "Send SNORT message failed, sleep and retry",
     "messages that the CRM did not take at once"},
    {"capture-not-sent", "Error sending control message of type ",
     "requests that the packet logging daemon did not take"},
    {"packet-unmatched", "Failed to associate alert event ",
     "packets and extra data without their alert"},
    {"fifo-failed", "Cannot create FIFO: ", "FIFOs that could not be made"},
    {"fifo-replaced", "Fatal error: ", "plain files in a FIFO's place"},
    {"queue-not-opened", "CRM communication channel cannot be opened.",
     "starts without the CRM's queue"},
    {"thread-hung", "Event thread join timeout exceeded", "event threads that did not stop"},
    {"error-thread-hung", "Error thread join timeout exceeded", "error threads that did not stop"},
    {"fault-segv", "Received SEGV signal", "ends by SIGSEGV"},
    {"fault-bus", "Received BUS signal", "ends by SIGBUS"},
    {"fault-fpe", "Received FPE signal", "ends by SIGFPE"},
    {"fault-ill", "Received ILL signal", "ends by SIGILL"},
};

}  // namespace

std::span<const LossKind> LossKinds() {
    return kKinds;
}

int LossKindOf(std::string_view message) {
    for (size_t place = 0; place < std::size(kKinds); ++place) {
        if (message.starts_with(kKinds[place].beginning)) {
            return static_cast<int>(place);
        }
    }
    return -1;
}

uint64_t LossesOf(const LossKind& kind, std::string_view message) {
    uint64_t count = 1;
    if (kind.isCounted) {
        const std::string_view rest = message.substr(std::string_view(kind.beginning).size());
        const auto result = std::from_chars(rest.data(), rest.data() + rest.size(), count);
        if (result.ec != std::errc()) {
            return 1;
        }
    }
    return count;
}

}  // namespace tarnctl
