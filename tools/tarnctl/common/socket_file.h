#pragma once

// A Unix socket with a name, as whoever receives at it has it.
//
// The name belongs to the receiver. One that a receiver left behind is removed, one that somebody
// receives at is left alone, and so is anything that is no socket.
//
// Threads: one at a time.

#include <sys/stat.h>

#include <string>

namespace tarnctl {

class SocketFile {
  public:
    static constexpr mode_t kForItsUserOnly = 0600;

    SocketFile() = default;
    // Removes the file, if it is still this one's.
    ~SocketFile();
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    // Makes a socket of a type as for socket(), and gives it the name, with this mode of the file:
    // who may write may use it, as told only its user. Returns an empty string, or the reason why
    // it failed. Once at most.
    [[nodiscard]] std::string Open(const std::string& path, int type,
                                   mode_t mode = kForItsUserOnly);

    [[nodiscard]] int Descriptor() const { return m_fd; }

  private:
    int m_fd = -1;  // owned
    std::string m_path;
    struct stat m_file = {};  // the file that Open made
};

}  // namespace tarnctl
