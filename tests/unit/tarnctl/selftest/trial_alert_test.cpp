#include "tarnctl/selftest/trial_alert.h"

#include <gtest/gtest.h>

#include <cstring>
#include <span>
#include <variant>

#include "config/config.h"
#include "config/event_rule_table.h"
#include "support/temp_dir.h"
#include "tarnctl/common/daemon_load.h"
#include "tarnctl/common/packet_summary.h"
#include "tarnctl/show/record_content.h"

namespace tarnctl {
namespace {

constexpr TrialAlert kAlert{kCaptureSignature, 9, 1'700'000'000, 50001, true};

// A big-endian number of a record.
uint32_t Word(const std::vector<std::byte>& record, size_t at) {
    uint32_t word = 0;
    std::memcpy(&word, record.data() + at, sizeof word);
    return __builtin_bswap32(word);
}

RecordContent ContentOf(const std::vector<std::byte>& record) {
    constexpr size_t kHeader = 8;
    EXPECT_EQ(record.size() - kHeader, Word(record, 4));
    RecordContent content;
    EXPECT_EQ("", DecodeRecord(Word(record, 0), std::span(record).subspan(kHeader), content));
    return content;
}

TEST(TrialAlertRecords, HoldTheAlertWithItsMark) {
    const auto event = std::get<EventContent>(ContentOf(RecordsOf(kAlert).front()));
    EXPECT_EQ(kCaptureSignature, event.signatureId);
    EXPECT_EQ(1U, event.generatorId);
    EXPECT_EQ(9U, event.eventId);
    EXPECT_EQ(1'700'000'000U, event.second);
    EXPECT_EQ("192.0.2.1", AddressText(event.source));
    EXPECT_EQ("198.51.100.2", AddressText(event.destination));
    EXPECT_EQ(50001, event.sourcePort);
    EXPECT_EQ(80, event.destinationPort);
    EXPECT_EQ(6, event.protocol);
}

TEST(TrialAlertRecords, HoldAPacketOfTheAlert) {
    const auto records = RecordsOf(kAlert);
    ASSERT_EQ(2U, records.size());
    const auto packet = std::get<PacketContent>(ContentOf(records.back()));
    EXPECT_EQ(9U, packet.eventId);
    EXPECT_EQ(1'700'000'000U, packet.eventSecond);
    EXPECT_EQ(1'700'000'000U, packet.second);
    EXPECT_EQ(uint32_t{kLinkEthernet}, packet.linkType);
    EXPECT_EQ(54U, packet.length);
    ASSERT_EQ(54U, packet.bytes.size());
    constexpr size_t kTotalLength = 14 + 2;  // of IPv4
    EXPECT_EQ(std::byte{0}, packet.bytes[kTotalLength]);
    EXPECT_EQ(std::byte{40}, packet.bytes[kTotalLength + 1]);
    EXPECT_EQ("192.0.2.1:50001 -> 198.51.100.2:80 TCP SYN",
              SummaryOf(packet.bytes, packet.linkType).line);
}

TEST(TrialAlertRecords, HaveNoPacketWhereNoneIsAskedFor) {
    TrialAlert alert = kAlert;
    alert.hasPacket = false;
    EXPECT_EQ(1U, RecordsOf(alert).size());
}

TEST(TrialConfiguration, IsWhatTheDaemonTakesForEachWayOut) {
    const TempDir dir;
    const DaemonLoad load;
    Config::s_stateFile = dir.File("none");
    Config::Load(dir.Write("tarn.conf", TrialConfig()).c_str(), Config::kMainFile);
    Config::Load(dir.Write("tarn_event.conf", TrialEvents()).c_str(), Config::kEventFile);
    EXPECT_EQ(3, Config::s_logLevel);
    EXPECT_EQ(3U, Config::s_eventTable.NodeCount());
    struct Expected {
        uint32_t signature;
        size_t blocks;
        bool isCaptured;
    };
    for (const auto& [signature, blocks, isCaptured] :
         {Expected{kReportSignature, 0, false}, Expected{kQuarantineSignature, 1, false},
          Expected{kCaptureSignature, 0, true}}) {
        const std::shared_ptr<Node> entry = Config::s_eventTable.Find(signature);
        ASSERT_NE(nullptr, entry) << signature;
        EXPECT_EQ("selftest", entry->eventName);
        EXPECT_EQ(blocks, entry->blockRules.size());
        EXPECT_EQ(blocks != 0, (entry->responseFlags & kResponseQuarantineTraffic) != 0);
        EXPECT_EQ(isCaptured, (entry->userResponseFlags & kUserResponseLogPackets) != 0);
    }
}

}  // namespace
}  // namespace tarnctl
