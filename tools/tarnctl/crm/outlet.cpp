#include "tarnctl/crm/outlet.h"

#include <algorithm>
#include <utility>

namespace tarnctl {

Outlet::Outlet(std::unique_ptr<ReportSink> sink) : m_sink(std::move(sink)) {}

std::string Outlet::Open() {
    return m_sink->Open();
}

bool Outlet::Bring(std::string_view lines) {
    lines.remove_prefix(m_done);
    if (lines.empty()) {
        return false;
    }
    const size_t taken = m_sink->Take(lines);
    m_taken += static_cast<uint64_t>(
        std::count(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(taken), '\n'));
    m_done += taken;
    return taken != 0;
}

std::string Outlet::News() {
    const std::string& error = m_sink->Error();
    if (error == m_told) {
        return "";
    }
    m_told = error;
    return error.empty() ? m_sink->Target() + ": takes reports again" : error;
}

}  // namespace tarnctl
