#include <fcntl.h>
#include <gmock/gmock.h>

#include <ctime>

#include "support/source_dir.h"
#include "tarnctl/health/loss_kinds.h"
#include "tarnctl/health/parts.h"
#include "unit/tarnctl/health/made_up_machine.h"

namespace tarnctl {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr time_t kMorning = 1'795'250'000;

std::string Line(time_t time, const std::string& message) {
    tm parts = {};
    localtime_r(&time, &parts);
    char stamp[64];
    strftime(stamp, sizeof stamp, "%Y/%m/%d %H:%M:%S", &parts);
    return std::string(stamp) + ".250 T:140737353844544 " + message + "\n";
}

class LogHealthTest : public testing::Test {
  protected:
    LogHealth Look(double recentSince = kMorning) {
        return LookAtLog(*machine.places.logFile, ProcessTable(machine.places.proc),
                         MadeUpMachine::kDaemon, recentSince);
    }
    void Write(const std::string& text) { machine.dir.Write("log/tarn.log", text); }

    MadeUpMachine machine;
};

TEST(LossKinds, HaveNamesOfTheirOwn) {
    std::vector<std::string> names;
    for (const LossKind& kind : LossKinds()) {
        names.emplace_back(kind.name);
        EXPECT_EQ(&kind - LossKinds().data(), LossKindOf(std::string(kind.beginning) + "x"));
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names.end(), std::unique(names.begin(), names.end()));
}

TEST(LossKinds, AreTextsOfTheDaemon) {
    std::string sources;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(SourceDir() + "/src")) {
        if (entry.path().extension() == ".cpp") {
            sources += ReadFile(entry.path());
        }
    }
    for (const LossKind& kind : LossKinds()) {
        EXPECT_THAT(sources, HasSubstr("\"" + std::string(kind.beginning)));
    }
}

TEST(LossKinds, CountWhatAMessageCounts) {
    const auto kindOf = [](const char* message) {
        return LossKinds()[static_cast<size_t>(LossKindOf(message))];
    };
    const char* const dropped = "EventBridge drops 17 queued events during finalizing.";
    EXPECT_EQ(17U, LossesOf(kindOf(dropped), dropped));
    EXPECT_EQ(1U, LossesOf(kindOf("EventBridge drops "), "EventBridge drops some"));
    EXPECT_EQ(1U, LossesOf(kindOf("Partial event read: 60"), "Partial event read: 60"));
    EXPECT_EQ(-1, LossKindOf("Unable to process event."));
    EXPECT_EQ(-1, LossKindOf("x EventBridge event queue is full."));
}

TEST_F(LogHealthTest, SaysThatThereIsNone) {
    const LogHealth health = Look();
    EXPECT_FALSE(health.losses.IsKnown());
    EXPECT_THAT(health.losses.reason, HasSubstr("No such file"));
    EXPECT_TRUE(health.isWritten.Is(false));
}

TEST_F(LogHealthTest, CountsLossesByKindAndAge) {
    Write(Line(kMorning - 10, "EventBridge event queue is full.") +
          Line(kMorning + 1, "EventBridge event queue is full.") +
          Line(kMorning + 1, "Unable to process event.") +
          Line(kMorning + 2, "EventBridge drops 5 queued events during finalizing.") +
          Line(kMorning + 3, "fine"));
    const LogHealth health = Look();
    ASSERT_THAT(*health.losses.value, SizeIs(2));
    const LossHealth& full = health.losses.value->front();
    EXPECT_STREQ("queue-full", full.kind->name);
    EXPECT_EQ(2U, full.count);
    EXPECT_EQ(1U, full.recentCount);
    EXPECT_DOUBLE_EQ(kMorning + 1.25, full.lastTime);
    EXPECT_EQ(5U, health.losses.value->back().recentCount);
    EXPECT_DOUBLE_EQ(kMorning - 9.75, *health.firstTime.value);
    EXPECT_DOUBLE_EQ(kMorning + 3.25, *health.lastTime.value);
}

TEST_F(LogHealthTest, CountsAMessageOfTheVeryMoment) {
    Write(Line(kMorning, "EventBridge event queue is full."));
    EXPECT_EQ(1U, Look(kMorning + 0.25).losses.value->front().recentCount);
    EXPECT_EQ(0U, Look(kMorning + 0.26).losses.value->front().recentCount);
}

TEST_F(LogHealthTest, PassesOverWhatIsNoLine) {
    std::string unfinished = Line(kMorning, "Partial event read: 3");
    unfinished.pop_back();
    Write(
        "EventBridge event queue is full.\n\n2026/11/21 10:20 T:1 Partial event read: 1\n"
        "2026/11/21 10:20:30.250 X:1 Partial event read: 1\n" +
        Line(kMorning, "Snort says\nPartial event read: 3") + unfinished);
    EXPECT_THAT(*Look().losses.value, IsEmpty());
}

TEST_F(LogHealthTest, ReadsTheFormerFileFirst) {
    machine.dir.Write("log/tarn.log.001", Line(kMorning, "Received SEGV signal"));
    Write(Line(kMorning + 60, "tarn base address: 0x1"));
    const LogHealth health = Look();
    ASSERT_THAT(*health.losses.value, SizeIs(1));
    EXPECT_STREQ("fault-segv", health.losses.value->front().kind->name);
    EXPECT_DOUBLE_EQ(kMorning + 60.25, *health.lastTime.value);
}

TEST_F(LogHealthTest, ReadsTheTailOfALongFileFromAWholeLineOn) {
    std::string text = Line(kMorning, "EventBridge event queue is full.");
    const std::string filler = Line(kMorning, std::string(1000, 'x'));
    while (text.size() < 5U * 1024 * 1024) {
        text += filler;
    }
    machine.dir.Write("log/tarn.log.001", Line(kMorning, "Received SEGV signal"));
    Write(text + Line(kMorning + 5, "Partial event read: 1"));
    const LogHealth health = Look();
    ASSERT_THAT(*health.losses.value, SizeIs(1));
    EXPECT_STREQ("partial-read", health.losses.value->front().kind->name);
}

TEST_F(LogHealthTest, FindsTheLastLoad) {
    Write(Line(kMorning, "Enter event reader loop...") +
          Line(kMorning + 9, "Configuration reloaded.") + Line(kMorning + 10, "x"));
    EXPECT_TRUE(Look().reloadTime.Is(kMorning + 9.25));
    Write(Line(kMorning + 10, "x"));
    EXPECT_FALSE(Look().reloadTime.IsKnown());
}

TEST_F(LogHealthTest, KnowsWhetherTheDaemonWritesIt) {
    Write("");
    EXPECT_EQ("tarn does not run", Look().isWritten.reason);
    machine.AddProcess(MadeUpMachine::kDaemon, "tarn");
    EXPECT_TRUE(Look().isWritten.Is(false));
    machine.AddProcess(99, "tail");
    machine.AddDescriptor(99, 3, *machine.places.logFile, O_RDWR);
    EXPECT_TRUE(Look().isWritten.Is(false));
    machine.AddDescriptor(MadeUpMachine::kDaemon, 4, *machine.places.logFile, O_RDWR | O_APPEND);
    EXPECT_TRUE(Look().isWritten.Is(true));
}

}  // namespace
}  // namespace tarnctl
