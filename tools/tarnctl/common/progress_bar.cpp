#include "tarnctl/common/progress_bar.h"

#include <algorithm>
#include <cmath>
#include <ostream>

namespace tarnctl {
namespace {

constexpr std::size_t kWidth = 30;
constexpr std::chrono::milliseconds kInterval{100};

}  // namespace

ProgressBar::ProgressBar(std::ostream& stream, bool isTerminal)
    : m_stream(stream), m_isTerminal(isTerminal) {}

ProgressBar::~ProgressBar() {
    Clear();
}

void ProgressBar::Show(double done, const std::string& text) {
    const auto now = std::chrono::steady_clock::now();
    if (!m_isTerminal || (m_isShown && now - m_lastShown < kInterval)) {
        return;
    }
    m_isShown = true;
    m_lastShown = now;
    const double part = std::clamp(done, 0.0, 1.0);
    const auto full = static_cast<std::size_t>(std::lround(part * kWidth));
    m_stream << "\r[" << std::string(full, '#') << std::string(kWidth - full, '.') << "] "
             << std::lround(part * 100) << "% " << text << "\x1b[K" << std::flush;
}

void ProgressBar::Clear() {
    if (m_isShown) {
        m_isShown = false;
        m_stream << "\r\x1b[K" << std::flush;
    }
}

}  // namespace tarnctl
