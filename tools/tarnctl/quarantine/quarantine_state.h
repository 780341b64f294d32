#pragma once

// The file in which the rules in force outlive the service and the machine.
//
// It is a journal: a head, then a line for each rule that was put into force and for each that was
// ended before its time; the last line about a rule holds. Nothing says that a rule's time is over,
// as its text does. A line begins with its checksum, so that one that is damaged is known.
//
//   tarn-quarantine 1
//   5a0c1f2e {"rule":"ip intruder addr ... expires ...","issueId":7,"asked":1,"since":1794000000}
//   99f3b1d0 {"ended":"ip intruder addr ... expires ..."}
//
// A line is in the file when the call returns: a process that is killed loses none. The disk has it
// a second later or when it can; what a power cut takes is the lines since. Now and then the file
// is written anew with the rules in force only, and replaced as a whole.
//
// Threads: one at a time.

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <string>
#include <string_view>

#include "tarnctl/common/background_sync.h"
#include "tarnctl/quarantine/rule_table.h"

namespace tarnctl {

class QuarantineState {
  public:
    // The file is written anew when it has twice as many lines as rules are in force, and these.
    static constexpr size_t kLinesToSpare = 16384;

    explicit QuarantineState(std::string path) : m_path(std::move(path)) {}
    ~QuarantineState();
    QuarantineState(const QuarantineState&) = delete;
    QuarantineState& operator=(const QuarantineState&) = delete;

    // Puts the rules of the file into the table, expired ones as well, and tells of each damaged
    // line. Changes nothing. No file is no rules. Returns an empty string, or the reason why the
    // file must not be replaced: it cannot be read, or is something else.
    [[nodiscard]] std::string Read(RuleTable& table,
                                   const std::function<void(const std::string&)>& tell) const;

    // Replaces the file by one with these rules, on the disk. Returns an empty string, or the
    // reason why the file is as it was; Upkeep() tries again then.
    [[nodiscard]] std::string Rewrite(const std::list<RuleInForce>& rules);

    // The rule is in force, for the first time or with another end.
    void NotePut(const RuleInForce& rule);
    // The rule was ended before its time.
    void NoteEnded(const RuleInForce& rule);

    // Puts on the disk what has not been put there for a second, and writes the file anew when that
    // is due, as after a write that failed. To be called often. Returns an empty string, or why the
    // file does not have all rules, each time that it is tried.
    [[nodiscard]] std::string Upkeep(const std::list<RuleInForce>& rules);

  private:
    using Clock = std::chrono::steady_clock;

    void Append(std::string_view json);

    const std::string m_path;
    int m_fd = -1;           // owned; -1 before the first Rewrite
    size_t m_lines = 0;      // in the file
    bool m_isBehind = true;  // it lacks a line, and only a Rewrite can help
    bool m_isDirty = false;  // the disk lacks a line
    Clock::time_point m_lastTry;
    BackgroundSync m_sync;
};

}  // namespace tarnctl
