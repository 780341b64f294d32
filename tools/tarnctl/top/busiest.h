#pragma once

// Counts by name over the last while, and the busiest of them.
//
// Threads: one at a time.

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace tarnctl {

class Busiest {
  public:
    struct Entry {
        std::string name;
        uint64_t count = 0;

        bool operator==(const Entry&) const = default;
    };

    // What is older than `seconds` is forgotten.
    explicit Busiest(double seconds) : m_seconds(seconds) {}

    // Counts one for a name, at a time in seconds that never runs backwards.
    void Count(const std::string& name, double now);

    // The busiest, at most `most`, the busiest first; of equals by name.
    [[nodiscard]] std::vector<Entry> Top(size_t most, double now);

  private:
    struct Slice {
        double time = 0.0;
        std::map<std::string, uint64_t> counts;
    };

    void Forget(double now);

    const double m_seconds;
    std::deque<Slice> m_slices;
    std::map<std::string, uint64_t> m_counts;  // of all slices
};

}  // namespace tarnctl
