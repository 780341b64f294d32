#pragma once

// The writing end of the daemon's alert FIFO.
//
// The daemon reads without blocking: of a record whose tail has not arrived it loses the head, and
// takes the tail for the next header. So a record must appear in the pipe as a whole. A write of up
// to PIPE_BUF bytes to a non-blocking pipe goes in whole or not at all. A longer one goes in whole
// only when there is room for it, and room that is counted in bytes is not to be relied on, since
// a pipe is made of pages that may be partly used; only an empty pipe is sure to take as much as
// its capacity. A longer record therefore waits until the reader has emptied the pipe, and a record
// that is longer than the pipe has the pipe enlarged first.
//
// This holds while nobody else writes into the FIFO.
//
// Threads: one at a time.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>

namespace tarnctl {

enum class FifoResult {
    kDone,
    kStopped,  // StopRequested() while waiting
    kFailed,   // Error() says why
};

class AlertFifo {
  public:
    using Clock = std::chrono::steady_clock;

    // How long to wait before giving up.
    struct Limits {
        Clock::duration open{0};                           // for the FIFO and its reader to appear
        Clock::duration reopen = std::chrono::seconds(4);  // for a reader that went away to return
        Clock::duration stall = std::chrono::seconds(30);  // for a reader that takes nothing
    };

    // A daemon that reads its configuration again closes the FIFO and opens it up to two seconds
    // later; what is in the pipe stays there for it, since this end stays open.
    AlertFifo(std::string path, const Limits& limits);
    ~AlertFifo();
    AlertFifo(const AlertFifo&) = delete;
    AlertFifo& operator=(const AlertFifo&) = delete;

    // From here on a wait of more than kSilentWait is announced to `tell`, once for each wait.
    void TellWaits(std::function<void(const std::string&)> tell) { m_tell = std::move(tell); }

    // Opens the FIFO, which must exist and have a reader.
    [[nodiscard]] FifoResult Open();

    // Puts `record` in with one write(2). When it fails nothing of the record is in the pipe,
    // unless Error() names another writer.
    [[nodiscard]] FifoResult Send(std::span<const std::byte> record);

    // Waits until the reader has taken everything. A pipe that is closed with bytes in it would
    // lose them if the reader closed it too.
    [[nodiscard]] FifoResult Drain();

    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    enum class Wait { kRoom, kEmpty };

    // Waits for room for a small record or for an empty pipe.
    FifoResult WaitFor(Wait what);
    // Waits until a reader is there again.
    FifoResult WaitForReader();
    // Makes sure that an empty pipe takes `length` bytes.
    bool EnsureCapacity(size_t length);
    // Unread bytes in the pipe, or -1.
    [[nodiscard]] int Unread() const;
    FifoResult Fail(const std::string& reason);
    // Tells what is waited for when the wait that began at `since` is long; clears `reason` then.
    void TellWait(Clock::time_point since, std::string& reason) const;

    const std::string m_path;
    const Limits m_limits;
    std::function<void(const std::string&)> m_tell;
    int m_fd = -1;  // owned
    std::string m_error;
};

}  // namespace tarnctl
