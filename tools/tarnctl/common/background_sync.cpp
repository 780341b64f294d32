#include "tarnctl/common/background_sync.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace tarnctl {
namespace {

// Holds nothing of the caller's but the file: a disk that does not answer must not keep a socket
// open that the caller's successor wants.
[[noreturn]] void SyncAndEnd(int fd) {
    if (dup2(fd, STDIN_FILENO) == -1 || close_range(STDIN_FILENO + 1, ~0U, 0) != 0) {
        _exit(errno);
    }
    _exit(fdatasync(STDIN_FILENO) == 0 ? EXIT_SUCCESS : errno);
}

}  // namespace

bool BackgroundSync::Begin(int fd) {
    if (IsUnderWay()) {
        return false;
    }
    m_process = fork();
    if (m_process == 0) {
        SyncAndEnd(fd);
    }
    return m_process != -1;
}

bool BackgroundSync::IsUnderWay() {
    if (m_process == -1) {
        return false;
    }
    int status = 0;
    const pid_t ended = waitpid(m_process, &status, WNOHANG);
    if (ended == 0) {
        return true;
    }
    m_process = -1;
    m_error = ended != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : EIO;
    return false;
}

}  // namespace tarnctl
