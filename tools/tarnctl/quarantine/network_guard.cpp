#include "tarnctl/quarantine/network_guard.h"

#include <unistd.h>

#include <array>
#include <cstdlib>

namespace tarnctl {
namespace {

constexpr const char* kSandboxVariable = "TARN_SANDBOX";
constexpr const char* kOutsideVariable = "TARN_SANDBOX_OUTSIDE_NETWORK";  // set by scripts/sandbox

}  // namespace

std::string ThisNetwork() {
    std::array<char, 64> name = {};
    const ssize_t length = readlink("/proc/self/ns/net", name.data(), name.size());
    return {name.data(), length < 0 ? 0 : static_cast<size_t>(length)};
}

// A namespace of its own may also have been made within the sandbox, so the two names are compared
// instead of how the sandbox was called.
std::string ObjectionToThisNetwork() {
    const char* const outside = std::getenv(kOutsideVariable);
    if (std::getenv(kSandboxVariable) == nullptr) {
        return "";
    }
    const std::string network = ThisNetwork();
    if (outside != nullptr && *outside != '\0' && !network.empty() && network != outside) {
        return "";
    }
    return "this sandbox has the network of the machine; call scripts/sandbox with --net to cut off "
           "traffic in it";
}

}  // namespace tarnctl
