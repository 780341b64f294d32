#pragma once

// The records of all spool files of one prefix, one after the other.
//
// A file is left when a newer one is there and all of it has been read. A record of which the tail
// is missing is waited for; the sensor that begins a newer file has given it up, and after a while
// so does the reader. What had to be given up is told and counted, never passed over in silence.
//
// Threads: one at a time.

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "tarnctl/feed/spool_file.h"
#include "tarnctl/feed/spool_folder.h"

namespace tarnctl {

struct SpoolCounts {
    uint64_t files = 0;     // opened
    uint64_t cut = 0;       // records whose tail never came
    uint64_t anew = 0;      // files that were cut or written anew while they were read
    uint64_t vanished = 0;  // files that were gone before all of them was read
    uint64_t damaged = 0;   // files in which no next record can be found
};

// A place in the order in which this process reads.
struct SpoolPosition {
    uint64_t file = 0;  // counts the files that were opened
    uint64_t offset = 0;

    bool operator==(const SpoolPosition&) const = default;
    bool operator<(const SpoolPosition& other) const {
        return file != other.file ? file < other.file : offset < other.offset;
    }
};

class SpoolReader {
  public:
    using Clock = std::chrono::steady_clock;
    using Teller = std::function<void(const std::string&)>;

    enum class State {
        kRecord,   // a whole record
        kPartial,  // a record of which only a part is there
        kEnd,      // all that is there has been read
    };

    // How long the tail of a record is waited for once a newer file is there.
    static constexpr std::chrono::milliseconds kTailPatience{2000};
    // How often the folder is looked through for a newer file.
    static constexpr std::chrono::milliseconds kLookInterval{50};

    SpoolReader(const std::string& prefix, Teller tell);

    // Goes on at this place, or at the oldest file's first record.
    void Begin(const std::optional<SpoolPlace>& place);

    // Looks at the next record, which stays the next one until Pass().
    [[nodiscard]] State Peek(Clock::time_point now);
    [[nodiscard]] uint32_t Type() const { return m_file.Type(); }
    [[nodiscard]] std::span<const std::byte> Bytes() const { return m_file.Bytes(); }
    void Pass() { m_file.Pass(); }

    // Where the next record begins, and the file of a position from Oldest() on.
    [[nodiscard]] SpoolPosition Here() const { return {m_number, m_file.Offset()}; }
    [[nodiscard]] std::optional<SpoolPlace> PlaceOf(const SpoolPosition& position) const;
    // Positions before this one will not be asked for any more.
    void Forget(const SpoolPosition& position);

    // True while the tail of a record is waited for that the sensor has probably given up.
    [[nodiscard]] bool IsWaitingForTail() const { return m_tailSince != Clock::time_point(); }
    [[nodiscard]] const SpoolCounts& Counts() const { return m_counts; }
    [[nodiscard]] SpoolFolder& Folder() { return m_folder; }
    [[nodiscard]] const std::string& FileName() const { return m_entry.name; }
    [[nodiscard]] uint64_t FileSize() const { return m_file.Size(); }

  private:
    struct Known {
        uint64_t number = 0;
        SpoolPlace place;  // with offset 0
    };

    void BeginAfter(const SpoolPlace& place);
    // The file after the present one, if there is one.
    [[nodiscard]] std::optional<SpoolEntry> Newer();
    bool OpenEntry(const SpoolEntry& entry, uint64_t offset);
    void OpenAnew();
    // Goes on with a newer file if there is one. `lost` counts what is given up, and is told.
    bool MoveOn(uint64_t* lost, const std::string& what);
    State AtEnd(SpoolFile::Result result, Clock::time_point now);
    void TellOnce(const std::string& text);

    SpoolFolder m_folder;
    Teller m_tell;
    SpoolFile m_file;
    SpoolEntry m_entry;  // of m_file, or the last one
    bool m_hasEntry = false;
    uint64_t m_seenStamp = 0;   // the newest one as the present file was opened
    uint64_t m_number = 0;      // of the present file
    std::deque<Known> m_known;  // the present file and those before it that are still asked for
    Clock::time_point m_nextLook;
    Clock::time_point m_tailSince;  // when the newer file was seen; the epoch: not yet
    uint64_t m_tailSize = 0;        // of the file, then
    SpoolCounts m_counts;
    std::string m_told;
};

}  // namespace tarnctl
