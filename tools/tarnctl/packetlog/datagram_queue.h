#pragma once

// How many datagrams the kernel holds for a receiver that is busy, and what that means for packets.
//
// Threads: pure functions, but for the look at the setting.

#include <cstdint>
#include <optional>
#include <string>

namespace tarnctl {

// The setting in the file, which is of the network namespace that this process is in. A socket gets
// it when it is made. Nothing where it cannot be read.
[[nodiscard]] std::optional<uint32_t> DatagramQueueLimit(
    const std::string& path = "/proc/sys/net/unix/max_dgram_qlen");

// What burst a queue with this limit holds, and what to do about a short one.
[[nodiscard]] std::string DatagramQueueWords(std::optional<uint32_t> limit);

}  // namespace tarnctl
