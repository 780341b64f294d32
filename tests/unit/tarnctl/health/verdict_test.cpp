#include "tarnctl/health/verdict.h"

#include <gmock/gmock.h>

#include "unit/tarnctl/health/made_up_health.h"

namespace tarnctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class VerdictTest : public testing::Test {
  protected:
    // The judgement of two looks that found the same.
    Verdict Now() { return Judge(health, health, without, isStrict); }
    std::vector<std::string> Faults() { return NamesOf(Now().faults); }
    std::vector<std::string> Warnings() { return NamesOf(Now().warnings); }
    std::vector<std::string> Unknowns() { return NamesOf(Now().unknowns); }
    static std::vector<std::string> NamesOf(const std::vector<HealthFinding>& findings) {
        std::vector<std::string> names;
        for (const HealthFinding& finding : findings) {
            names.push_back(finding.name);
        }
        return names;
    }

    Health health = HealthyHealth();
    std::vector<std::string> without;
    bool isStrict = false;
};

TEST_F(VerdictTest, IsHealthyWhereAllIsWell) {
    EXPECT_EQ(HealthState::kHealthy, Now().State());
    EXPECT_THAT(Faults(), IsEmpty());
    EXPECT_THAT(Warnings(), IsEmpty());
    EXPECT_THAT(Unknowns(), IsEmpty());
}

TEST_F(VerdictTest, NamesADaemonThatDoesNotRun) {
    health.daemon.isRunning = Known(false, std::string("test"));
    EXPECT_THAT(Faults(), ElementsAre("daemon-not-running"));
    EXPECT_THAT(Now().faults.front().text, HasSubstr("left over and names 12"));
    health.daemon.pidFileNumber = Unknown<int>("f", "none");
    EXPECT_EQ("tarn does not run", Now().faults.front().text);
    health.daemon.isRunning = Unknown<bool>("/proc", "no processes");
    EXPECT_EQ(HealthState::kUnknown, Now().State());
    EXPECT_THAT(Unknowns(), ElementsAre("daemon"));
}

TEST_F(VerdictTest, NamesASecondDaemon) {
    health.daemon.others = Known(1, std::string("test"));
    EXPECT_THAT(Faults(), ElementsAre("daemons-many"));
}

TEST_F(VerdictTest, NamesAStoppedDaemonThatTwoLooksFindStopped) {
    Health stopped = health;
    stopped.daemon.threads.value->front().state = 'T';
    EXPECT_THAT(NamesOf(Judge(stopped, stopped, {}, false).faults), ElementsAre("daemon-stopped"));
    EXPECT_THAT(NamesOf(Judge(health, stopped, {}, false).faults), IsEmpty());
    EXPECT_THAT(NamesOf(Judge(stopped, health, {}, false).faults), IsEmpty());
}

TEST_F(VerdictTest, NamesAFifoWithoutReaderThatTwoLooksFindSo) {
    Health unread = health;
    unread.alerts.readers.value->clear();
    EXPECT_THAT(NamesOf(Judge(unread, unread, {}, false).faults), ElementsAre("alert-fifo-unread"));
    EXPECT_THAT(NamesOf(Judge(health, unread, {}, false).faults), IsEmpty());
    EXPECT_THAT(NamesOf(Judge(unread, health, {}, false).faults), IsEmpty());
    unread.daemon.isRunning = Known(false, std::string("test"));
    EXPECT_THAT(NamesOf(Judge(unread, unread, {}, false).faults),
                ElementsAre("daemon-not-running"));
}

TEST_F(VerdictTest, NamesAFifoThatTwoProcessesRead) {
    health.alerts.readers.value->push_back({12, 9, "tarn"});
    EXPECT_THAT(Faults(), IsEmpty());
    health.alerts.readers.value->push_back({13, 3, "cat"});
    EXPECT_THAT(Faults(), ElementsAre("alert-fifo-shared"));
    EXPECT_THAT(Now().faults.front().text, HasSubstr("(tarn 12, cat 13)"));
}

TEST_F(VerdictTest, NamesMissingFifos) {
    health.alerts.isThere = Known(false, std::string("test"));
    health.errors.isThere = Known(false, std::string("test"));
    EXPECT_THAT(Faults(), ElementsAre("alert-fifo-missing", "error-fifo-missing"));
}

TEST_F(VerdictTest, WarnsOfAFifoWithoutWriterAndOfOneThatFills) {
    health.alerts.writers.value->clear();
    EXPECT_THAT(Warnings(), ElementsAre("alert-fifo-unwritten"));
    health = HealthyHealth();
    health.alerts.unreadBytes = Known(uint64_t{32768}, std::string("test"));
    EXPECT_THAT(Warnings(), IsEmpty());
    health.alerts.unreadBytes = Known(uint64_t{32769}, std::string("test"));
    EXPECT_THAT(Warnings(), ElementsAre("alert-fifo-filling"));
    EXPECT_EQ(HealthState::kHealthy, Now().State());
    isStrict = true;
    EXPECT_THAT(Faults(), ElementsAre("alert-fifo-filling"));
    EXPECT_THAT(Warnings(), IsEmpty());
}

TEST_F(VerdictTest, NamesRingsThatAreMissingStuckOrFull) {
    RingHealth& ring = health.queue.rings[1];
    ring.motion = Known(RingMotion::kStuck, std::string("test"));
    ring.stuckReason = "why";
    EXPECT_THAT(Faults(), ElementsAre("ring-stuck"));
    EXPECT_EQ("/ring-1: why, and it did not move", Now().faults.front().text);
    ring.motion = Known(RingMotion::kMoving, std::string("test"));
    ring.usedBytes = Known(uint64_t{900}, std::string("test"));
    EXPECT_THAT(Faults(), IsEmpty());
    ring.usedBytes = Known(uint64_t{901}, std::string("test"));
    EXPECT_THAT(Faults(), ElementsAre("ring-full"));
    ring.isThere = Known(false, std::string("test"));
    EXPECT_THAT(Faults(), ElementsAre("ring-missing"));
    health.daemon.isRunning = Known(false, std::string("test"));
    EXPECT_THAT(Faults(), ElementsAre("daemon-not-running"));
}

TEST_F(VerdictTest, WarnsOfReportsThatNobodyTakes) {
    RingHealth& ring = health.queue.rings[0];
    ring.motion = Known(RingMotion::kWaiting, std::string("test"));
    EXPECT_THAT(Warnings(), ElementsAre("ring-waiting"));
    health.queue.semaphore = Known(0, std::string("test"));
    EXPECT_THAT(Warnings(), ElementsAre("ring-waiting", "semaphore-empty"));
}

TEST_F(VerdictTest, NamesEachPeerThatIsMissing) {
    health.queue.readers.value->clear();
    health.peers[0].isListening = Known(false, std::string("test"));
    health.peers[1].isListening = Known(false, std::string("test"));
    health.peers[1].isThere = Known(false, std::string("test"));
    EXPECT_THAT(Faults(), ElementsAre("crm-missing", "messages-missing", "secmgr-missing"));
    EXPECT_EQ("nobody receives at /messages: messages cannot be sent", Now().faults[1].text);
    EXPECT_EQ("no socket at /secmgr: rules cannot be sent", Now().faults[2].text);
    without = {"crm", "secmgr"};
    EXPECT_THAT(Faults(), ElementsAre("messages-missing"));
}

TEST_F(VerdictTest, NamesFilesThatAreNewerOrMissing) {
    health.files[1].isNewer = Known(true, std::string("test"));
    EXPECT_THAT(Faults(), ElementsAre("events-newer"));
    EXPECT_EQ("tarn_event.conf is newer than what is in force: a hangup loads it",
              Now().faults.front().text);
    health.files[0].modifiedTime = Unknown<double>("f", "f: No such file or directory");
    EXPECT_THAT(Faults(), ElementsAre("config-missing", "events-newer"));
}

TEST_F(VerdictTest, NamesALogThatIsNotWrittenAndRecentLosses) {
    health.log.isWritten = Known(false, std::string("test"));
    health.log.losses.value->push_back({&LossKinds()[0], 9, 0, 1.0});
    health.log.losses.value->push_back({&LossKinds()[1], 9, 4, 1.0});
    EXPECT_THAT(Faults(), ElementsAre("log-not-written", "log-partial-read"));
    EXPECT_THAT(Now().faults[1].text, testing::StartsWith("4 records that came in pieces, last"));
}

TEST_F(VerdictTest, NamesAFullDisk) {
    health.rooms[0].freeBytes = Known(uint64_t{99}, std::string("test"));
    EXPECT_THAT(Faults(), ElementsAre("room-rings"));
    health.rooms[0].freeBytes = Known(uint64_t{100}, std::string("test"));
    EXPECT_THAT(Faults(), IsEmpty());
}

TEST_F(VerdictTest, CannotSayWhereItCannotSee) {
    health.alerts.readers = Unknown<Holders>("s", "hidden");
    health.queue.rings[0].motion = Unknown<RingMotion>("s", "hidden");
    health.queue.readers = Unknown<Holders>("s", "hidden");
    health.queue.semaphore = Unknown<int>("s", "hidden");
    health.peers[0].isListening = Unknown<bool>("s", "hidden");
    health.files[0].isNewer = Unknown<bool>("s", "hidden");
    health.log.losses = Unknown<std::vector<LossHealth>>("s", "hidden");
    EXPECT_THAT(Unknowns(), ElementsAre("alert-fifo-readers", "ring", "crm", "semaphore",
                                        "messages", "config", "log"));
    EXPECT_EQ(HealthState::kUnknown, Now().State());
    health.daemon.others = Known(1, std::string("test"));
    EXPECT_EQ(HealthState::kUnhealthy, Now().State());
}

TEST_F(VerdictTest, DoesNotNeedHowFullTheFifoIs) {
    health.alerts.unreadBytes = Unknown<uint64_t>("s", "hidden");
    health.alerts.writers = Unknown<Holders>("s", "hidden");
    health.daemon.memoryBytes = Unknown<uint64_t>("s", "hidden");
    health.rooms[0].freeBytes = Unknown<uint64_t>("s", "hidden");
    EXPECT_EQ(HealthState::kHealthy, Now().State());
}

}  // namespace
}  // namespace tarnctl
