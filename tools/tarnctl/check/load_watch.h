#pragma once

// Watches a load of the daemon's own loader and makes a finding of each thing that it drops, bends
// or takes by half. Nothing is parsed here a second time: what was read, and where, is what the
// loader says.
//
// Threads: the thread that loads.

#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "config/load_observer.h"
#include "tarnctl/check/finding.h"
#include "tarnctl/check/loaded_entry.h"

namespace tarnctl {

class LoadWatch final : public LoadObserver {
  public:
    explicit LoadWatch(Findings& findings) : m_findings(findings) {}

    // Findings name the file at `path` by `shown`.
    void ShowAs(const std::string& path, const std::string& shown) { m_shown[path] = shown; }

    bool OnFile(const char* path, int kind, int error) override;
    void OnLine(const LineRead& line) override;
    void OnEntryClosed(uint32_t id, bool entered) override;

    // What only the whole of the main file shows. `cpus` is the number that this machine has.
    void FinishMain(int cpus);

    // The entries that are in force, in the order in which they entered the table.
    [[nodiscard]] std::vector<LoadedEntry> TakeEntries() { return std::move(m_entries); }
    [[nodiscard]] size_t Lines() const { return m_lines; }

  private:
    struct Place {
        const LineRead& line;
        size_t at;
        size_t length;
    };
    struct Seen {
        FindingPlace place;
        bool inState = false;
    };

    [[nodiscard]] FindingPlace PlaceOf(const Place& place) const;
    Finding& Add(const FindingKind& kind, const Place& place, std::string reason);

    void OnMainLine(const LineRead& line);
    void CheckNumber(const LineRead& line);
    void OnUnknownMainKey(const LineRead& line);

    void OnEventLine(const LineRead& line);
    void OnUnknownEventName(const LineRead& line);
    void OnRefusedEvent(const LineRead& line);
    void CheckEventName(const LineRead& line);
    void TakeField(const LineRead& line);
    void CheckSeverity(const LineRead& line);
    void CheckUserResponse(const LineRead& line);
    void CheckEvidenceScope(const LineRead& line);
    void CheckResponse(const LineRead& line);
    void CheckBlockRule(const LineRead& line);
    void CheckListEnd(const LineRead& line, const FindingKind& kind);
    void CheckListNumbers(const LineRead& line);
    void CheckEntry(const LoadedEntry& entry);
    void CheckRules(const LoadedEntry& entry);
    void Excuse(uint32_t id, int key);
    [[nodiscard]] bool IsExcused(uint32_t id, int key) const;
    void CheckCarriageReturn(const LineRead& line);

    Findings& m_findings;
    std::map<std::string, std::string> m_shown;  // names of files by their paths
    std::string m_file;
    bool m_inState = false;
    size_t m_lines = 0;

    std::map<std::string, Seen> m_settings;
    LoadedEntry m_entry;  // the one that is being read; id 0 where there is none
    std::vector<LoadedEntry> m_entries;
    std::unordered_map<uint32_t, size_t> m_entered;   // indexes into m_entries
    std::vector<std::pair<uint32_t, int>> m_excused;  // ids and keys with a finding already
};

}  // namespace tarnctl
