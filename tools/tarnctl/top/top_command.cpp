#include "tarnctl/top/top_command.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <memory>
#include <ostream>

#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/number_checks.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/health/health.h"
#include "tarnctl/health/health_options.h"
#include "tarnctl/health/report_trail.h"
#include "tarnctl/health/verdict.h"
#include "tarnctl/top/screen.h"
#include "tarnctl/top/top_view.h"

namespace tarnctl {
namespace {

using Clock = std::chrono::steady_clock;

// A writer at full speed comes round a ring in about a second; reports are followed much faster.
constexpr std::chrono::milliseconds kFollow(100);
constexpr double kRecentLosses = 60;  // seconds for which a loss is a fault
constexpr double kShortest = 0.1;     // seconds between two looks
constexpr double kLongest = 3600;

constexpr const char* kExamples =
    R"(Shows rates, losses, the fill of FIFO and rings, the CPU of each thread, and the ten busiest
signatures and sources of the last minute. Nothing is taken. q ends it.

Examples:
  tarnctl top                a look each second
  tarnctl top --interval 10  calmer)";

class Top {
  public:
    Top(const TopOptions& options, HealthPlaces places, Screen& screen)
        : m_options(options), m_collector(std::move(places), kRecentLosses), m_screen(screen) {}

    void Run() {
        Look();
        while (!StopRequested() && !TakeRequest(SIGQUIT)) {
            const Screen::Key key = m_screen.Wait(kFollow);
            if (key == Screen::Key::kQuit) {
                return;
            }
            Follow();
            if (Clock::now() >= m_nextLook) {
                Look();
            } else if (key == Screen::Key::kResized) {
                Draw();
            }
        }
    }

  private:
    void Look() {
        m_nextLook = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(m_options.interval));
        Health now = m_collector.Look();
        FollowRing(now.queue.rings.front().path);
        Verdict verdict = Judge(m_before ? *m_before : now, now, m_options.without, false);
        // The first look alone does not know whether a ring moves.
        if (!m_before) {
            verdict.unknowns.clear();
        }
        m_before = std::make_unique<Health>(now);
        m_view.Take(std::move(now), std::move(verdict));
        Draw();
    }

    void FollowRing(const std::string& path) {
        if (m_ringPath != path) {
            m_ringPath = path;
            m_trail = std::make_unique<ReportTrail>(path);
        }
        Follow();
    }

    void Follow() {
        const auto now = static_cast<double>(std::time(nullptr));
        if (!m_trail->Follow(
                [this, now](const EventReport& report) { m_view.Count(report, now); })) {
            m_view.CountMissed();
        }
    }

    void Draw() { m_screen.Draw(m_view.Lines(m_screen.Width(), m_screen.Height())); }

    const TopOptions& m_options;
    HealthCollector m_collector;
    Screen& m_screen;
    TopView m_view;
    std::string m_ringPath;
    std::unique_ptr<ReportTrail> m_trail;
    std::unique_ptr<Health> m_before;
    Clock::time_point m_nextLook;
};

}  // namespace

CLI::App* AddTopCommand(CLI::App& app, TopOptions& options) {
    CLI::App* const command =
        app.add_subcommand("top", "Show live on the whole terminal how tarn is and what it does");
    command->add_option("--interval", options.interval, "Seconds between two looks")
        ->type_name("S")
        ->check(Between(kShortest, kLongest))
        ->capture_default_str();
    AddWithoutOption(*command, options.without);
    AddPlaceOptions(*command, options.channel, options.logFile);
    command->footer(kExamples);
    return command;
}

int RunTop(const TopOptions& options, std::ostream& /*out*/, std::ostream& err) {
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
        err << "tarnctl top: needs a terminal for its input and its output; tarnctl status shows "
               "the same once\n";
        return kExitFailure;
    }
    CatchRequests(SIGQUIT);  // the terminal is put back before the end
    HealthPlaces places = DaemonHealthPlaces();
    places.channel = options.channel;
    places.logFile = options.logFile;
    std::string error;
    {
        Screen screen(options.color);
        error = screen.Error();
        if (error.empty()) {
            Top(options, std::move(places), screen).Run();
        }
    }
    if (!error.empty()) {
        err << "tarnctl top: " << error << "\n";
        return kExitFailure;
    }
    return kExitFine;
}

}  // namespace tarnctl
