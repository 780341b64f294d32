#pragma once

// The spool file of what may not go to the daemon: alerts without an entry, with their packets.
//
// It has the form of a spool file, so that it can be fed once the entries are there. A bookmark
// says how much of it belongs to what comes before the bookmark; what a crash left after that is
// cut off, since the same records are read again.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "tarnctl/feed/bookmark.h"

namespace tarnctl {

class RejectFile {
  public:
    explicit RejectFile(std::string path);
    ~RejectFile();
    RejectFile(const RejectFile&) = delete;
    RejectFile& operator=(const RejectFile&) = delete;

    // Cuts off what came after the bookmark. An empty text, or a reason.
    [[nodiscard]] std::string CutTo(const std::optional<RejectsPlace>& place) const;
    // Opens the file, which is made if it is missing. An empty text, or a reason.
    [[nodiscard]] std::string Open();
    [[nodiscard]] bool IsOpen() const { return m_fd != -1; }

    // Adds a whole record or nothing. An empty text, or a reason.
    [[nodiscard]] std::string Add(std::span<const std::byte> record);
    // Waits until all that was added is on the disk. An empty text, or a reason.
    [[nodiscard]] std::string Sync();
    // Empty while nothing was added.
    [[nodiscard]] std::optional<RejectsPlace> Place() const;
    // Gives the file up; the next Open() makes a new one if it has been renamed.
    void Close();

    [[nodiscard]] const std::string& Path() const { return m_path; }

  private:
    const std::string m_path;
    int m_fd = -1;  // owned
    bool m_hasNews = false;
};

}  // namespace tarnctl
