#pragma once

// Standard input as a file that can be opened by a path, for readers that take nothing else: "-"
// among the paths is a copy of it in memory.
//
// Threads: one at a time.

#include <string>

namespace tarnctl {

class StandardInput {
  public:
    StandardInput() = default;
    ~StandardInput();
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

    // The path itself; for "-" that of the copy, which is good for as long as this object lives.
    // Where there is no copy it is a path that cannot be opened.
    [[nodiscard]] std::string PathOf(const std::string& path) const;

  private:
    mutable int m_copy = -1;  // owned; made when it is first asked for
};

}  // namespace tarnctl
