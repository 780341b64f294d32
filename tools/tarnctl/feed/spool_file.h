#pragma once

// One spool file of the sensor, which may still be written to.
//
// The sensor writes a record in pieces, so the end of the file is no fault: a record of which only
// a part is there is one to wait for. A file that is shorter than what has been read of it, or that
// begins with other bytes than before, has been written anew in its place.
//
// Threads: one at a time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tarnctl {

// A file that is known again under another name, and a place in it.
struct SpoolPlace {
    std::string name;  // without its folder
    uint64_t device = 0;
    uint64_t inode = 0;
    uint64_t offset = 0;  // where a record begins
    std::string head;     // the first bytes in hex: an inode number is used again by a later file

    bool operator==(const SpoolPlace&) const = default;
};

class SpoolFile {
  public:
    enum class Result {
        kRecord,   // a whole record
        kEnd,      // the file ends where a record ends
        kPartial,  // the file ends within a record
        kDamaged,  // no record can be this long, so that there is no next one to be found either
        kAnew,     // the file has been cut or written anew
        kFailed,   // it cannot be read; Error() says why
    };

    // The longest payload, in bytes: what a pipe can be stretched to.
    static constexpr uint32_t kLongest = 1U << 24;
    // The bytes by which a file is known again.
    static constexpr size_t kHeadBytes = 32;

    SpoolFile() = default;
    ~SpoolFile();
    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;

    // Opens a plain file at its first record. An empty text, or the reason.
    [[nodiscard]] std::string Open(const std::string& path);
    // Goes on at this offset, where a record begins.
    void GoTo(uint64_t offset);
    void Close();

    // Looks at the record at the present place, which stays there until Pass().
    [[nodiscard]] Result Peek();
    // The record of a Peek() that found one. The bytes, header included, stay until the next Peek.
    [[nodiscard]] uint32_t Type() const { return m_type; }
    [[nodiscard]] std::span<const std::byte> Bytes() const { return m_record; }
    void Pass();

    [[nodiscard]] bool IsOpen() const { return m_fd != -1; }
    [[nodiscard]] uint64_t Offset() const { return m_offset; }
    [[nodiscard]] uint64_t Device() const { return m_device; }
    [[nodiscard]] uint64_t Inode() const { return m_inode; }
    [[nodiscard]] uint64_t Size() const;  // bytes now
    // The first bytes in hex, fewer while the file is shorter.
    [[nodiscard]] const std::string& Head() const { return m_head; }
    [[nodiscard]] const std::string& Error() const { return m_error; }

    // The head of the file at a path, in hex; at most as many bytes as `like` has.
    [[nodiscard]] static std::string HeadOf(const std::string& path, const std::string& like);

  private:
    // Makes `length` bytes from the present place on stand in the buffer. False if they are not
    // there.
    [[nodiscard]] bool Have(size_t length);
    // False when the file is no longer the one that was read.
    [[nodiscard]] bool IsStillSame();
    Result EndOr(size_t there);

    int m_fd = -1;  // owned
    std::string m_path;
    uint64_t m_device = 0;
    uint64_t m_inode = 0;
    uint64_t m_offset = 0;  // of the present record
    std::string m_head;     // in hex
    std::vector<std::byte> m_buffer;
    uint64_t m_bufferStart = 0;  // offset in the file of its first byte
    size_t m_bufferLength = 0;
    uint32_t m_type = 0;
    std::span<const std::byte> m_record;  // within m_buffer
    int m_readError = 0;                  // errno
    std::string m_error;
};

}  // namespace tarnctl
