#include "tarnctl/common/monitor.h"

#include <algorithm>
#include <ostream>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/descriptor_output.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/number_checks.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/tarn_process.h"

namespace tarnctl {

void AddMonitorOptions(CLI::App& command, MonitorOptions& options, const std::string& things,
                       const std::string& members) {
    command.add_flag("--json", options.json, "One JSON object a line, with " + members);
    command.add_option("--count", options.count, "End after N " + things)
        ->type_name("N")
        ->check(AboveZero());
    command.add_option("--timeout", options.timeout, "End after S quiet seconds")
        ->type_name("S")
        ->check(AboveZero());
    AddWideOption(command, options);
}

Monitor::Monitor(const char* name, const char* thing, const MonitorOptions& options,
                 std::ostream& out, std::ostream& err)
    : m_name(name),
      m_thing(thing),
      m_options(options),
      m_out(out),
      m_err(err),
      m_quiet(options.timeout) {}

int Monitor::Run() {
    const std::string obstacle = Begin();
    if (!obstacle.empty()) {
        Say(obstacle);
        return kExitFailure;
    }
    m_quiet.Restart();
    while (!IsDone() && !IsReaderGone(m_out)) {
        Serve(TimeToWait());
        TellWaiting();
    }
    End();
    // Who has closed the output has seen enough and needs no closing line.
    if (!IsReaderGone(m_out)) {
        Say(Counts() +
            (m_malformed > 0 ? ", " + std::to_string(m_malformed) + " malformed" : std::string()));
    }
    return m_failed || m_malformed > 0 ? kExitFailure : kExitFine;
}

bool Monitor::IsDone() const {
    return m_failed || m_finished || StopRequested() ||
           (m_options.count > 0 && m_taken >= m_options.count) || m_quiet.IsOver();
}

std::chrono::milliseconds Monitor::TimeToWait() const {
    const std::chrono::milliseconds time = m_quiet.TimeToWait();
    if (!m_waiting.empty()) {
        return time;
    }
    const std::chrono::milliseconds silent(kSilentWait);
    return std::clamp(silent - m_quiet.Elapsed(), std::chrono::milliseconds(0), time);
}

void Monitor::TellWaiting() {
    constexpr std::chrono::seconds kLookInterval{2};
    const auto now = QuietTime::Clock::now();
    if (IsDone() || m_quiet.Elapsed().count() < kSilentWait || now < m_nextLook) {
        return;
    }
    m_nextLook = now + kLookInterval;
    std::string waiting = "waiting: ";
    if (IsTarnRunning()) {
        waiting += std::string("tarn is running and sends no ") + m_thing;
    } else {
        const std::string missing = Missing();
        waiting += "tarn is not running" + (missing.empty() ? "" : "; " + missing);
    }
    if (waiting != m_waiting) {
        m_waiting = waiting;
        Say(waiting);
    }
}

void Monitor::Say(const std::string& text) {
    m_err << "tarnctl " << m_name << ": " << text << std::endl;
}

void Monitor::Write(const std::string& line) {
    m_out << (m_options.json ? line : CutToWidth(line, m_options.Width())) << std::endl;
    if (!m_out && !m_failed && !IsReaderGone(m_out)) {
        Fail(std::string("the output takes no more; the last ") + m_thing +
             " was taken and not shown");
    }
}

void Monitor::Fail(const std::string& reason) {
    Say(reason);
    m_failed = true;
}

void Monitor::TellDamaged(const std::string& text) {
    ++m_malformed;
    Say(text);
}

void Monitor::TellMalformed(const std::string& what, const std::string& reason,
                            std::span<const std::byte> bytes, const std::string& json) {
    TellDamaged("malformed " + what + " of " + Counted(bytes.size(), "byte") +
                " skipped: " + reason);
    if (m_options.json) {
        Write(json);
    }
}

}  // namespace tarnctl
