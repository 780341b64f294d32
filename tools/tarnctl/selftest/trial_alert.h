#pragma once

// The alerts that a self-test sends, and the configuration that goes with them.
//
// Threads: pure functions.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarnctl {

// One alert of TCP between two addresses that are reserved for documents, so that nothing that is
// made of it names a real host.
struct TrialAlert {
    uint32_t signature = 0;
    uint32_t eventId = 0;
    uint32_t time = 0;  // in seconds since the epoch
    uint16_t mark = 0;  // the source port, by which the alert is known again
    bool hasPacket = false;
};

inline constexpr uint32_t kTrialSource = 0xC0000201;       // 192.0.2.1
inline constexpr uint32_t kTrialDestination = 0xC6336402;  // 198.51.100.2
inline constexpr uint16_t kTrialPort = 80;

// The records of an alert, as the sensor writes them: the alert, and its packet where it has one.
[[nodiscard]] std::vector<std::vector<std::byte>> RecordsOf(const TrialAlert& alert);

// The signatures of the three ways out.
inline constexpr uint32_t kReportSignature = 4000001;
inline constexpr uint32_t kQuarantineSignature = 4000002;
inline constexpr uint32_t kCaptureSignature = 4000003;

// tarn.conf and tarn_event.conf of a daemon that is tried in the sandbox.
[[nodiscard]] std::string TrialConfig();
[[nodiscard]] std::string TrialEvents();

// A line as Snort writes it to its standard error, and what it is known by.
inline constexpr const char* kTrialError = "ERROR: tarnctl selftest asks whether this arrives\n";
inline constexpr const char* kTrialErrorMark = "tarnctl selftest asks";

}  // namespace tarnctl
