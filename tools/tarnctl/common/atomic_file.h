#pragma once

// A small file that is replaced as a whole: whoever reads it, also after a crash or a power cut,
// finds the old text or the new one.
//
// Threads: one writer for each path at a time.

#include <string>
#include <string_view>

namespace tarnctl {

enum class Durability {
    kVisible,  // a reader never sees half of it
    kOnDisk,   // what is more, it has reached the disk when the call returns
};

// Writes the text to PATH.new, and renames that to PATH. Returns an empty text, or a reason; the
// old file is then as it was.
[[nodiscard]] std::string WriteFileAtOnce(const std::string& path, std::string_view text,
                                          Durability durability);

}  // namespace tarnctl
