#pragma once

// The reading end of a FIFO, opened as the daemon opens it.
//
// Threads: one at a time.

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

class FifoReader {
  public:
    explicit FifoReader(const std::string& path)
        : m_fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
    ~FifoReader() { Close(); }
    FifoReader(const FifoReader&) = delete;
    FifoReader& operator=(const FifoReader&) = delete;

    void Close() {
        if (m_fd != -1) {
            close(m_fd);
            m_fd = -1;
        }
    }

    // Up to `length` bytes of what is there now; empty when nothing is.
    std::string ReadNow(size_t length) const {
        std::string bytes(length, '\0');
        const ssize_t count = read(m_fd, bytes.data(), length);
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return bytes;
    }

    // Waits for bytes. False after five seconds, or when the writer is gone and nothing is left.
    bool Wait() const {
        pollfd entry = {};
        entry.fd = m_fd;
        entry.events = POLLIN;
        return poll(&entry, 1, 5000) == 1 && (entry.revents & POLLIN) != 0;
    }

    // Everything up to the writer's end.
    std::string ReadAll() const {
        std::string bytes;
        while (Wait()) {
            bytes += ReadNow(65536);
        }
        return bytes;
    }

    int Descriptor() const { return m_fd; }

  private:
    int m_fd;
};
