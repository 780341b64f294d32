#include "tarnctl/feed/spool_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "tarnctl/common/failure_text.h"
#include "unified2/unified2_format.h"

namespace tarnctl {
namespace {

constexpr size_t kBufferBytes = 1U << 18;

std::string Hex(std::span<const std::byte> bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const std::byte byte : bytes) {
        const auto value = std::to_integer<unsigned>(byte);
        text += kDigits[value / 16];
        text += kDigits[value % 16];
    }
    return text;
}

// At most `length` bytes from the start of the file, in hex.
std::string ReadHead(int fd, size_t length) {
    std::array<std::byte, SpoolFile::kHeadBytes> bytes = {};
    const ssize_t count = pread(fd, bytes.data(), std::min(length, bytes.size()), 0);
    return count > 0 ? Hex(std::span(bytes).first(static_cast<size_t>(count))) : "";
}

}  // namespace

SpoolFile::~SpoolFile() {
    Close();
}

void SpoolFile::Close() {
    if (m_fd != -1) {
        close(m_fd);
        m_fd = -1;
    }
}

std::string SpoolFile::Open(const std::string& path) {
    Close();
    m_path = path;
    m_head.clear();
    GoTo(0);
    m_bufferLength = 0;
    // Not blocking, since the open of a FIFO of that name would wait for its writer.
    m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (m_fd == -1) {
        return FailureText(path, errno);
    }
    struct stat status = {};
    if (fstat(m_fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        Close();
        return path + ": not a plain file";
    }
    m_device = status.st_dev;
    m_inode = status.st_ino;
    m_head = ReadHead(m_fd, kHeadBytes);
    return "";
}

void SpoolFile::GoTo(uint64_t offset) {
    m_offset = offset;
    m_record = {};
}

uint64_t SpoolFile::Size() const {
    struct stat status = {};
    return m_fd != -1 && fstat(m_fd, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

std::string SpoolFile::HeadOf(const std::string& path, const std::string& like) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd == -1) {
        return "";
    }
    std::string head = ReadHead(fd, like.size() / 2);
    close(fd);
    return head;
}

bool SpoolFile::IsStillSame() {
    if (Size() < m_offset) {
        return false;
    }
    const std::string head = ReadHead(m_fd, kHeadBytes);
    if (head.compare(0, m_head.size(), m_head) != 0) {
        return false;
    }
    m_head = head;
    return true;
}

bool SpoolFile::Have(size_t length) {
    const uint64_t end = m_bufferStart + m_bufferLength;
    if (m_offset >= m_bufferStart && m_offset + length <= end) {
        return true;
    }
    // What is there already of this record moves to the front.
    size_t kept = 0;
    if (m_offset >= m_bufferStart && m_offset < end) {
        kept = static_cast<size_t>(end - m_offset);
        std::memmove(m_buffer.data(), m_buffer.data() + (m_offset - m_bufferStart), kept);
    }
    m_bufferStart = m_offset;
    m_bufferLength = kept;
    m_buffer.resize(std::max(length, kBufferBytes));
    while (m_bufferLength < length) {
        const ssize_t count =
            pread(m_fd, m_buffer.data() + m_bufferLength, m_buffer.size() - m_bufferLength,
                  static_cast<off_t>(m_bufferStart + m_bufferLength));
        if (count == -1 && errno == EINTR) {
            continue;
        }
        m_readError = count == -1 ? errno : 0;
        if (count <= 0) {
            return false;
        }
        m_bufferLength += static_cast<size_t>(count);
    }
    return true;
}

SpoolFile::Result SpoolFile::EndOr(size_t there) {
    if (m_readError != 0) {
        m_error = FailureText(m_path, m_readError);
        return Result::kFailed;
    }
    if (!IsStillSame()) {
        return Result::kAnew;
    }
    return there == 0 ? Result::kEnd : Result::kPartial;
}

SpoolFile::Result SpoolFile::Peek() {
    unified2::RecordHeader header;
    m_record = {};
    if (!Have(sizeof header)) {
        return EndOr(m_bufferLength);
    }
    std::memcpy(&header, m_buffer.data() + (m_offset - m_bufferStart), sizeof header);
    const uint32_t length = header.length.HostOrder();
    if (length > kLongest) {
        return IsStillSame() ? Result::kDamaged : Result::kAnew;
    }
    if (!Have(sizeof header + length)) {
        return EndOr(m_bufferLength);
    }
    m_type = header.type.HostOrder();
    m_record = std::span<const std::byte>(m_buffer.data() + (m_offset - m_bufferStart),
                                          sizeof header + length);
    return Result::kRecord;
}

void SpoolFile::Pass() {
    m_offset += m_record.size();
    m_record = {};
}

}  // namespace tarnctl
