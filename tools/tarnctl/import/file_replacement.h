#pragma once

// Puts a new text in a file's place at once: whoever opens the file sees the old text or the new
// one, also after a crash.
//
// Threads: one at a time.

#include <functional>
#include <string>
#include <string_view>

namespace tarnctl {

// A file as it was when it was read.
struct FileState {
    bool exists = false;
    unsigned mode = 0644;  // of the file to write; a new one gets less by the umask
    unsigned owner = 0;
    unsigned group = 0;
    unsigned long inode = 0;
    long long size = 0;
    long long second = 0;  // of the last change
    long nanosecond = 0;
    std::string path;  // with symbolic links resolved
    std::string text;
};

// Reads the file; that there is none is no failure. Returns a reason if it cannot be read.
[[nodiscard]] std::string ReadState(const std::string& path, FileState& state);

// Writes the text to a new file in the same folder, gives it the old one's mode and owner and a
// modification time of another second, waits for the disk, and renames it. Returns a reason if
// anything fails; the old file is then as it was, and the new one is gone. That the file has
// changed since `state` was read is such a reason. `beforeRename` is for tests.
[[nodiscard]] std::string ReplaceFile(const FileState& state, std::string_view text,
                                      const std::function<void()>& beforeRename = {});

}  // namespace tarnctl
