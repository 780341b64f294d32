#pragma once

// The text of a tarn_event.conf, with the signature that each of its lines belongs to and the
// entries that the daemon would have in force. The daemon's own parser says both.
//
// Threads: the main thread only, since the daemon's table is used.

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tarnctl {

// What an import made itself begins with this, so that it can be told from the comments of others.
inline constexpr std::string_view kImportComment = "# tarnctl import:";

class EventFile {
  public:
    // Loads the text with the daemon's table, which is empty afterwards.
    explicit EventFile(std::string text);
    EventFile(const EventFile&) = delete;
    EventFile& operator=(const EventFile&) = delete;

    [[nodiscard]] const std::string& Text() const { return m_text; }

    // Each line with its line end; the last one may have none. Borrowed from the text.
    [[nodiscard]] const std::vector<std::string_view>& Lines() const { return m_lines; }

    // The signatures with an entry in force.
    [[nodiscard]] const std::set<uint32_t>& Entries() const { return m_entries; }
    [[nodiscard]] bool HasEntry(uint32_t id) const { return m_entries.contains(id); }

    // For each line whether it goes when all entries but those of `wanted` go: the lines of their
    // settings, the comments that an import put in front of them, and the empty line in front of
    // these where another one follows.
    [[nodiscard]] std::vector<bool> LinesToRemove(const std::set<uint32_t>& wanted) const;

  private:
    std::string m_text;
    std::vector<std::string_view> m_lines;
    std::vector<uint32_t> m_ids;  // for each line; 0 for one that is no setting
    std::set<uint32_t> m_entries;
};

}  // namespace tarnctl
