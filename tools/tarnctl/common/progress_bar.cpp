#include "tarnctl/common/progress_bar.h"

#include <algorithm>
#include <cmath>
#include <ostream>

namespace tarnctl {
namespace {

constexpr size_t kLongestBar = 30;
constexpr size_t kShortestBar = 4;  // a shorter one is left out
constexpr std::chrono::milliseconds kInterval{100};

}  // namespace

ProgressBar::ProgressBar(std::ostream& stream, const Display& display)
    : m_stream(stream), m_display(display) {}

ProgressBar::~ProgressBar() {
    Clear();
}

void ProgressBar::Show(double done, const std::string& text) {
    const auto now = std::chrono::steady_clock::now();
    if (!m_display.errorIsTerminal || (m_isShown && now - m_lastShown < kInterval)) {
        return;
    }
    m_isShown = true;
    m_lastShown = now;
    const double part = std::clamp(done, 0.0, 1.0);
    const std::string words = std::to_string(std::lround(part * 100)) + "% " + text;
    // The last column stays free: a terminal may go to the next line after it.
    const size_t columns = std::max<size_t>(m_display.ErrorWidth(), 2) - 1;
    constexpr size_t kFrame = 3;  // the brackets and a blank
    std::string line;
    if (columns >= words.size() + kFrame + kShortestBar) {
        const size_t length = std::min(kLongestBar, columns - words.size() - kFrame);
        const auto full = static_cast<size_t>(std::lround(part * static_cast<double>(length)));
        line = "[" + std::string(full, '#') + std::string(length - full, '.') + "] ";
    }
    m_stream << "\r" << CutToWidth(line + words, columns) << "\x1b[K" << std::flush;
}

void ProgressBar::Clear() {
    if (m_isShown) {
        m_isShown = false;
        m_stream << "\r\x1b[K" << std::flush;
    }
}

}  // namespace tarnctl
