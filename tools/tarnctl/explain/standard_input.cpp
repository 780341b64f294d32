#include "tarnctl/explain/standard_input.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace tarnctl {
namespace {

// Copies standard input to its end. False when it cannot be read or kept.
bool CopyTo(int descriptor) {
    std::array<char, 65536> buffer;
    while (true) {
        const ssize_t got = read(STDIN_FILENO, buffer.data(), buffer.size());
        if (got == -1 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got == 0;
        }
        for (ssize_t done = 0; done < got;) {
            const ssize_t put =
                write(descriptor, buffer.data() + done, static_cast<std::size_t>(got - done));
            if (put <= 0) {
                return false;
            }
            done += put;
        }
    }
}

}  // namespace

StandardInput::~StandardInput() {
    if (m_copy != -1) {
        close(m_copy);
    }
}

std::string StandardInput::PathOf(const std::string& path) const {
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
