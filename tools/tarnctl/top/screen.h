#pragma once

// The whole terminal as a screen of lines. It is put back as it was when the object goes.
//
// Threads: one at a time, and one object at a time, since the library has one screen.

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "tarnctl/top/top_view.h"

namespace tarnctl {

class Screen {
  public:
    enum class Key { kNone, kQuit, kResized, kOther };

    explicit Screen(bool isColored);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Why there is no screen; empty when there is one.
    [[nodiscard]] const std::string& Error() const { return m_error; }

    [[nodiscard]] size_t Width() const;
    [[nodiscard]] size_t Height() const;
    void Draw(const std::vector<TopLine>& lines);
    // Waits for a key.
    [[nodiscard]] Key Wait(std::chrono::milliseconds time);

  private:
    void* m_screen = nullptr;  // owned; the library's
    bool m_isColored = false;
    std::string m_error;
};

}  // namespace tarnctl
