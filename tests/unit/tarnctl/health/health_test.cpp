#include "tarnctl/health/health.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/time.h>

#include "tarnctl/health/health_words.h"
#include "tarnctl/health/parts.h"
#include "unit/tarnctl/health/made_up_machine.h"

namespace tarnctl {
namespace {

using testing::HasSubstr;

constexpr uint64_t kTicks = MadeUpMachine::kTicks;
constexpr int kDaemon = MadeUpMachine::kDaemon;

class HealthTest : public testing::Test {
  protected:
    Health Look() { return HealthCollector(machine.places, 900).Look(); }
    // A file of this time, in seconds after the machine started.
    void Write(const std::string& name, double seconds, const std::string& text = "") {
        const std::string path = machine.dir.Write(name, text);
        const double time = MadeUpMachine::kBootTime + seconds;
        timeval times[2] = {};
        for (timeval& each : times) {
            each.tv_sec = static_cast<time_t>(time);
            each.tv_usec =
                static_cast<suseconds_t>((time - static_cast<double>(each.tv_sec)) * 1e6);
        }
        ASSERT_EQ(0, utimes(path.c_str(), times));
    }
    // A line of the log, so many seconds after the machine started.
    static std::string LogLine(int seconds, const std::string& message) {
        const auto time = static_cast<time_t>(MadeUpMachine::kBootTime) + seconds;
        tm parts = {};
        localtime_r(&time, &parts);
        char stamp[64];
        strftime(stamp, sizeof stamp, "%Y/%m/%d %H:%M:%S", &parts);
        return std::string(stamp) + ".000 T:14 " + message + "\n";
    }
    void AddDaemon(bool hasEventThread) {
        machine.AddProcess(kDaemon, "tarn", 'S', 0, 10 * kTicks);
        machine.AddThread(kDaemon, kDaemon + 1, 'S', 0, 10 * kTicks);
        if (hasEventThread) {
            machine.AddThread(kDaemon, kDaemon + 2, 'S', 0, 50 * kTicks);
        }
    }

    MadeUpMachine machine;
};

TEST_F(HealthTest, IsHadWithoutAnything) {
    const Health health = HealthCollector(machine.places, 900).Look();
    EXPECT_FALSE(health.daemon.isRunning.IsKnown());
    EXPECT_TRUE(health.alerts.isThere.Is(false));
    EXPECT_FALSE(health.loadTime.IsKnown());
    EXPECT_FALSE(health.log.losses.IsKnown());
    ASSERT_EQ(3U, health.rooms.size());
    EXPECT_TRUE(health.rooms[0].freeBytes.IsKnown());
    std::filesystem::remove_all(machine.dir.File("tmp"));
    EXPECT_THAT(Look().rooms[0].freeBytes.reason, HasSubstr("No such file"));
}

TEST_F(HealthTest, TakesTheYoungestThreadForTheLastLoad) {
    AddDaemon(true);
    Write("etc/tarn.conf", 49);
    Write("etc/tarn_event.conf", 51);
    const Health health = Look();
    EXPECT_TRUE(health.loadTime.Is(MadeUpMachine::kBootTime + 50));
    ASSERT_EQ(2U, health.files.size());
    EXPECT_TRUE(health.files[0].isNewer.Is(false));
    EXPECT_TRUE(health.files[1].isNewer.Is(true));
    EXPECT_TRUE(health.files[1].modifiedTime.Is(MadeUpMachine::kBootTime + 51));
}

TEST_F(HealthTest, TakesALoadThatTheLogTellsOf) {
    AddDaemon(true);
    Write("etc/tarn.conf", 3000);
    Write("etc/tarn_event.conf", 5000);
    machine.dir.Write("log/tarn.log", LogLine(4000, "Configuration reloaded."));
    const Health health = Look();
    EXPECT_TRUE(health.loadTime.Is(MadeUpMachine::kBootTime + 4000));
    EXPECT_TRUE(health.files[0].isNewer.Is(false));
    EXPECT_TRUE(health.files[1].isNewer.Is(true));
}

TEST_F(HealthTest, CannotSayWhatAReloadWithoutTraceHasLoaded) {
    AddDaemon(false);
    Write("etc/tarn.conf", 5, "tarn.log.level = 3\n");
    Write("etc/tarn_event.conf", 20);
    EXPECT_TRUE(Look().files[0].isNewer.Is(false));
    EXPECT_FALSE(Look().files[1].isNewer.IsKnown());
    EXPECT_THAT(Look().files[1].isNewer.reason, HasSubstr("tarn.log.level 4"));
    Write("etc/tarn.conf", 5, "tarn.log.level = 4\n");
    EXPECT_TRUE(Look().files[1].isNewer.Is(true));
    Write("etc/tarn.conf", 5, "tarn.log.level = 3\n");
    (void)Look();
}

TEST_F(HealthTest, DoesNotTakeATimeThatWasGivenToAFileForItsChange) {
    AddDaemon(true);
    machine.AddThread(kDaemon, kDaemon + 3, 'S', 0, 1);
    const double now = static_cast<double>(time(nullptr));
    Write("etc/tarn.conf", now + 100 - MadeUpMachine::kBootTime);
    const double modified = *Look().files[0].modifiedTime.value;
    EXPECT_GE(modified, now - 1);
    EXPECT_LT(modified, now + 50);
}

TEST_F(HealthTest, KnowsTheMotionFromTheSecondLookOn) {
    machine.dir.Write("tmp/EventQueueCRM2-0", std::string(4096, '\0'));
    HealthCollector collector(machine.places, 900);
    EXPECT_FALSE(collector.Look().queue.rings[0].motion.IsKnown());
    EXPECT_TRUE(collector.Look().queue.rings[0].motion.Is(RingMotion::kEmpty));
}

TEST_F(HealthTest, NeedsWhatTheRingsStillHaveToBeGiven) {
    constexpr uint64_t kRings = 0x800000 + 0x40000;
    constexpr uint64_t kSmallRoom = 1024 * 1024;
    EXPECT_EQ(kRings + kSmallRoom, Look().rooms[0].neededBytes);
    machine.dir.Write("tmp/EventQueueCRM2-1", std::string(0x40000, 'x'));
    EXPECT_EQ(0x800000 + kSmallRoom, Look().rooms[0].neededBytes);
    machine.dir.Write("tmp/EventQueueCRM2-1", std::string(0x20000, 'x'));
    EXPECT_EQ(0x800000 + 0x20000 + kSmallRoom, Look().rooms[0].neededBytes);
}

TEST_F(HealthTest, LooksAtTheDaemonsOwnPlaces) {
    const HealthPlaces places = DaemonHealthPlaces();
    EXPECT_EQ("/var/run/tarn0.pid", places.pidFile);
    EXPECT_EQ("/var/cache/qor-tarn/alerts.fifo", places.alertFifo);
    EXPECT_EQ("/var/tmp/EventQueueCRM", places.ringBase);
    EXPECT_EQ("/dev/shm/sem.EventQueueCRM.sem", places.semaphore);
    ASSERT_EQ(3U, places.peers.size());
    EXPECT_EQ("/etc/crm/AuxThread_crmMQ", places.peers[0].path);
}

TEST(LookFailure, SaysWhoMayLook) {
    EXPECT_EQ("/x: not permitted; run this as the superuser", LookFailure("/x", EACCES));
    EXPECT_EQ("/x: not permitted; run this as the superuser", LookFailure("/x", EPERM));
    EXPECT_EQ("/x: No such file or directory", LookFailure("/x", ENOENT));
}

TEST(HealthWords, ShowBytesInTheirUnit) {
    EXPECT_EQ("0 B", BytesText(0));
    EXPECT_EQ("1023 B", BytesText(1023));
    EXPECT_EQ("1.0 KiB", BytesText(1024));
    EXPECT_EQ("1.0 MiB", BytesText(1024 * 1024));
    EXPECT_EQ("1.5 MiB", BytesText(1536 * 1024));
    EXPECT_EQ("2.0 GiB", BytesText(uint64_t{2} << 30));
    EXPECT_EQ("2048.0 TiB", BytesText(uint64_t{2} << 50));
}

TEST(HealthWords, ShowAnAge) {
    EXPECT_EQ("00:00:59", AgeText(59.9));
    EXPECT_EQ("01:01:01", AgeText(3661));
    EXPECT_EQ("1 d 00:00:00", AgeText(86400));
    EXPECT_EQ("2 d 00:00:10", AgeText(2 * 86400 + 10));
}

TEST(HealthWords, ShowEachHolderOnce) {
    EXPECT_EQ("nobody", HoldersText({}));
    EXPECT_EQ("tarn 3, a\\x1Bb 4", HoldersText({{3, 1, "tarn"},
                                                {3, 2, "tarn"},
                                                {4, 1,
                                                 "a\x1b"
                                                 "b"}}));
}

TEST(HealthWords, ShowAShare) {
    EXPECT_DOUBLE_EQ(25.0, PercentOf(2, 8));
    EXPECT_DOUBLE_EQ(0.0, PercentOf(2, 0));
}

TEST_F(HealthTest, DoesNotTakeALoadOfAnEarlierDaemon) {
    AddDaemon(true);
    machine.dir.Write("log/tarn.log", LogLine(20, "Configuration reloaded."));
    EXPECT_TRUE(Look().loadTime.Is(MadeUpMachine::kBootTime + 50));
}

TEST_F(HealthTest, AllowsForATickOfTheClock) {
    AddDaemon(true);
    Write("etc/tarn.conf", 50.01);
    Write("etc/tarn_event.conf", 50.05);
    const Health health = Look();
    EXPECT_TRUE(health.files[0].isNewer.Is(false));
    EXPECT_TRUE(health.files[1].isNewer.Is(true));
}

TEST_F(HealthTest, CountsAnOldLossAsOld) {
    machine.dir.Write("log/tarn.log", LogLine(20, "EventBridge event queue is full."));
    const Health health = Look();
    ASSERT_EQ(1U, health.log.losses.value->size());
    EXPECT_EQ(1U, health.log.losses.value->front().count);
    EXPECT_EQ(0U, health.log.losses.value->front().recentCount);
}

TEST_F(HealthTest, LooksForRoomWhereTheLogIs) {
    machine.places.logFile = "/tarn.log";
    EXPECT_EQ("/", Look().rooms[2].path);
    machine.places.logFile = "tarn.log";
    EXPECT_EQ(".", Look().rooms[2].path);
    Write("etc/tarn.conf", 5, "tarn.log.maxfilesize = 4000\n");
    EXPECT_EQ(1024U * 1024, Look().rooms[2].neededBytes);
    Write("etc/tarn.conf", 5, "tarn.log.maxfilesize = 2097152\n");
    EXPECT_EQ(2097152U, Look().rooms[2].neededBytes);
}

}  // namespace
}  // namespace tarnctl
