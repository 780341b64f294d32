#pragma once

// Appends lines to a file, or to standard output.
//
// A line is taken when write(2) has returned for all of it. It is then safe from the end of this
// process, also by SIGKILL, and not from a machine that loses its power. A plain file never keeps
// half a line: what a full disk has cut off is taken back at once, and what a killed process has
// left half-written is taken back when the next one opens the file. Its report is still in the ring
// then, and is written anew.
//
// Threads: one at a time.

#include <string>

#include "tarnctl/crm/report_sink.h"

namespace tarnctl {

class EveFile final : public ReportSink {
  public:
    // "-" is standard output.
    explicit EveFile(const std::string& path);
    ~EveFile() override;

    [[nodiscard]] std::string Open() override;
    [[nodiscard]] size_t Take(std::string_view lines) override;
    void Forget() override;
    void Reopen() override;
    [[nodiscard]] bool IsOver() const override { return m_isOver; }

  private:
    [[nodiscard]] int OpenFile();
    [[nodiscard]] std::string MendEnd() const;
    void CloseFile();
    [[nodiscard]] size_t Write(std::string_view text, int& error) const;
    void Fail(int error);
    [[nodiscard]] bool IsStandardOutput() const { return Target() == "-"; }

    int m_fd = -1;           // owned, but for standard output
    bool m_isPlain = false;  // a plain file: half a line can be taken back
    size_t m_sent = 0;       // bytes of the next line that a pipe has already
    bool m_isOver = false;
};

}  // namespace tarnctl
