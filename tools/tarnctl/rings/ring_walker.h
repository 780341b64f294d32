#pragma once

// Looks at a ring file while its two sides run, and takes nothing.
//
// The daemon's own reader moves the read index with each message, and even its opening stores a
// word. This one maps the file for reading only and walks from the read index to the write index.
// It delivers copies, each of them whole: a message that the reader takes while it is copied is not
// delivered. The format is docs/formats/shm_ring.md.
//
// The two sides may move at any time, and may run through the ring any number of times between two
// calls. Before a walk goes on at a place that it remembers, it makes sure that a message still
// begins there. One thing cannot be seen: a ring that has gone round once or more, and whose
// messages begin at the same places as before. The walk then goes on with the messages of today.
//
// Nothing in the file is trusted, and nothing outside the mapping is read. A process that shortens
// the file under the mapping ends this one by a bus error, as it would end both sides; IsCurrent()
// tells of a file that has changed before that.
//
// Threads: one at a time per object. The words of the ring are read as atomics with acquire, so
// that no load of a message moves behind the load of the index that makes it valid.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "ring/shm_ring_format.h"

namespace tarnctl {

// The head of a ring at one moment.
struct RingLook {
    uint32_t size = 0;         // bytes of the ring
    uint32_t readWord = 0;     // the read index as it is in the file, which may be any number
    uint32_t writeWord = 0;    // the write index, likewise
    uint32_t readIndex = 0;    // ring offset that a side makes of it: a multiple of 4 below size
    uint32_t writeIndex = 0;   // likewise
    uint32_t used = 0;         // bytes of unread messages, length words and padding included
    uint32_t firstLength = 0;  // the length word at the read index; of no meaning when used is 0
};

enum class WalkResult {
    kMessage,    // Body() is the next message
    kEnd,        // no message waits here; a later call finds what has come by then
    kOvertaken,  // the reader has taken what came next; the walk goes on at the read index
    kHole,       // the length word is 0 where a message should begin; no walk gets past it. For a
                 // moment this is so while the reader takes the message, too
    kTooLong,    // the length word reaches past the write index; no walk gets past it
};

// The bytes from the start of a message's body up to the write index.
class RingBytes {
  public:
    RingBytes(const std::byte* ring, uint32_t ringSize, uint32_t at, uint32_t size)
        : m_ring(ring), m_ringSize(ringSize), m_at(at), m_size(size) {}

    [[nodiscard]] uint32_t Size() const { return m_size; }
    // Copies to.size() bytes from `offset` on. False when they are not all within Size().
    [[nodiscard]] bool Copy(uint32_t offset, std::span<std::byte> to) const;

  private:
    const std::byte* m_ring;  // borrowed; ring offset 0
    uint32_t m_ringSize;      // bytes
    uint32_t m_at;            // ring offset of the body
    uint32_t m_size;          // bytes
};

// Says how long a message is from its own form, without the length word; nothing when the bytes do
// not begin with such a message. The bytes may change while it looks.
using MessageLength = std::function<std::optional<uint32_t>(const RingBytes& body)>;

// What CountFrom() found.
struct RingCount {
    uint64_t messages = 0;  // whole messages from the start on
    uint32_t end = 0;       // ring offset after the last of them: where the next count begins
    bool isWhole = false;  // the end is the write index; else the start is lost, or damage is ahead
};

class RingWalker {
  public:
    RingWalker() = default;
    ~RingWalker();
    RingWalker(const RingWalker&) = delete;
    RingWalker& operator=(const RingWalker&) = delete;

    // Maps the file, in place of one that was mapped before. False with the reason in Error(). The
    // walk begins at the read index.
    [[nodiscard]] bool Open(const std::string& path);

    // Whether the path still names the file that is mapped, at the size that it had.
    [[nodiscard]] bool IsCurrent() const;

    [[nodiscard]] RingLook Look() const;

    // The next message of the walk. After kEnd, kHole and kTooLong a further call looks again at
    // the same place.
    [[nodiscard]] WalkResult Next();
    // A copy of the message that Next() delivered last; until the next call.
    [[nodiscard]] std::span<const std::byte> Body() const { return m_body; }
    // Ring offset of the next message, and of the one that Next() delivered last.
    [[nodiscard]] uint32_t At() const { return m_at; }
    [[nodiscard]] uint32_t BodyAt() const { return m_bodyAt; }
    // The length word at At(), whatever it is.
    [[nodiscard]] uint32_t LengthWord() const { return m_map != nullptr ? WordAt(m_at) : 0; }
    // The walk begins anew at the present read index.
    void Restart();

    // Counts the messages from a ring offset, at which a message began or was to begin, to the
    // present write index: those that wait, and those that a reader has taken since. A reader
    // zeroes the length word of what it takes, so that `lengthOf` has to say how long that was.
    [[nodiscard]] RingCount CountFrom(uint32_t start, const MessageLength& lengthOf) const;

    // The message at a ring offset without its length word, up to the present write index.
    [[nodiscard]] RingBytes BytesAt(uint32_t at) const;

    [[nodiscard]] const std::string& Path() const { return m_path; }
    [[nodiscard]] uint64_t FileSize() const { return m_fileSize; }  // bytes
    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    void Unmap();
    [[nodiscard]] uint32_t WordAt(uint32_t at) const;
    [[nodiscard]] uint32_t ReadWord() const;
    [[nodiscard]] uint32_t Adopt(uint32_t index) const;
    [[nodiscard]] uint32_t Distance(uint32_t from, uint32_t to) const;
    [[nodiscard]] uint32_t After(uint32_t at, uint32_t length) const;
    [[nodiscard]] bool IsOnItsWay(const RingLook& look) const;
    [[nodiscard]] bool LeadsTo(uint32_t from, uint32_t target) const;
    [[nodiscard]] WalkResult Overtaken();
    void CopyBody(uint32_t at, uint32_t length);
    [[nodiscard]] bool IsStillThere(uint32_t at, uint32_t length) const;

    std::string m_path;
    std::byte* m_map = nullptr;  // owned; mapped for reading only
    uint64_t m_fileSize = 0;     // bytes
    uint64_t m_device = 0;       // with m_inode: which file is mapped
    uint64_t m_inode = 0;
    uint32_t m_size = 0;    // bytes of the ring
    uint32_t m_at = 0;      // ring offset at which the walk goes on
    uint32_t m_bodyAt = 0;  // ring offset of the message in m_body; m_at when there is none
    std::vector<std::byte> m_body;
    std::string m_error;
};

}  // namespace tarnctl
