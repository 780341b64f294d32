#pragma once

// Standard input, for every sub-command that takes "-" in place of a file: as a stream, as one
// text, and as a file that can be opened by a path. Who waits for it is told so, and a signal that
// asks for a stop ends the wait.
//
// Threads: one at a time.

#include <sys/types.h>

#include <array>
#include <iosfwd>
#include <streambuf>
#include <string>

namespace tarnctl {

class StandardInput final : public std::streambuf {
  public:
    // `err` is borrowed. `command` is the sub-command's name in its messages.
    StandardInput(std::ostream& err, std::string command);
    ~StandardInput() override;
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

    // The path itself; for "-" that of a copy in memory, which is good for as long as this object
    // lives. Where there is no copy it is a path that cannot be opened.
    [[nodiscard]] std::string PathOf(const std::string& path);

    // Reads to the end. Returns 0 or an errno; EINTR when a stop was asked for.
    [[nodiscard]] int ReadAll(std::string& text);

  protected:
    int_type underflow() override;

  private:
    // The number of bytes, 0 at the end, or -1 with errno; EINTR when a stop was asked for.
    ssize_t Read(char* to, size_t size);
    [[nodiscard]] bool CopyTo(int descriptor);

    std::ostream& m_err;
    const std::string m_command;
    bool m_isTold = false;  // that the command waits
    int m_copy = -1;        // owned; made when it is first asked for
    std::array<char, 65536> m_buffer;
};

}  // namespace tarnctl
