#include "tarnctl/common/standard_input.h"

#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <ostream>
#include <utility>

#include "tarnctl/common/signals.h"
#include "tarnctl/common/tarn_process.h"

namespace tarnctl {

StandardInput::StandardInput(std::ostream& err, std::string command)
    : m_err(err), m_command(std::move(command)) {}

StandardInput::~StandardInput() {
    if (m_copy != -1) {
        close(m_copy);
    }
}

ssize_t StandardInput::Read(char* to, size_t size) {
    pollfd entry = {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    while (poll(&entry, 1, kSilentWait) <= 0) {
        if (StopRequested()) {
            errno = EINTR;
            return -1;
        }
        if (!std::exchange(m_isTold, true)) {
            m_err << "tarnctl " << m_command << ": waiting: nothing comes on standard input"
                  << std::endl;
        }
    }
    return read(STDIN_FILENO, to, size);
}

bool StandardInput::CopyTo(int descriptor) {
    std::string text;
    if (ReadAll(text) != 0) {
        return false;
    }
    for (size_t done = 0; done < text.size();) {
        const ssize_t put = write(descriptor, text.data() + done, text.size() - done);
        if (put <= 0) {
            return false;
        }
        done += static_cast<size_t>(put);
    }
    return true;
}

int StandardInput::ReadAll(std::string& text) {
    text.clear();
    while (true) {
        const ssize_t got = Read(m_buffer.data(), m_buffer.size());
        if (got == -1) {
            const int error = errno;
            if (error != EINTR || StopRequested()) {
                return error;
            }
            continue;
        }
        if (got == 0) {
            return 0;
        }
        text.append(m_buffer.data(), static_cast<size_t>(got));
    }
}

StandardInput::int_type StandardInput::underflow() {
    ssize_t got = -1;
    do {
        got = Read(m_buffer.data(), m_buffer.size());
    } while (got == -1 && errno == EINTR && !StopRequested());
    if (got <= 0) {
        return traits_type::eof();
    }
    setg(m_buffer.data(), m_buffer.data(), m_buffer.data() + got);
    return traits_type::to_int_type(*gptr());
}

std::string StandardInput::PathOf(const std::string& path) {
    if (path != "-") {
        return path;
    }
    if (m_copy == -1) {
        m_copy = memfd_create("standard-input", MFD_CLOEXEC);
        if (m_copy == -1 || !CopyTo(m_copy)) {
            return {};
        }
    }
    return "/proc/self/fd/" + std::to_string(m_copy);
}

}  // namespace tarnctl
