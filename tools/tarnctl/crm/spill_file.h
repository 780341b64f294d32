#pragma once

// Where lines wait for a sink that is away: a file of bounded size, first in, first out.
//
// The file is a header and a ring of bytes. Lines are put behind the write position and taken at
// the read position, and either is stored when the bytes are where they belong. So a process that
// is killed leaves a whole file; the next one goes on with what waits there. A line that finds no
// room is lost and counted.
//
// Threads: one at a time. A lock on the file keeps two processes apart.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarnctl {

class SpillFile {
  public:
    // `limit` is the most bytes of lines that wait.
    SpillFile(std::string path, uint64_t limit);
    ~SpillFile();
    SpillFile(const SpillFile&) = delete;
    SpillFile& operator=(const SpillFile&) = delete;

    // Opens or makes the file. One in which lines wait keeps the limit that it was made with.
    // Returns an empty text or a reason.
    [[nodiscard]] std::string Open();

    // Keeps lines, each with its line end, and counts as lost those that find no room. False when
    // the file cannot be written: then none of them is kept or lost, and Error() says why.
    [[nodiscard]] bool Append(std::string_view lines);

    // The lines that have waited longest; empty when none waits, or when the file cannot be read,
    // for which Error() has the reason. Valid until the next call of another operation.
    [[nodiscard]] std::string_view Front();
    // So many bytes of whole lines at the front wait no longer.
    void Take(size_t bytes);

    [[nodiscard]] const std::string& Path() const { return m_path; }
    [[nodiscard]] bool IsEmpty() const { return m_head.readAt == m_head.writeAt; }
    [[nodiscard]] uint64_t Waiting() const { return m_head.waiting; }  // lines
    [[nodiscard]] uint64_t Lost() const { return m_head.lost; }        // lines, since it was made
    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    friend std::optional<uint64_t> WaitingInSpillFile(const std::string& path);

    // The front of the file, in host byte order.
    struct Head {
        char magic[8];
        uint64_t limit;  // bytes of the ring
        uint64_t
            readAt;  // bytes taken since the file was empty; modulo the limit: where in the ring
        uint64_t writeAt;  // bytes put in, likewise
        uint64_t waiting;  // lines
        uint64_t lost;     // lines
    };

    // Reads the front of a file. False when it is no spill file.
    [[nodiscard]] static bool ReadHead(int fd, Head& head);
    [[nodiscard]] bool WriteHead();
    [[nodiscard]] bool WriteBytes(uint64_t position, std::string_view bytes);
    [[nodiscard]] bool ReadBytes(uint64_t position, std::string& bytes);

    const std::string m_path;
    const uint64_t m_wantedLimit;
    int m_fd = -1;  // owned
    Head m_head = {};
    std::string m_front;  // what Front() has read and nobody has taken
    std::string m_error;
};

// How many lines wait in the file, which is left alone. None when it is no spill file, cannot be
// read, or is in use.
[[nodiscard]] std::optional<uint64_t> WaitingInSpillFile(const std::string& path);

}  // namespace tarnctl
