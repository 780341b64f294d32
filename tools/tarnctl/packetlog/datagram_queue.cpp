#include "tarnctl/packetlog/datagram_queue.h"

#include <fstream>

namespace tarnctl {
namespace {

// From here on the daemon's send buffer, of 262142 bytes by default, is full first: it holds 228
// packets of 1514 bytes and 410 of 200.
constexpr uint32_t kEnough = 512;

}  // namespace

std::optional<uint32_t> DatagramQueueLimit(const std::string& path) {
    std::ifstream file(path);
    uint32_t limit = 0;
    return file >> limit ? std::optional(limit) : std::nullopt;
}

std::string DatagramQueueWords(std::optional<uint32_t> limit) {
    if (!limit) {
        return "how many messages the kernel holds is not known: net.unix.max_dgram_qlen cannot be "
               "read";
    }
    // The kernel counts what waits, and refuses once that is above the limit.
    std::string words = "the kernel holds " + std::to_string(uint64_t{*limit} + 1) +
                        " messages while this is busy (net.unix.max_dgram_qlen)";
    if (*limit < kEnough) {
        words += "; of a longer burst packets are lost: sysctl -w net.unix.max_dgram_qlen=" +
                 std::to_string(kEnough) + " and start this again";
    }
    return words;
}

}  // namespace tarnctl
