#include "tarnctl/selftest/selftest_command.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ostream>

#include "tarnctl/common/number_checks.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/health/health.h"
#include "tarnctl/health/health_options.h"
#include "tarnctl/selftest/live_trial.h"
#include "tarnctl/selftest/selftest_text.h"
#include "tarnctl/selftest/trial.h"

namespace tarnctl {
namespace {

constexpr int kExitProven = 0;
constexpr int kExitDead = 1;
constexpr int kExitUntried = 2;
constexpr int kSandboxFailed = 125;  // what the sandbox says of itself

constexpr const char* kExamples =
    R"(A daemon of its own runs in a sandbox with stand-ins for its four peers and gets three alerts and
a line of Snort's errors. The daemon of this machine is not touched. It needs bubblewrap and python3,
and any user may run it where the kernel allows user namespaces; elsewhere the superuser.
With --live one marked alert goes through the running daemon, and its CRM gets the report.
Exit status: 0 each leg is proven, 1 a leg is dead, 2 nothing could be tried.

Examples:
  tarnctl selftest                        each leg, proven or dead
  tarnctl selftest --json | jq .legs      one JSON object
  tarnctl selftest --without secmgr       what a dead leg looks like
  tarnctl selftest --live --sid 1000001   one alert through the running daemon)";

std::string OwnProgram() {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).string();
}

// The first of two places, relative to the folder of this program, that is there: the build's, and
// that of the installed package.
std::string FileBeside(const std::string& inBuild, const std::string& installed) {
    const std::filesystem::path folder = std::filesystem::path(OwnProgram()).parent_path();
    for (const std::string& name : {inBuild, installed}) {
        const std::filesystem::path path = (folder / name).lexically_normal();
        if (access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return "";
}

int Report(const TrialResult& result, const SelftestOptions& options, std::ostream& out,
           std::ostream& err) {
    if (options.json) {
        WriteSelftestJson(result, out);
    } else if (result.error.empty()) {
        WriteSelftestText(result, options, out);
    } else {
        err << "tarnctl selftest: " << result.error << "\n";
    }
    if (!result.error.empty()) {
        return kExitUntried;
    }
    return AreProven(result.legs) ? kExitProven : kExitDead;
}

int RunInside(const SelftestOptions& options, std::ostream& out, std::ostream& err) {
    TrialResult result;
    TrialOptions trial;
    trial.tarnctl = OwnProgram();
    trial.daemon = options.daemon;
    trial.folder = "/cache/selftest";
    trial.without = options.without;
    trial.killed = options.killed;
    std::error_code error;
    if (std::getenv("TARN_SANDBOX") == nullptr) {
        result.error = "--inside is for the process in the sandbox";
    } else if (!std::filesystem::create_directory(trial.folder, error)) {
        result.error = trial.folder + ": " + error.message();
    } else {
        result = RunTrial(trial);
    }
    return Report(result, options, out, err);
}

// Starts this program in the sandbox, with its own outputs. Returns an exit status, or -1 with
// errno when it cannot be started.
int RunInSandbox(std::vector<std::string> words) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    // The sandbox begins in the present folder, which this user may not be allowed to enter.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addchdir_np(&actions, "/");
    pid_t process = -1;
    const int error =
        posix_spawn(&process, words.front().c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        errno = error;
        return -1;
    }
    int status = 0;
    while (waitpid(process, &status, 0) == -1 && errno == EINTR) {
        if (StopRequested()) {
            kill(process, SIGTERM);  // the sandbox ends all that is in it
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : kSandboxFailed;
}

int RunOutside(const SelftestOptions& options, std::ostream& out, std::ostream& err) {
    TrialResult result;
    const std::string sandbox = options.sandbox.empty()
                                    ? FileBeside("sandbox", "../libexec/tarn/sandbox")
                                    : options.sandbox;
    const std::string daemon =
        options.daemon.empty() ? FileBeside("tarn", "../sbin/tarn") : options.daemon;
    if (sandbox.empty() || daemon.empty()) {
        result.error = sandbox.empty() ? "the sandbox is not installed beside this program; "
                                         "--sandbox names it"
                                       : "the daemon is not installed beside this program; "
                                         "--daemon names it";
        return Report(result, options, out, err);
    }
    std::vector<std::string> words = {std::filesystem::absolute(sandbox),
                                      OwnProgram(),
                                      "selftest",
                                      "--inside",
                                      "--daemon",
                                      std::filesystem::absolute(daemon),
                                      "--color",
                                      options.color ? "always" : "never"};
    if (options.json) {
        words.emplace_back("--json");
    }
    for (const std::string& name : options.without) {
        words.insert(words.end(), {"--without", name});
    }
    for (const std::string& name : options.killed) {
        words.insert(words.end(), {"--kill", name});
    }
    const int status = RunInSandbox(words);
    if (status == -1 || status == kSandboxFailed) {
        const int error = errno;
        const bool isThere = access(sandbox.c_str(), X_OK) == 0;
        result.error = sandbox + ": " +
                       (status != -1 ? "the sandbox cannot be made here; it needs bubblewrap and "
                                       "user namespaces, or the superuser"
                        : error == ENOENT && isThere ? "what runs it is missing: install python3"
                                                     : std::strerror(error));
        return Report(result, options, out, err);
    }
    return status;
}

int RunLive(const SelftestOptions& options, std::ostream& out, std::ostream& err) {
    LiveOptions live;
    live.signature = options.signature;
    live.withQuarantine = options.withQuarantine;
    live.places = DaemonHealthPlaces();
    return Report(RunLiveTrial(live,
                               [&err](const std::string& text) {
                                   err << "tarnctl selftest: " << text << "\n" << std::flush;
                               }),
                  options, out, err);
}

}  // namespace

CLI::App* AddSelftestCommand(CLI::App& app, SelftestOptions& options) {
    CLI::App* const command =
        app.add_subcommand("selftest", "Prove each way through tarn, or name the dead one");
    command->add_flag("--json", options.json, "One JSON object");
    CLI::Option* const live = command->add_flag("--live", options.live,
                                                "Send one marked alert through the running daemon");
    CLI::Option* const signature =
        command
            ->add_option("--sid", options.signature,
                         "With --live: the alert's signature, which needs an entry in force")
            ->type_name("N")
            ->check(WholeNumber(1, UINT32_MAX))
            ->needs(live);
    live->needs(signature);
    command
        ->add_flag("--with-quarantine", options.withQuarantine,
                   "With --live: the entry may ask for a quarantine")
        ->needs(live);
    command->add_option("--daemon", options.daemon, "The daemon to be tried")
        ->type_name("FILE")
        ->excludes(live);
    command->add_option("--sandbox", options.sandbox, "The script that makes the sandbox")
        ->type_name("FILE")
        ->excludes(live);
    command->add_option("--without", options.without, "A stand-in that is not started")
        ->type_name(kPartChoice)
        ->check(IsPart())
        ->excludes(live);
    command
        ->add_option("--kill", options.killed, "A stand-in that is killed before the first alert")
        ->type_name(kPartChoice)
        ->check(IsPart())
        ->excludes(live);
    command->add_flag("--inside", options.inside)->group("");
    command->footer(kExamples);
    return command;
}

int RunSelftest(const SelftestOptions& options, std::ostream& out, std::ostream& err) {
    if (options.inside) {
        return RunInside(options, out, err);
    }
    return options.live ? RunLive(options, out, err) : RunOutside(options, out, err);
}

}  // namespace tarnctl
