#pragma once

// Sees which reports the daemon has published, without taking any.
//
// A published report is one that the ring's write index has passed. A reader that has taken it
// leaves its bytes in place and clears only its length word, so a report can still be read until
// the daemon has written once round the ring: its length then follows from its own chunks. The
// feeder lets no more alerts under way than the ring has room for, so the daemon cannot come round
// between two looks as long as nobody else feeds it. Where the bytes at the present place are no
// report, somebody has come between; the place is then given up and the watch goes on at the write
// index.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <string>

#include "tarnctl/feed/alert_key.h"
#include "tarnctl/rings/ring_walker.h"

namespace tarnctl {

// A place in one ring file.
struct RingMark {
    uint64_t device = 0;
    uint64_t inode = 0;
    uint32_t index = 0;  // ring offset of the first report that has not been seen

    bool operator==(const RingMark&) const = default;
};

class ReportWatch {
  public:
    enum class Look {
        kReport,   // one report, whose key was stored
        kNothing,  // all that is published has been seen
        kUnsure,   // no report could be read; what was published meanwhile is not known
    };

    explicit ReportWatch(std::string path);

    // Maps the ring. What is published before is not looked at. An empty text, or the reason.
    [[nodiscard]] std::string Attach();
    // Goes on at a place from an earlier Place(). False when that was in another file.
    [[nodiscard]] bool GoTo(const RingMark& place);

    [[nodiscard]] Look Next(AlertKey& key);

    [[nodiscard]] bool IsAttached() const { return m_isAttached; }
    // True when the path names another file than the mapped one, or none.
    [[nodiscard]] bool IsReplaced() const;
    [[nodiscard]] RingMark Place() const { return {m_device, m_inode, m_at}; }
    [[nodiscard]] uint32_t WriteIndex() const;
    // Bytes of the ring, and those of them that unread reports do not take.
    [[nodiscard]] uint32_t Size() const { return m_size; }
    [[nodiscard]] uint32_t Free() const;
    [[nodiscard]] const std::string& Path() const { return m_path; }

  private:
    const std::string m_path;
    RingWalker m_ring;
    bool m_isAttached = false;
    uint64_t m_device = 0;
    uint64_t m_inode = 0;
    uint32_t m_size = 0;  // bytes of the ring
    uint32_t m_at = 0;    // ring offset of the first report that has not been seen
};

}  // namespace tarnctl
