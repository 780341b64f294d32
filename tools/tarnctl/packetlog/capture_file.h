#pragma once

// One capture file that packets are appended to.
//
// A packet is in the file whole or not at all: what a full disk has cut off is taken back. The file
// may be read by its group and by nobody else.
//
// Threads: one at a time.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarnctl {

class CaptureFile {
  public:
    CaptureFile() = default;
    ~CaptureFile() { Close(); }
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;

    // Opens the file for appending; one that is not there is made, and gets the group, if one is
    // given. False with the reason in Error().
    [[nodiscard]] bool Open(const std::string& path, std::optional<gid_t> group);
    // Appends all of it, or nothing. False with the reason in Error().
    [[nodiscard]] bool Append(std::string_view bytes);
    void Close();

    // Of the file; 0 while none is open.
    [[nodiscard]] uint64_t Bytes() const { return m_bytes; }
    [[nodiscard]] bool IsOpen() const { return m_fd != -1; }
    // Whether the open file still has its name, so that others see what is appended.
    [[nodiscard]] bool HasItsName() const;
    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    [[nodiscard]] bool Fail(int error);

    int m_fd = -1;  // owned
    std::string m_path;
    uint64_t m_bytes = 0;
    std::string m_error;
};

}  // namespace tarnctl
