#include "tarnctl/common/record_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "tarnctl/common/failure_text.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/tarn_process.h"
#include "unified2/unified2_format.h"

namespace tarnctl {
namespace {

// Every type that a sensor may write, whether or not the daemon takes it.
constexpr std::array<uint32_t, 16> kKnownTypes = {1,  2,   3,   7,   66,  67,  68,  72,
                                                  99, 100, 104, 105, 110, 111, 112, 113};

// A first record that claims to be longer is no record: packets end at 64 KiB.
constexpr uint32_t kLongestFirstRecord = 1U << 20;

// Records are short, and two system calls for each would cost more than all else that is done with
// them.
constexpr size_t kBufferBytes = 1U << 18;

bool IsPlausibleFirstRecord(uint32_t type, uint32_t length) {
    return std::find(kKnownTypes.begin(), kKnownTypes.end(), type) != kKnownTypes.end() &&
           length >= unified2::FixedSize(type) && length <= kLongestFirstRecord;
}

}  // namespace

RecordFile::~RecordFile() {
    if (m_fd != -1 && m_fd != STDIN_FILENO) {
        close(m_fd);
    }
}

bool RecordFile::Open(const std::string& path) {
    const bool isInput = path == "-";
    m_path = isInput ? "standard input" : path;
    m_fd = isInput ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (m_fd == -1) {
        m_error = FailureText(path, errno);
        return false;
    }
    struct stat status = {};
    if (fstat(m_fd, &status) != 0) {
        m_error = FailureText(m_path, errno);
        return false;
    }
    m_isStream = isInput && !S_ISREG(status.st_mode);
    if (m_isStream) {
        return true;
    }
    if (!S_ISREG(status.st_mode)) {
        m_error = path + " is not a plain file; copy what it holds into one first";
        return false;
    }
    m_size = static_cast<uint64_t>(status.st_size);
    return true;
}

bool RecordFile::Rewind() {
    if (m_isStream) {
        m_isAgain = m_recordOffset == 0;
        m_error = m_isAgain ? "" : m_path + ": cannot be read twice; name a file";
        return m_isAgain;
    }
    if (lseek(m_fd, 0, SEEK_SET) != 0) {
        m_error = m_path + ": " + std::strerror(errno);
        return false;
    }
    m_position = 0;
    m_ahead = {};
    return true;
}

bool RecordFile::IsAlert() const {
    return m_type == unified2::kAlertIpv4 || m_type == unified2::kAlertIpv6;
}

int64_t RecordFile::Read(std::byte* to, size_t length) {
    size_t done = 0;
    while (done < length) {
        if (m_ahead.empty()) {
            const int64_t count = ReadAhead();
            if (count == -1) {
                return -1;
            }
            if (count == 0) {
                break;
            }
        }
        const size_t part = std::min(length - done, m_ahead.size());
        std::memcpy(to + done, m_ahead.data(), part);
        m_ahead = m_ahead.subspan(part);
        done += part;
    }
    m_position += done;
    return static_cast<int64_t>(done);
}

int64_t RecordFile::ReadAhead() {
    m_buffer.resize(kBufferBytes);
    while (true) {
        if (m_isStream && !WaitForBytes()) {
            m_isStopped = true;
            return -1;
        }
        const ssize_t count = read(m_fd, m_buffer.data(), m_buffer.size());
        if (count == -1 && errno == EINTR) {
            continue;
        }
        m_ahead = std::span(m_buffer).first(count > 0 ? static_cast<size_t>(count) : 0);
        return count;
    }
}

bool RecordFile::WaitForBytes() {
    pollfd entry = {.fd = m_fd, .events = POLLIN, .revents = 0};
    while (poll(&entry, 1, kSilentWait) <= 0) {
        if (StopRequested()) {
            return false;
        }
        if (m_tell) {
            std::exchange(m_tell, nullptr)("waiting: nothing comes on standard input");
        }
    }
    return !StopRequested();
}

RecordResult RecordFile::Fail(RecordResult result, const std::string& reason) {
    m_error = m_path + ": " + reason;
    return result;
}

RecordResult RecordFile::Next() {
    if (std::exchange(m_isAgain, false)) {
        return m_record.empty() ? RecordResult::kEnd : RecordResult::kRecord;
    }
    m_recordOffset = m_position;
    const auto at = [this] { return " at offset " + std::to_string(m_recordOffset); };

    unified2::RecordHeader header;
    m_record.resize(sizeof header);
    const int64_t headerBytes = Read(m_record.data(), m_record.size());
    if (headerBytes == -1) {
        return m_isStopped ? RecordResult::kStopped
                           : Fail(RecordResult::kFailed, std::strerror(errno));
    }
    if (headerBytes == 0) {
        m_record.clear();
        return RecordResult::kEnd;
    }
    if (headerBytes < static_cast<int64_t>(sizeof header)) {
        return Fail(RecordResult::kTruncated, "the file is truncated: the header of the record" +
                                                  at() + " has " + std::to_string(headerBytes) +
                                                  " of 8 bytes");
    }
    std::memcpy(&header, m_record.data(), sizeof header);
    m_type = header.type.HostOrder();
    const uint32_t length = header.length.HostOrder();
    if (m_recordOffset == 0 && !IsPlausibleFirstRecord(m_type, length)) {
        return Fail(RecordResult::kForeign,
                    "not a unified2 file: its first record would be of type " +
                        std::to_string(m_type) + " with " + std::to_string(length) +
                        " bytes; name a file that the sensor wrote");
    }

    // The claim is held against the file before a buffer of that size is made.
    const uint64_t left = m_isStream ? UINT32_MAX : m_size > m_position ? m_size - m_position : 0;
    int64_t payloadBytes = static_cast<int64_t>(left);
    if (length <= left && length > kLongest) {
        return Fail(RecordResult::kTooLong, "the record" + at() + " has " + std::to_string(length) +
                                                " bytes of payload, more than a pipe is made for");
    }
    if (length <= left) {
        m_record.resize(sizeof header + length);
        payloadBytes = Read(m_record.data() + sizeof header, length);
        if (payloadBytes == -1) {
            return m_isStopped ? RecordResult::kStopped
                               : Fail(RecordResult::kFailed, std::strerror(errno));
        }
    }
    if (payloadBytes < static_cast<int64_t>(length)) {
        return Fail(RecordResult::kTruncated, "the file is truncated: the record" + at() + " has " +
                                                  std::to_string(payloadBytes) + " of " +
                                                  std::to_string(length) + " bytes of payload");
    }
    return RecordResult::kRecord;
}

}  // namespace tarnctl
