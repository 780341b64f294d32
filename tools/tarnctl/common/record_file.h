#pragma once

// Reads a unified2 file record by record.
//
// A file is a plain sequence of records: type and length, both big-endian 32-bit, then `length`
// bytes. There is no magic, so the first record has to tell a unified2 file from a foreign one: a
// type that unified2 knows, and for the types that the daemon takes at least the bytes that the
// type needs. After the first record only the length is trusted to be odd: whatever is there is
// handed on, since a daemon must cope with it.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tarnctl {

enum class RecordResult {
    kRecord,     // a whole record
    kEnd,        // the file ends where a record ends
    kTruncated,  // the file ends within a record
    kForeign,    // the first record is none of unified2
    kTooLong,    // the record is longer than kLongest
    kFailed,     // the file cannot be read
    kStopped,    // StopRequested() while waiting for standard input
};

class RecordFile {
  public:
    // The longest payload, in bytes. Packets end at 64 KiB; this is what a pipe can be stretched
    // to.
    static constexpr uint32_t kLongest = 1U << 24;

    RecordFile() = default;
    ~RecordFile();
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;

    // Opens a plain file; "-" is standard input, of any kind. False with the reason in Error().
    [[nodiscard]] bool Open(const std::string& path);

    // From here on a wait for standard input of more than kSilentWait is announced to `tell`, once.
    void TellWaits(std::function<void(const std::string&)> tell) { m_tell = std::move(tell); }

    // Reads the next record. On anything but kRecord and kEnd, Error() says why, and where.
    [[nodiscard]] RecordResult Next();

    // Back to the first record. Of a stream only the first record comes back, and only while it is
    // the one that was read last. False with the reason in Error().
    [[nodiscard]] bool Rewind();

    // The record that Next() read last: its type, whether it is an alert, its place in the file,
    // and all its bytes, header included.
    [[nodiscard]] uint32_t Type() const { return m_type; }
    [[nodiscard]] bool IsAlert() const;
    [[nodiscard]] uint64_t Offset() const { return m_recordOffset; }
    [[nodiscard]] const std::vector<std::byte>& Bytes() const { return m_record; }

    [[nodiscard]] uint64_t Size() const { return m_size; }  // bytes of the file; of a stream 0
    [[nodiscard]] uint64_t Position() const { return m_position; }  // bytes of the records so far
    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    // Reads `length` bytes to `to`. Returns how many came before the end of the file, or -1.
    [[nodiscard]] int64_t Read(std::byte* to, size_t length);
    // Puts what comes next into the buffer, which must be empty. Returns the bytes, 0 at the end of
    // the file, or -1.
    [[nodiscard]] int64_t ReadAhead();
    RecordResult Fail(RecordResult result, const std::string& reason);

    // Waits until a stream has bytes. False when a stop is requested.
    [[nodiscard]] bool WaitForBytes();

    int m_fd = -1;             // owned, but for standard input
    bool m_isStream = false;   // its size is not known and it cannot be read again
    bool m_isAgain = false;    // the next record is the one that was read last
    bool m_isStopped = false;  // a stop was requested within a record
    std::function<void(const std::string&)> m_tell;
    std::string m_path;
    uint64_t m_size = 0;
    uint64_t m_position = 0;
    uint64_t m_recordOffset = 0;
    uint32_t m_type = 0;
    std::vector<std::byte> m_record;
    std::vector<std::byte> m_buffer;
    std::span<const std::byte> m_ahead;  // within m_buffer: read and not yet handed out
    std::string m_error;
};

}  // namespace tarnctl
