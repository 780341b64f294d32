#include <fcntl.h>
#include <gmock/gmock.h>

#include "config/config.h"
#include "tarnctl/health/parts.h"
#include "unit/tarnctl/health/made_up_machine.h"

namespace tarnctl {
namespace {

using testing::HasSubstr;

constexpr double kNow = MadeUpMachine::kBootTime + 100;
constexpr uint64_t kTicks = MadeUpMachine::kTicks;

class DaemonHealthTest : public testing::Test {
  protected:
    DaemonHealth Look() {
        const ProcessTable processes(machine.places.proc);
        return LookAtDaemon(machine.places, processes, MadeUpMachine::kBootTime, kNow);
    }
    DaemonSettings Settings(int daemon) {
        const ProcessTable processes(machine.places.proc);
        return LookAtSettings(machine.places, processes, daemon);
    }
    void WritePidFile(const std::string& text) { machine.dir.Write("run/tarn0.pid", text); }

    MadeUpMachine machine;
};

TEST_F(DaemonHealthTest, IsUnknownWithoutAnyProcess) {
    const DaemonHealth health = Look();
    EXPECT_FALSE(health.isRunning.IsKnown());
    EXPECT_THAT(health.isRunning.reason, HasSubstr("shows no processes"));
    EXPECT_FALSE(health.threads.IsKnown());
}

TEST_F(DaemonHealthTest, KnowsThatNoneRuns) {
    machine.AddProcess(7, "tarnctl");
    const DaemonHealth health = Look();
    EXPECT_TRUE(health.isRunning.Is(false));
    EXPECT_FALSE(health.pid.IsKnown());
    EXPECT_EQ("tarn does not run", health.pid.reason);
    EXPECT_FALSE(health.pidFileNumber.IsKnown());
}

TEST_F(DaemonHealthTest, TakesTheOneThatThePidFileNames) {
    machine.AddProcess(7, "tarn");
    machine.AddProcess(8, "tarn");
    WritePidFile("8\n");
    const DaemonHealth health = Look();
    EXPECT_TRUE(health.pid.Is(8));
    EXPECT_TRUE(health.others.Is(1));
    EXPECT_TRUE(health.pidFileNumber.Is(8));
}

TEST_F(DaemonHealthTest, DoesNotTakeAnotherProgramOfTheNumberInThePidFile) {
    machine.AddProcess(7, "cron");
    WritePidFile("7\n");
    EXPECT_TRUE(Look().isRunning.Is(false));
    machine.AddProcess(9, "tarn");
    EXPECT_TRUE(Look().pid.Is(9));  // in the background, its parent's number is in the file
}

TEST_F(DaemonHealthTest, TakesTheOneThatReadsTheAlerts) {
    ASSERT_EQ(0, mkfifo(machine.places.alertFifo.c_str(), 0600));
    machine.AddProcess(7, "tarn");
    machine.AddProcess(8, "tarn");
    machine.AddDescriptor(7, 3, machine.places.alertFifo, O_WRONLY);
    machine.AddDescriptor(8, 3, machine.places.alertFifo, O_RDONLY);
    EXPECT_TRUE(Look().pid.Is(8));
    machine.AddProcess(6, "cat");
    machine.AddDescriptor(6, 3, machine.places.alertFifo, O_RDONLY);
    EXPECT_TRUE(Look().pid.Is(8));
}

TEST_F(DaemonHealthTest, KnowsItByItsProgramFileToo) {
    machine.AddProcess(7, "renamed");
    std::filesystem::create_symlink("/opt/tarn", machine.dir.File("proc/7/exe"));
    EXPECT_TRUE(Look().pid.Is(7));
}

TEST_F(DaemonHealthTest, LeavesOutADaemonThatSeesOtherFiles) {
    machine.AddProcess(7, "tarn");
    std::filesystem::create_directory_symlink("/", machine.dir.File("proc/7/root"));
    EXPECT_TRUE(Look().pid.Is(7));
    std::filesystem::remove(machine.dir.File("proc/7/root"));
    std::filesystem::create_directory_symlink(machine.dir.Path(), machine.dir.File("proc/7/root"));
    EXPECT_TRUE(Look().isRunning.Is(false));
}

TEST_F(DaemonHealthTest, RefusesAPidFileWithoutANumber) {
    for (const char* text : {"", "x", "0", "-3"}) {
        WritePidFile(text);
        EXPECT_FALSE(Look().pidFileNumber.IsKnown()) << text;
        EXPECT_THAT(Look().pidFileNumber.reason, HasSubstr("holds no number"));
    }
}

TEST_F(DaemonHealthTest, TellsAgeMemoryAndThreads) {
    machine.AddProcess(7, "tarn", 'S', 0, 40 * kTicks);
    machine.AddThread(7, 11, 'R', 250, 90 * kTicks);
    const DaemonHealth health = Look();
    EXPECT_TRUE(health.ageSeconds.Is(60.0));
    EXPECT_TRUE(health.startTime.Is(MadeUpMachine::kBootTime + 40));
    EXPECT_TRUE(health.memoryBytes.Is(4740ULL * 1024));
    ASSERT_TRUE(health.threads.IsKnown());
    ASSERT_EQ(2U, health.threads.value->size());
    const ThreadHealth& second = health.threads.value->back();
    EXPECT_EQ(11, second.number);
    EXPECT_EQ('R', second.state);
    EXPECT_DOUBLE_EQ(2.57, second.cpuSeconds);
    EXPECT_DOUBLE_EQ(MadeUpMachine::kBootTime + 90, second.startTime);
}

TEST_F(DaemonHealthTest, SaysWhatItCannotRead) {
    machine.AddProcess(7, "tarn");
    std::filesystem::remove(machine.dir.File("proc/7/status"));
    std::filesystem::remove_all(machine.dir.File("proc/7/task"));
    const DaemonHealth health = Look();
    EXPECT_TRUE(health.isRunning.Is(true));
    EXPECT_FALSE(health.memoryBytes.IsKnown());
    EXPECT_FALSE(health.threads.IsKnown());
    EXPECT_THAT(health.threads.reason, HasSubstr("cannot be read"));
}

TEST_F(DaemonHealthTest, TakesTheFilesOfTheCommandLine) {
    machine.AddProcess(7, "tarn");
    using namespace std::string_literals;
    machine.SetCommandLine(7, "tarn\0-c\0/a.conf\0-n/b.conf\0-d\0"s);
    EXPECT_EQ("/a.conf", Settings(7).configFile);
    EXPECT_EQ("/b.conf", Settings(7).eventFile);
    machine.SetCommandLine(7, "tarn\0-c\0-n\0-n\0\0"s);
    EXPECT_EQ(machine.places.configFile, Settings(7).configFile);
    EXPECT_EQ(machine.places.eventFile, Settings(7).eventFile);
    EXPECT_EQ(machine.places.configFile, Settings(0).configFile);
    machine.SetCommandLine(7, "tarn\0-c\0/a.conf\0-c\0/b.conf\0"s);
    EXPECT_EQ("/b.conf", Settings(7).configFile);
    machine.SetCommandLine(7, "-c/name/of/the/program\0-d\0"s);
    EXPECT_EQ(machine.places.configFile, Settings(7).configFile);
}

TEST_F(DaemonHealthTest, ResolvesARelativeNameFromTheDaemonsFolder) {
    machine.AddProcess(7, "tarn");
    using namespace std::string_literals;
    machine.SetCommandLine(7, "tarn\0-c\0a.conf\0"s);
    std::filesystem::create_directory_symlink("/srv", machine.dir.File("proc/7/cwd"));
    EXPECT_EQ("/srv/a.conf", Settings(7).configFile);
}

TEST_F(DaemonHealthTest, TakesChannelAndLogFromTheConfigurationUnlessItIsTold) {
    machine.places.channel.reset();
    machine.places.logFile.reset();
    machine.dir.Write("etc/tarn.conf",
                      "# comment\ntarn.engine.crm = 6\ntarn.log.file = /x/y.log\n"
                      "tarn.log.maxfilesize = 4000\ntarn.log.level = 4\n");
    DaemonSettings settings = Settings(0);
    EXPECT_TRUE(settings.channel.Is(6));
    EXPECT_EQ(machine.places.configFile, settings.channel.source);
    EXPECT_EQ("/x/y.log", settings.logFile);
    EXPECT_EQ(4000U, settings.logBytes);
    EXPECT_EQ(4, settings.logLevel);
    machine.places.channel = 3;
    machine.places.logFile = "/told.log";
    settings = Settings(0);
    EXPECT_TRUE(settings.channel.Is(3));
    EXPECT_EQ("--channel", settings.channel.source);
    EXPECT_EQ("/told.log", settings.logFile);
    machine.places.channel.reset();
    std::filesystem::remove(machine.places.configFile);
    EXPECT_THAT(Settings(0).channel.source, HasSubstr("the default, since"));
    // What other tests start from.
    Config::ParseLine("tarn.engine.crm = 2", Config::kMainFile);
    Config::ParseLine("tarn.log.file = /cache/qor/tarn.log", Config::kMainFile);
    Config::ParseLine("tarn.log.maxfilesize = 2097152", Config::kMainFile);
    Config::ParseLine("tarn.log.level = 3", Config::kMainFile);
}

TEST_F(DaemonHealthTest, IsNoYoungerThanNow) {
    machine.AddProcess(7, "tarn", 'S', 0, 101 * kTicks);
    EXPECT_TRUE(Look().ageSeconds.Is(0.0));
}

TEST_F(DaemonHealthTest, TakesTheMainFileAfterTheStateFile) {
    machine.places.channel.reset();
    machine.dir.Write("etc/tarn.state", "tarn.engine.crm = 5\n");
    machine.dir.Write("etc/tarn.conf", "tarn.log.level = 3\n");
    EXPECT_TRUE(Settings(0).channel.Is(5));
    machine.dir.Write("etc/tarn.conf", "tarn.engine.crm = 6\n");
    EXPECT_TRUE(Settings(0).channel.Is(6));
    Config::ParseLine("tarn.engine.crm = 2", Config::kMainFile);  // what other tests start from
}

}  // namespace
}  // namespace tarnctl
