#pragma once

// The spool files of one prefix in their order, and news of them.
//
// A sensor writes PREFIX.SECONDS, one file after the other, or one file PREFIX, which is moved away
// to PREFIX.SECONDS or cut when it has grown. So the stamped files come first, by their number, and
// the plain one is the newest.
//
// Threads: one at a time.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tarnctl/feed/spool_file.h"

namespace tarnctl {

struct SpoolEntry {
    std::string name;
    uint64_t device = 0;
    uint64_t inode = 0;
    bool isPlain = false;  // has no number
    uint64_t stamp = 0;    // the number

    [[nodiscard]] bool IsBefore(const SpoolEntry& other) const {
        return isPlain != other.isPlain ? other.isPlain : stamp < other.stamp;
    }
};

class SpoolFolder {
  public:
    // `prefix` is a path: the folder and what the names of the files begin with.
    explicit SpoolFolder(const std::string& prefix);
    ~SpoolFolder();
    SpoolFolder(const SpoolFolder&) = delete;
    SpoolFolder& operator=(const SpoolFolder&) = delete;

    // The files of now, oldest first. An error leaves the list empty and says why.
    [[nodiscard]] std::vector<SpoolEntry> List(std::string& fault) const;

    // Reads a name; false when it is none of a spool file.
    [[nodiscard]] bool Parse(const std::string& name, SpoolEntry& entry) const;

    [[nodiscard]] std::string PathOf(const std::string& name) const;

    // A descriptor that is readable when something has happened in the folder; -1 when there is
    // none, and the folder has to be looked at from time to time.
    [[nodiscard]] int Descriptor();
    // Forgets what has happened so far.
    void TakeNews();

  private:
    std::string m_folder;
    std::string m_prefix;
    int m_inotify = -1;  // owned
    int m_watch = -1;
};

}  // namespace tarnctl
