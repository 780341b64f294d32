#pragma once

// Every path, socket and semaphore name that the daemon shares with the world outside the program,
// and nothing else. The peers know the same names, so none of them is configurable here.
//
// Threads: constants only.

namespace tarn::paths {

inline constexpr const char* kConfigFile = "/etc/qor/tarn/tarn.conf";
inline constexpr const char* kEventConfigFile = "/etc/qor/tarn/tarn_event.conf";
inline constexpr const char* kStateFile = "/etc/qor/tarn.state";
// The instance number goes in before the dot.
inline constexpr const char* kPidFile = "/var/run/tarn.pid";
inline constexpr const char* kLogFile = "/cache/qor/tarn.log";

inline constexpr const char* kAlertFifo = "/var/cache/qor-tarn/alerts.fifo";
inline constexpr const char* kErrorFifo = "/var/cache/qor-tarn/errmsgs.fifo";
inline constexpr const char* kSnortRules = "/etc/snort/rules/snort.rules";

// Name, index and "-0" or "-1" follow.
inline constexpr const char* kEventQueueBase = "/var/tmp/EventQueue";
// Name and ".sem" follow.
inline constexpr const char* kEventQueueSemaphore = "/EventQueue";
inline constexpr const char* kCrmMessageSocket = "/etc/crm/AuxThread_crmMQ";
inline constexpr const char* kSecurityManagerSocket = "/var/tmp/.secmgrsock";
inline constexpr const char* kPacketLogSocket = "/var/run/packetLog";
inline constexpr const char* kPacketLogRing = "/var/run/packetLogData%02d";

}  // namespace tarn::paths
