#include "tarnctl/rings/known_rings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/file_text.h"
#include "support/private_channel.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace tarnctl {
namespace {

std::vector<std::string> PathsOf(const std::string& word) {
    std::vector<std::string> paths;
    for (const RingPlace& place : RingsNamed(word)) {
        paths.push_back(place.path);
    }
    return paths;
}

}  // namespace

TEST(RingsNamed, FindsTheRingsOfAChannel) {
    EXPECT_THAT(PathsOf("crm"),
                ElementsAre("/var/tmp/EventQueueCRM2-0", "/var/tmp/EventQueueCRM2-1"));
    EXPECT_THAT(PathsOf("crm12"),
                ElementsAre("/var/tmp/EventQueueCRM12-0", "/var/tmp/EventQueueCRM12-1"));
    EXPECT_THAT(PathsOf("crm0-1"), ElementsAre("/var/tmp/EventQueueCRM0-1"));
}

TEST(RingsNamed, FindsTheRingsOfThePacketLog) {
    EXPECT_THAT(PathsOf("packetlog"), ElementsAre("/var/run/packetLogData00"));
    EXPECT_THAT(PathsOf("packetlog7"), ElementsAre("/var/run/packetLogData07"));
    EXPECT_THAT(PathsOf("packetlog123"), ElementsAre("/var/run/packetLogData123"));
}

TEST(RingsNamed, TakesWhatHasASlashForAPath) {
    EXPECT_THAT(PathsOf("./crm"), ElementsAre("./crm"));
    EXPECT_THAT(PathsOf("/var/tmp/EventQueueCRM3-1"), ElementsAre("/var/tmp/EventQueueCRM3-1"));
}

TEST(RingsNamed, KnowsNoOtherWord) {
    for (const char* const word : {"", "ring", "crm-0", "crm-1-0", "crm2-2", "crmx", "crm 2",
                                   "crm+2", "packetlog-1", "packetlogx", "crm99999999999"}) {
        EXPECT_THAT(RingsNamed(word), IsEmpty()) << word;
    }
}

TEST(RingAt, KnowsARingByItsPath) {
    const RingPlace reports = RingAt("/var/tmp/EventQueueCRM3-1");
    EXPECT_EQ("crm3-1", reports.name);
    EXPECT_EQ(RingKind::kReports, reports.kind);
    EXPECT_EQ(3, reports.number);
    EXPECT_EQ(1, reports.half);
    EXPECT_EQ(0x40000U, reports.fileSize);
    EXPECT_EQ(0x800000U, RingAt("/var/tmp/EventQueueCRM3-0").fileSize);
    const RingPlace packets = RingAt("/var/run/packetLogData04");
    EXPECT_EQ("packetlog4", packets.name);
    EXPECT_EQ(RingKind::kPackets, packets.kind);
    EXPECT_EQ(0x9c4000U, packets.fileSize);
}

TEST(RingAt, HasNoNameForAnyOtherPath) {
    for (const char* const path :
         {"/var/tmp/EventQueueCRM3", "/var/tmp/EventQueueCRM-0", "/var/tmp/EventQueueCRMx-0",
          "/var/tmp/EventQueueABC3-0", "/var/run/packetLogData4", "/var/run/packetLogData", "x"}) {
        const RingPlace place = RingAt(path);
        EXPECT_EQ(path, place.name);
        EXPECT_EQ(path, place.path);
        EXPECT_EQ(RingKind::kUnknown, place.kind);
        EXPECT_EQ(0U, place.fileSize);
    }
}

TEST(RingsHere, FindsWhatIsThere) {
    const PrivateChannel channel;
    WriteFile(channel.RingBase() + "-1", std::string(100, '\0'));
    WriteFile(channel.RingBase() + "-0", std::string(100, '\0'));
    std::vector<std::string> mine;
    for (const RingPlace& place : RingsHere()) {
        EXPECT_EQ(0, access(place.path.c_str(), F_OK));
        if (place.number == channel.Id()) {
            mine.push_back(place.path);
        }
    }
    EXPECT_THAT(mine, ElementsAre(channel.RingBase() + "-0", channel.RingBase() + "-1"));
}

TEST(LengthFunction, IsThatOfTheKind) {
    EXPECT_TRUE(LengthFunction(RingKind::kReports));
    EXPECT_TRUE(LengthFunction(RingKind::kPackets));
    EXPECT_FALSE(LengthFunction(RingKind::kUnknown));
}

}  // namespace tarnctl
