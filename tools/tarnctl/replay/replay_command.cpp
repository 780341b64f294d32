#include "tarnctl/replay/replay_command.h"

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>
#include <thread>
#include <vector>

#include "paths.h"
#include "tarnctl/common/alert_fifo.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/daemon_process.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/number_checks.h"
#include "tarnctl/common/pacer.h"
#include "tarnctl/common/processors.h"
#include "tarnctl/common/progress_bar.h"
#include "tarnctl/common/record_file.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/tarn_process.h"
#include "tarnctl/replay/record_time.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(The rate counts alerts; the packet and extra data records after an alert go with it.
At the default rate a tarn with default settings drops nothing, as long as somebody reads
its reports (tarnctl crm). With --loop the records are played again as they are: the event
ids start over with the file.

Examples:
  tarnctl replay samples/sensor-302-alerts.u2
  tarnctl replay --rate 20 --loop 10 alerts.u2
  tarnctl replay --rate max --json alerts.u2
  tarnctl replay --now alerts.u2              as if it were now, so that quarantine can be tried
  tarnctl replay --wait 5 alerts.u2           for a tarn that is just starting
  zcat alerts.u2.gz | tarnctl replay -)";

using Clock = std::chrono::steady_clock;

// Reads the value of --rate.
std::string ParseRate(const std::string& text, double& rate) {
    if (text == "max") {
        rate = 0.0;
        return {};
    }
    const bool isNumber = CLI::detail::lexical_cast(text, rate);
    return isNumber && rate > 0 && rate <= 1e9
               ? std::string()
               : "--rate: " + text + " is neither max nor a number above 0";
}

class Replay {
  public:
    Replay(const ReplayOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options),
          m_out(out),
          m_fifo(options.fifo.empty() ? tarn::paths::kAlertFifo : options.fifo, LimitsOf(options)),
          m_pacer(options.rate),
          m_err(err),
          m_bar(err, options) {}

    int Run() {
        auto started = Clock::now();
        const auto tell = [this](const std::string& text) { Tell(text); };
        m_file.TellWaits(tell);
        m_fifo.TellWaits(tell);
        // A file that is none is named as such, whether or not anybody reads the FIFO.
        if (!m_file.Open(m_options.file) || m_file.Next() == RecordResult::kForeign ||
            !m_file.Rewind()) {
            m_error = m_file.Error();
        } else if (Accept(m_fifo.Open())) {
            if (const auto daemon = FindDaemon(m_options.fifo)) {
                Processors().KeepOff(daemon->pid);
            }
            started = Clock::now();
            PlayAll();
        }
        m_bar.Clear();
        if (!m_error.empty()) {
            Tell(m_error);
        }
        const std::chrono::duration<double> seconds = Clock::now() - started;
        m_out << (m_options.json ? JsonSummary(seconds.count()) : Summary(seconds.count()))
              << std::endl;
        return m_error.empty() && m_out ? kExitFine : kExitFailure;
    }

  private:
    static AlertFifo::Limits LimitsOf(const ReplayOptions& options) {
        AlertFifo::Limits limits;
        limits.open = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(options.wait));
        limits.reopen = std::max(limits.open, limits.reopen);
        return limits;
    }

    void Tell(const std::string& text) {
        m_bar.Clear();
        m_err << "tarnctl replay: " << text << std::endl;
    }

    // Notes why the FIFO did not do what it was asked. True when it did.
    bool Accept(FifoResult result) {
        if (result == FifoResult::kStopped) {
            m_error = "interrupted; the rest has not been sent";
        } else if (result == FifoResult::kFailed) {
            m_error = m_fifo.Error();
        }
        return result == FifoResult::kDone;
    }

    void PlayAll() {
        bool goesOn = true;
        for (uint64_t pass = 0; goesOn && pass < m_options.loop; ++pass) {
            if (pass > 0 && !m_file.Rewind()) {
                m_error = m_file.Error();
                goesOn = false;
            } else {
                goesOn = PlayOnce(pass);
            }
        }
        // What was whole in a damaged file is to reach the daemon too.
        const std::string fault = m_error;
        if (m_fifoIsGood && !Accept(m_fifo.Drain()) && !fault.empty()) {
            m_error = fault + "; " + m_error;
        }
    }

    // Waits for the next place in the timetable, in steps short enough for Ctrl-C.
    void KeepPace() {
        constexpr Clock::duration kStep = std::chrono::milliseconds(100);
        const auto due = Clock::now() + m_pacer.DelayBeforeNext(Clock::now());
        if (due - Clock::now() > std::chrono::milliseconds(kSilentWait) && !m_saysPace) {
            m_saysPace = true;
            Tell("waiting: --rate leaves more than " + std::to_string(kSilentWait) +
                 " ms between two alerts");
        }
        for (auto now = Clock::now(); now < due && !StopRequested(); now = Clock::now()) {
            std::this_thread::sleep_for(std::min(kStep, due - now));
        }
    }

    bool PlayOnce(uint64_t pass) {
        while (true) {
            switch (m_file.Next()) {
                case RecordResult::kRecord:
                    break;
                case RecordResult::kEnd:
                    return true;
                case RecordResult::kTruncated:
                    m_error = m_file.Error() + "; what comes before it was sent";
                    return false;
                case RecordResult::kStopped:
                    return Accept(FifoResult::kStopped);
                default:
                    m_error = m_file.Error();
                    return false;
            }
            if (m_file.IsAlert()) {
                KeepPace();
            }
            m_fifoIsGood = Accept(StopRequested() ? FifoResult::kStopped : Send());
            if (!m_fifoIsGood) {
                m_error += ", at offset " + std::to_string(m_file.Offset()) + " of the file";
                return false;
            }
            ++m_records;
            m_alerts += m_file.IsAlert() ? 1 : 0;
            m_bytes += m_file.Bytes().size();
            ShowProgress(pass);
        }
    }

    // With --now what belongs to an alert leaves with the alert's time.
    FifoResult Send() {
        if (!m_options.now) {
            return m_fifo.Send(m_file.Bytes());
        }
        if (m_file.IsAlert() || m_time.second == 0) {
            constexpr int64_t kSecond = 1'000'000;  // in microseconds
            const int64_t now = std::chrono::duration_cast<std::chrono::microseconds>(
                                    std::chrono::system_clock::now().time_since_epoch())
                                    .count();
            m_time = {static_cast<uint32_t>(now / kSecond), static_cast<uint32_t>(now % kSecond)};
        }
        m_record = m_file.Bytes();
        SetRecordTime(m_file.Type(), m_time, m_record);
        return m_fifo.Send(m_record);
    }

    void ShowProgress(uint64_t pass) {
        const double inFile = m_file.Size() == 0 ? 0.0
                                                 : static_cast<double>(m_file.Position()) /
                                                       static_cast<double>(m_file.Size());
        m_bar.Show((static_cast<double>(pass) + inFile) / static_cast<double>(m_options.loop),
                   Counted(m_alerts, "alert"));
    }

    [[nodiscard]] std::string Summary(double seconds) const {
        std::ostringstream text;
        text << "sent " << Counted(m_records, "record") << " with " << Counted(m_alerts, "alert")
             << ", " << Counted(m_bytes, "byte") << ", in " << std::fixed << std::setprecision(2)
             << seconds << " seconds";
        return text.str();
    }

    [[nodiscard]] std::string JsonSummary(double seconds) const {
        nlohmann::ordered_json result = {
            {"records", m_records}, {"alerts", m_alerts}, {"bytes", m_bytes},
            {"seconds", seconds},   {"error", nullptr},
        };
        if (!m_error.empty()) {
            result["error"] = m_error;
        }
        // A file may have a name that is no UTF-8, and the error tells it.
        return result.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    }

    const ReplayOptions& m_options;
    std::ostream& m_out;
    RecordFile m_file;
    AlertFifo m_fifo;
    Pacer m_pacer;
    std::ostream& m_err;
    ProgressBar m_bar;
    bool m_fifoIsGood = true;
    bool m_saysPace = false;          // has said that it waits for the next alert's time
    RecordTime m_time;                // with --now: that of the last alert
    std::vector<std::byte> m_record;  // with --now: the record with its new time
    uint64_t m_records = 0;
    uint64_t m_alerts = 0;
    uint64_t m_bytes = 0;
    std::string m_error;  // the first failure; empty while all is well
};

}  // namespace

CLI::App* AddReplayCommand(CLI::App& app, ReplayOptions& options) {
    CLI::App* command = app.add_subcommand("replay", "Play a unified2 file into the alert FIFO");
    command->add_option("FILE", options.file, "unified2 file; - is standard input")->required();
    command
        ->add_option_function<std::string>(
            "--rate",
            [&options](const std::string& text) {
                const std::string fault = ParseRate(text, options.rate);
                if (!fault.empty()) {
                    throw CLI::ValidationError(fault);
                }
            },
            "Alerts a second, or max: as fast as tarn reads")
        ->type_name("N|max")
        ->default_str("500");
    command->add_option("--loop", options.loop, "Play the file N times")
        ->type_name("N")
        ->check(AboveZero())
        ->capture_default_str();
    command->add_option("--fifo", options.fifo, "Write to PATH instead of tarn's alert FIFO")
        ->type_name("PATH");
    command->add_option("--wait", options.wait, "Wait up to S seconds for the FIFO and its reader")
        ->type_name("S")
        ->check(ZeroOrMore());
    command->add_flag("--now", options.now, "Send the records with the present time in them");
    command->add_flag("--json", options.json, "Print the summary as a JSON object");
    command->footer(kExamples);
    return command;
}

int RunReplay(const ReplayOptions& options, std::ostream& out, std::ostream& err) {
    return Replay(options, out, err).Run();
}

}  // namespace tarnctl
