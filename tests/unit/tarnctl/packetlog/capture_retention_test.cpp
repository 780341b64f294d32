#include "tarnctl/packetlog/capture_retention.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "support/temp_dir.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

namespace tarnctl {
namespace {

constexpr time_t kNow = 1700000000;
constexpr time_t kDay = 86400;

class CaptureRetention : public testing::Test {
  protected:
    // A file of so many bytes, written to so many seconds before now.
    void Make(const std::string& name, time_t age, size_t bytes = 100) {
        m_dir.Write(name, std::string(bytes, 'x'));
        const timespec times[2] = {{0, UTIME_OMIT}, {kNow - age, 0}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, m_dir.File(name).c_str(), times, 0));
    }
    std::set<std::string> Left() {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path())) {
            names.insert(entry.path().filename().string());
        }
        return names;
    }
    KeepOutcome Keep(const KeepLimits& limits, const std::vector<CaptureName>& inUse = {}) {
        return KeepWithin(limits, m_dir.Path().string(), kNow, inUse);
    }
    time_t ChangedOf(const std::string& name) {
        struct stat status = {};
        EXPECT_EQ(0, stat(m_dir.File(name).c_str(), &status));
        return status.st_mtime;
    }

    TempDir m_dir;
};

TEST_F(CaptureRetention, DeletesWhatIsOlderThanItsDays) {
    Make("event-1.pcap", 3 * kDay + 1);
    Make("event-2.pcap", 3 * kDay);
    Make("event-3.pcap", 0);
    const KeepOutcome outcome = Keep({.days = 3});
    EXPECT_EQ(1u, outcome.files);
    EXPECT_EQ(100u, outcome.bytes);
    EXPECT_EQ("", outcome.error);
    EXPECT_THAT(Left(), ElementsAre("event-2.pcap", "event-3.pcap"));
}

TEST_F(CaptureRetention, DeletesTheOldestAboveItsBytes) {
    Make("event-1.pcap", 10, 300);
    Make("event-2.pcap", 30, 300);
    Make("event-3.pcap", 20, 300);
    EXPECT_EQ(0u, Keep({.bytes = 900}).files);
    EXPECT_EQ(1u, Keep({.bytes = 899}).files);
    EXPECT_THAT(Left(), ElementsAre("event-1.pcap", "event-3.pcap"));
    EXPECT_EQ(2u, Keep({.bytes = 1}).files);
}

TEST_F(CaptureRetention, DeletesTheOldestOfTooMany) {
    for (int number = 1; number <= 5; ++number) {
        Make("event-" + std::to_string(number) + ".pcapng", number);
    }
    EXPECT_EQ(0u, Keep({.files = 5}).files);
    EXPECT_EQ(2u, Keep({.files = 3}).files);
    EXPECT_THAT(Left(), ElementsAre("event-1.pcapng", "event-2.pcapng", "event-3.pcapng"));
}

TEST_F(CaptureRetention, WithoutALimitDeletesNothing) {
    Make("all.1.pcap", 1000 * kDay);
    EXPECT_EQ(0u, Keep({}).files);
    EXPECT_TRUE(KeepLimits{}.AreNone());
}

TEST_F(CaptureRetention, LeavesWhatIsBeingWritten) {
    Make("all.pcap", 5 * kDay, 1000);
    Make("event-7.pcap", 4 * kDay, 1000);
    Make("event-7.1.pcap", 3 * kDay, 1000);
    const std::vector<CaptureName> inUse = {{std::nullopt, CaptureFormat::kPcap, 0},
                                            {7, CaptureFormat::kPcap, 0}};
    EXPECT_EQ(1u, Keep({.days = 1, .bytes = 1, .files = 1}, inUse).files);
    EXPECT_THAT(Left(), ElementsAre("all.pcap", "event-7.pcap"));
}

TEST_F(CaptureRetention, LeavesWhatIsNotItsOwn) {
    Make("notes.txt", 100 * kDay);
    Make("event-7.pcap.gz", 100 * kDay);
    Make("event-07.pcap", 100 * kDay);
    EXPECT_EQ(0u, Keep({.days = 1, .bytes = 1, .files = 1}).files);
    EXPECT_EQ(3u, Left().size());
}

TEST_F(CaptureRetention, GoesByTheNumbersWhereTheClockWasSetBack) {
    Make("event-7.2.pcap", 10);
    Make("event-7.1.pcap", 20);
    Make("event-7.pcap", 30);
    EXPECT_EQ(1u, Keep({.files = 2}).files);
    EXPECT_THAT(Left(), ElementsAre("event-7.1.pcap", "event-7.pcap"));
    EXPECT_EQ(1u, Keep({.files = 1}).files);
    EXPECT_THAT(Left(), ElementsAre("event-7.pcap"));
}

TEST_F(CaptureRetention, GoesByTheNumbersWhereTimesAreTheSame) {
    Make("all.1.pcap", 10);
    Make("all.10.pcap", 10);
    Make("all.9.pcap", 10);
    EXPECT_EQ(1u, Keep({.files = 2}).files);
    EXPECT_THAT(Left(), ElementsAre("all.1.pcap", "all.9.pcap"));
}

TEST_F(CaptureRetention, TakesTheSetsOfTwoFormatsApart) {
    Make("event-7.pcap", 5 * kDay);
    Make("event-7.1.pcapng", 0);
    EXPECT_EQ(1u, Keep({.days = 1}).files);
    EXPECT_THAT(Left(), ElementsAre("event-7.1.pcapng"));
}

TEST_F(CaptureRetention, GivesAFileFromTheFutureThePresentTime) {
    Make("event-1.pcap", -400 * kDay);
    Make("event-2.pcap", 10);
    EXPECT_EQ(0u, Keep({.days = 1}).files);
    EXPECT_EQ(kNow, ChangedOf("event-1.pcap"));
    EXPECT_EQ(kNow - 10, ChangedOf("event-2.pcap"));
    EXPECT_EQ(2u, KeepWithin({.days = 1}, m_dir.Path().string(), kNow + 2 * kDay, {}).files);
}

TEST_F(CaptureRetention, SaysWhyItCannotDelete) {
    EXPECT_THAT(KeepWithin({.days = 1}, m_dir.File("missing"), kNow, {}).error,
                HasSubstr("No such file or directory"));
}

}  // namespace
}  // namespace tarnctl
