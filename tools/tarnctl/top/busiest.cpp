#include "tarnctl/top/busiest.h"

#include <algorithm>

namespace tarnctl {
namespace {

constexpr double kSlice = 1.0;  // seconds that are forgotten together

}  // namespace

void Busiest::Forget(double now) {
    while (!m_slices.empty() && now - m_slices.front().time > m_seconds) {
        for (const auto& [name, count] : m_slices.front().counts) {
            const auto found = m_counts.find(name);
            found->second -= count;
            if (found->second == 0) {
                m_counts.erase(found);
            }
        }
        m_slices.pop_front();
    }
}

void Busiest::Count(const std::string& name, double now) {
    if (m_slices.empty() || now - m_slices.back().time >= kSlice) {
        Forget(now);
        m_slices.push_back({now, {}});
    }
    ++m_slices.back().counts[name];
    ++m_counts[name];
}

std::vector<Busiest::Entry> Busiest::Top(size_t most, double now) {
    Forget(now);
    std::vector<Entry> entries;
    for (const auto& [name, count] : m_counts) {
        entries.push_back({name, count});
    }
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& left, const Entry& right) {
        return left.count > right.count;
    });
    entries.resize(std::min(most, entries.size()));
    return entries;
}

}  // namespace tarnctl
