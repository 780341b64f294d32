#pragma once

// The daemon's configuration as its own loader reads it, with the lines that each entry is made of.
//
// Only one object may exist at a time: the loader's table and settings are static.
//
// Threads: one at a time.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config/load_observer.h"

namespace tarnctl {

class StandardInput;

struct ConfigPaths {
    std::string config;  // tarn.conf
    std::string events;  // tarn_event.conf
    std::string state;
};

// One line of an entry.
struct EntryLine {
    std::string file;
    uint32_t line = 0;    // from 1
    uint32_t column = 0;  // from 1, of the setting's name
    std::string name;
    std::string value;
    int key = kEventKeyNone;  // EventKey
    bool isApplied = true;    // else the line was dropped
};

// A run of lines with one id.
struct EntryBlock {
    std::vector<EntryLine> lines;
    bool isInForce = false;  // else the id has an entry from before
};

class LoadedEntries final : public LoadObserver {
  public:
    LoadedEntries() = default;
    ~LoadedEntries() override = default;

    // Loads all three files, of which one may be "-", standard input. Returns an empty text, or why
    // a file cannot be read; a state file that is not there is none.
    [[nodiscard]] std::string Load(const ConfigPaths& paths, StandardInput& input);

    // The entry in force, null when there is none.
    [[nodiscard]] static std::shared_ptr<Node> Find(uint32_t id);
    // What the files hold for the id, in the order of the load.
    [[nodiscard]] const std::vector<EntryBlock>& Blocks(uint32_t id) const;

    bool OnFile(const char* path, int kind, int error) override;
    void OnLine(const LineRead& line) override;
    void OnEntryClosed(uint32_t id, bool entered) override;

  private:
    ConfigPaths m_paths;
    std::string m_file;  // the one that is being read
    std::string m_fault;
    std::map<uint32_t, std::vector<EntryBlock>> m_blocks;
    uint32_t m_openId = 0;  // of the block that is being read; 0 is none
};

}  // namespace tarnctl
