#pragma once

// Gives a record another time, as if the sensor had written it then.
//
// Threads: pure functions.

#include <cstddef>
#include <cstdint>
#include <span>

namespace tarnctl {

struct RecordTime {
    uint32_t second = 0;  // since the epoch
    uint32_t microsecond = 0;
};

// Stores the time in every field of a whole record, header included, that holds one: of an event
// its seconds and microseconds, of a packet those of its event and of its capture, of extra data
// the seconds of its event. Fields beyond the end of the record, and records of other types, stay
// as they are.
void SetRecordTime(uint32_t type, const RecordTime& time, std::span<std::byte> record);

}  // namespace tarnctl
