#pragma once

// All signatures of a sensor, gathered from rule files, folders of them, maps and the files that
// they include.
//
// What a text file does not show stays unknown: rules that a sensor switches on, off or over from
// its own configuration (states, suppressions, thresholds), rules that are part of a compiled
// library, and includes with a variable that no file read so far sets.
//
// Threads: one at a time.

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnctl/snort_rules/snort_rule.h"

namespace tarnctl {

class StandardInput;

class RuleSet {
  public:
    // Reads a file, or a folder with what is below it: *.rules, maps (*msg.map) and
    // classification.config. A file is a map or a rule file by what it holds; a snort.conf is a
    // rule file with includes. A classification.config in the file's folder
    // or the one above is read too. A file that has been read already is not read again. False,
    // with a remark of kind kUnreadable, if the path itself cannot be read.
    [[nodiscard]] bool Read(const std::string& path);

    // The same, and "-" is standard input.
    [[nodiscard]] bool Read(const std::string& path, StandardInput& input);

    // Reads a text as if it stood in a file of this name.
    void ReadText(const std::string& name, std::string_view text);

    // Every rule and every line of a map, in the order of reading.
    [[nodiscard]] const std::vector<SnortRule>& Rules() const { return m_rules; }

    // One rule for each pair of sid and generator, in that order of numbers: the one that the
    // sensor has in force, which is the enabled one of the highest revision, the first of equals.
    // A pair without an enabled rule gives its disabled one. A map counts for what no rule names,
    // and lends its message to a rule without one.
    [[nodiscard]] std::vector<SnortRule> Signatures() const;

    // The priority of a rule: its own, or else that of its class; 0 if neither is known.
    [[nodiscard]] uint32_t PriorityOf(const SnortRule& rule) const;

    // Whether the class of the rule has a priority.
    [[nodiscard]] bool KnowsClass(const SnortRule& rule) const;

    [[nodiscard]] const std::vector<RuleRemark>& Remarks() const { return m_remarks; }

    // The files read, as rules and remarks count them.
    [[nodiscard]] const std::vector<std::string>& Files() const { return m_files; }
    [[nodiscard]] const std::string& FileOf(const SnortRule& rule) const {
        return m_files[rule.file];
    }

    // Whether every path, include and file below a folder could be read.
    [[nodiscard]] bool IsComplete() const { return m_complete; }

  private:
    enum class Found { kFile, kFolder, kNothing };

    [[nodiscard]] Found ReadPath(const std::string& path, int depth);
    void ReadFolder(const std::string& path, int depth);
    void ReadContent(const std::string& name, std::string_view text, int depth);
    void ReadClassesNear(const std::string& path);
    void Follow(const RuleDirective& directive, uint32_t file, int depth);
    void Include(const RuleDirective& directive, uint32_t file, int depth);
    void AddClass(std::string_view value);
    [[nodiscard]] bool Expand(std::string_view text, std::string& expanded) const;
    uint32_t AddFile(const std::string& name);
    void Remark(RuleRemarkKind kind, uint32_t file, uint32_t line, std::string text);

    std::vector<SnortRule> m_rules;
    std::vector<RuleRemark> m_remarks;
    std::vector<std::string> m_files;
    std::set<std::pair<dev_t, ino_t>> m_seen;
    std::map<std::string, std::string, std::less<>> m_variables;
    std::map<std::string, uint32_t, std::less<>> m_priorities;  // of classes, from files
    std::string m_baseFolder;                                   // of the path named last
    bool m_complete = true;
};

}  // namespace tarnctl
