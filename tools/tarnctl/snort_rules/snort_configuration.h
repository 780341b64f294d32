#pragma once

// Which records a sensor writes, as far as the text of its configuration shows: a snort.conf of
// Snort 2 or a snort.lua of Snort 3.
//
// This is a scan of the text. It does not run Lua, and it knows nothing of the command line, of
// included files or of values that are computed; where one of these may decide, a finding says so.
//
// Threads: pure functions, but for a look at the folders.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarnctl {

enum class SensorOutputFault {
    kUnreadable,      // the configuration cannot be read
    kForeignRecords,  // alerts go out as record kinds that the daemon does not take
    kNoRecordWriter,  // no record writer is configured, or only ones that do not write unified2
    kStampedName,     // the time is put into the file's name, so the alert FIFO is never written
    kUnclear,         // the text does not show it
};

struct SensorOutputFinding {
    SensorOutputFault fault;
    std::string file;
    uint32_t line = 0;  // 0: the file as a whole
    std::string text;   // a sentence: what is wrong and what to write instead
};

// The configurations that belong to a rule file or a folder: the files whose names end in
// snort.conf or snort.lua in the folder itself, or the file's, and in the one above; or the path
// itself if it has such a name.
[[nodiscard]] std::vector<std::string> SensorConfigurationsNear(const std::string& path);

// Reads a configuration; its name says which kind it is.
[[nodiscard]] std::vector<SensorOutputFinding> ScanSensorConfiguration(const std::string& path);

// The same for texts.
[[nodiscard]] std::vector<SensorOutputFinding> ScanSnort2Configuration(const std::string& name,
                                                                       std::string_view text);
[[nodiscard]] std::vector<SensorOutputFinding> ScanSnort3Configuration(const std::string& name,
                                                                       std::string_view text);

}  // namespace tarnctl
