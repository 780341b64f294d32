#pragma once

// What the sub-commands that stand in for a receiver have in common: --json, --count, --timeout and
// --wide, their loop, how they show what they see, and their exit status.
//
// Threads: one at a time.

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <span>
#include <string>

#include "tarnctl/common/display.h"
#include "tarnctl/common/quiet_time.h"

namespace tarnctl {

struct MonitorOptions : Display {
    bool json = false;     // JSON lines instead of lines for a person
    uint64_t count = 0;    // ends after this many things taken; 0: no end
    double timeout = 0.0;  // ends after this many quiet seconds; 0: no end
};

// Declares the three and --wide. `things` are what the sub-command counts, `members` what an object
// holds.
void AddMonitorOptions(CLI::App& command, MonitorOptions& options, const std::string& things,
                       const std::string& members);

class Monitor {
  public:
    virtual ~Monitor() = default;
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    // Takes what comes until the options' end, StopRequested(), or the reader of its output is
    // gone. Returns an exit status: a failure when it cannot begin, when the output takes no more,
    // or when anything was malformed.
    [[nodiscard]] int Run();

  protected:
    // `name` is the sub-command's, `thing` what it takes; both live as long. What is taken goes to
    // `out`, all else to `err`.
    Monitor(const char* name, const char* thing, const MonitorOptions& options, std::ostream& out,
            std::ostream& err);

    // Takes its place and says so. Returns an empty string, or the reason why it cannot.
    [[nodiscard]] virtual std::string Begin() = 0;
    // Waits up to `time` for news and deals with it.
    virtual void Serve(std::chrono::milliseconds time) = 0;
    // What is to be done and reported before the closing line.
    virtual void End() {}
    // What the sub-command found missing as it began, for a wait in which the daemon does not run;
    // empty when there is nothing to say.
    [[nodiscard]] virtual std::string Missing() const { return ""; }
    // The closing line's counts.
    [[nodiscard]] virtual std::string Counts() const = 0;

    [[nodiscard]] bool IsDone() const;
    [[nodiscard]] uint64_t Taken() const { return m_taken; }
    [[nodiscard]] bool WritesJson() const { return m_options.json; }

    void Say(const std::string& text);
    // Something has come, so the quiet seconds begin again.
    void HasNews() { m_quiet.Restart(); }
    void CountOne() { ++m_taken; }
    // Writes a line, which is cut to the width unless it is JSON.
    void Write(const std::string& line);
    // Nothing more is to come; the loop ends.
    void Finish() { m_finished = true; }
    // Tells what cannot go on; the loop ends.
    void Fail(const std::string& reason);
    // Tells what was damaged and goes on; the exit status will be a failure.
    void TellDamaged(const std::string& text);
    // Tells of bytes that are no `what`; where JSON is written, `json` is too.
    void TellMalformed(const std::string& what, const std::string& reason,
                       std::span<const std::byte> bytes, const std::string& json);

  private:
    // How long Serve may wait now.
    [[nodiscard]] std::chrono::milliseconds TimeToWait() const;
    // Says what is waited for once the wait is long, and again when that has changed.
    void TellWaiting();

    const char* const m_name;   // borrowed
    const char* const m_thing;  // borrowed
    const MonitorOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    QuietTime m_quiet;
    std::string m_waiting;                    // what was said last of it
    QuietTime::Clock::time_point m_nextLook;  // when it may have changed
    uint64_t m_taken = 0;
    uint64_t m_malformed = 0;
    bool m_failed = false;
    bool m_finished = false;
};

}  // namespace tarnctl
