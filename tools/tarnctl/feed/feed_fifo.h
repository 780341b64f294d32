#pragma once

// The writing end of the daemon's alert FIFO for a writer that has other things to do: nothing here
// waits. A record goes in with one write or not at all; tarnctl/common/alert_fifo.h has the
// reasons.
//
// Of records that stand in the pipe when the daemon dies the first may lack its head, so they must
// not reach the next daemon. A pipe that nobody has open forgets them, and so Close() comes first.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace tarnctl {

class FeedFifo {
  public:
    enum class Result {
        kDone,
        kNoRoom,    // not now
        kNoReader,  // nobody reads: the daemon is gone, or is reading its files again
        kTooLong,   // the pipe cannot be made large enough; Error() says why
        kFailed,    // Error() says why
    };

    explicit FeedFifo(std::string path);
    ~FeedFifo();
    FeedFifo(const FeedFifo&) = delete;
    FeedFifo& operator=(const FeedFifo&) = delete;

    // Opens the FIFO, which must exist and have a reader, and keeps other feeders out.
    [[nodiscard]] Result Open();
    void Close();
    [[nodiscard]] bool IsOpen() const { return m_fd != -1; }

    [[nodiscard]] Result Send(std::span<const std::byte> record);
    // Bytes that the daemon has not read.
    [[nodiscard]] int Unread() const;
    [[nodiscard]] bool HasReader() const;
    // Waits for room in the pipe for at most this time.
    void WaitForRoom(int milliseconds) const;
    // How often a reader has closed the FIFO since the last call: the daemon does so at a signal.
    // Some of several in a row may count as one, but never all as none.
    [[nodiscard]] uint32_t TakeReaderCloses();

    [[nodiscard]] const std::string& Path() const { return m_path; }
    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    [[nodiscard]] Result Fail(Result result, const std::string& reason);
    [[nodiscard]] bool EnsureCapacity(size_t length);

    const std::string m_path;
    int m_fd = -1;       // owned
    int m_inotify = -1;  // owned
    std::string m_error;
};

}  // namespace tarnctl
