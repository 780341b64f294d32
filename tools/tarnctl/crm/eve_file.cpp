#include "tarnctl/crm/eve_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

constexpr mode_t kFileMode = 0640;

// What every line of this program begins with.
constexpr std::string_view kLineStart = R"({"timestamp":")";

// Looks backwards for the end of the last whole line of a file of `size` bytes. Returns the offset
// after it, or -1 with errno.
off_t EndOfLastLine(int fd, off_t size) {
    std::array<char, 65536> bytes;
    off_t end = size;
    while (end > 0) {
        const auto length = std::min<off_t>(end, bytes.size());
        const ssize_t count = pread(fd, bytes.data(), static_cast<size_t>(length), end - length);
        if (count != length) {
            errno = count == -1 ? errno : EIO;
            return -1;
        }
        const std::string_view text(bytes.data(), static_cast<size_t>(length));
        const size_t at = text.rfind('\n');
        if (at != std::string_view::npos) {
            return end - length + static_cast<off_t>(at) + 1;
        }
        end -= length;
    }
    return 0;
}

// Whether the bytes from `offset` on may be the front of a line of this program.
bool IsOwnLine(int fd, off_t offset) {
    std::array<char, kLineStart.size()> bytes = {};
    const ssize_t count = pread(fd, bytes.data(), bytes.size(), offset);
    return count > 0 &&
           kLineStart.starts_with(std::string_view(bytes.data(), static_cast<size_t>(count)));
}

}  // namespace

EveFile::EveFile(const std::string& path) : ReportSink("eve", path) {}

EveFile::~EveFile() {
    CloseFile();
}

void EveFile::CloseFile() {
    if (m_fd != -1 && !IsStandardOutput()) {
        close(m_fd);
    }
    m_fd = -1;
    m_sent = 0;
}

// What the file needs before it can be appended to: an end of its last line. Half a line of this
// program is cut off, since its report comes again; anything else is left, and a line begins after
// it. Returns an empty text or a reason.
std::string EveFile::MendEnd() const {
    struct stat status = {};
    off_t end = 0;
    if (fstat(m_fd, &status) != 0 || (end = EndOfLastLine(m_fd, status.st_size)) == -1) {
        return FailureText(Target(), errno);
    }
    if (end == status.st_size) {
        return "";
    }
    const bool isMended =
        IsOwnLine(m_fd, end) ? ftruncate(m_fd, end) == 0 : write(m_fd, "\n", 1) == 1;
    return isMended ? "" : FailureText(Target(), errno);
}

// Returns 0 or an errno, and EIO with a reason in Error() where the end of the file is not to be
// had.
int EveFile::OpenFile() {
    // A FIFO that nobody reads would hold a plain open for ever, and one opened to read as well
    // would never tell that its reader has gone. Only a plain file's end is read.
    struct stat status = {};
    const bool mayRead = stat(Target().c_str(), &status) != 0 || S_ISREG(status.st_mode);
    m_fd = open(Target().c_str(),
                (mayRead ? O_RDWR : O_WRONLY) | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK,
                kFileMode);
    if (m_fd == -1 || fstat(m_fd, &status) != 0) {
        const int error = errno;
        CloseFile();
        SetAway(error == ENXIO ? Target() + ": nobody reads it" : FailureText(Target(), error));
        return error;
    }
    m_isPlain = S_ISREG(status.st_mode);
    const std::string reason = m_isPlain ? MendEnd() : "";
    if (!reason.empty()) {
        CloseFile();
        SetAway(reason);
        return EIO;
    }
    return 0;
}

std::string EveFile::Open() {
    if (!IsStandardOutput()) {
        const int error = OpenFile();
        return error == 0 || error == ENXIO ? "" : Error();
    }
    m_fd = STDOUT_FILENO;
    struct stat status = {};
    m_isPlain = fstat(m_fd, &status) == 0 && S_ISREG(status.st_mode);
    return "";
}

// Writes until all is out, nothing goes for as long as kPatience, or a signal or a failure comes,
// whose errno is in `error`. Returns the bytes written. Standard output may be a pipe that blocks;
// one that has room takes PIPE_BUF bytes at once.
size_t EveFile::Write(std::string_view text, int& error) const {
    const size_t most = m_isPlain ? text.size() : PIPE_BUF;
    size_t done = 0;
    while (done < text.size()) {
        pollfd entry = {.fd = m_fd, .events = POLLOUT, .revents = 0};
        if (!m_isPlain && poll(&entry, 1, static_cast<int>(kPatience.count())) != 1) {
            break;
        }
        const ssize_t count = write(m_fd, text.data() + done, std::min(most, text.size() - done));
        if (count == -1) {
            error = errno == EAGAIN || errno == EINTR ? 0 : errno;
            break;
        }
        done += static_cast<size_t>(count);
    }
    return done;
}

void EveFile::Fail(int error) {
    if (error == EPIPE && IsStandardOutput()) {
        m_isOver = true;
        return;
    }
    SetAway(error == EPIPE ? Target() + ": nobody reads it" : FailureText(Target(), error));
    if (!IsStandardOutput()) {
        CloseFile();
    }
}

size_t EveFile::Take(std::string_view lines) {
    if (!IsDue() || m_isOver) {
        return 0;
    }
    struct stat status = {};
    if (m_isPlain && m_fd != -1 && fstat(m_fd, &status) == 0 && status.st_nlink == 0) {
        CloseFile();  // somebody has removed the file, and nobody would see what goes there
    }
    if (m_fd == -1 && OpenFile() != 0) {
        return 0;
    }
    int error = 0;
    const size_t done = m_sent + Write(lines.substr(m_sent), error);
    const size_t taken = WholeLines(lines, done);
    m_sent = done - taken;
    if (m_sent != 0 && m_isPlain) {
        const off_t end = lseek(m_fd, -static_cast<off_t>(m_sent), SEEK_CUR);
        if (end == -1 || ftruncate(m_fd, end) != 0) {
            error = errno;
        }
        m_sent = 0;
    }
    if (error != 0) {
        Fail(error);
    } else {
        SetWell();
    }
    return taken;
}

// A pipe that has half a line of what does not come again gets an end of that line.
void EveFile::Forget() {
    if (m_sent != 0 && m_fd != -1) {
        (void)!write(m_fd, "\n", 1);  // whoever reads skips a broken line and a missing end alike
        m_sent = 0;
    }
}

void EveFile::Reopen() {
    if (!IsStandardOutput()) {
        CloseFile();
        SetWell();
    }
}

}  // namespace tarnctl
