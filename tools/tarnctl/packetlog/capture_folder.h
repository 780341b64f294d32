#pragma once

// The folder of the capture files: which files in it are capture files, and how they are named.
//
// all.pcap is the file that every packet goes into, event-ID.pcap the one of an event; all.1.pcap
// is the one before it, all.2.pcap the one before that, and so on. The suffix is the format's.
// Whatever has another name, or is no plain file, belongs to somebody else.
//
// Threads: pure functions, but for a look at the folder.

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tarnctl/packetlog/capture_bytes.h"

namespace tarnctl {

struct CaptureName {
    std::optional<uint32_t> event;  // none: all packets
    CaptureFormat format = CaptureFormat::kPcap;
    uint32_t age = 0;  // 0: the newest

    friend bool operator==(const CaptureName&, const CaptureName&) = default;
    // By event, format and age.
    friend bool operator<(const CaptureName& a, const CaptureName& b) {
        return std::tie(a.event, a.format, a.age) < std::tie(b.event, b.format, b.age);
    }

    [[nodiscard]] std::string Text() const;
    // Nothing for a text that Text() does not give.
    [[nodiscard]] static std::optional<CaptureName> From(std::string_view text);
};

struct KeptCapture {
    CaptureName name;
    uint64_t bytes = 0;
    time_t changed = 0;  // when it was written to last, by the clock of that time
};

// The capture files of a folder, in no order. Nothing, with errno, when the folder cannot be read.
[[nodiscard]] std::optional<std::vector<KeptCapture>> CapturesIn(const std::string& directory);

}  // namespace tarnctl
