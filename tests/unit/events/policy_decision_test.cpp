#include "events/policy_decision.h"

#include <netinet/in.h>

#include <cstdint>
#include <initializer_list>
#include <limits>
#include <list>
#include <string>

#include "crm/crm_event_source.h"
#include "support/levelled_log.h"
#include "support/log_capture.h"

namespace {

using tarn::policy::BlockDecision;
using tarn::policy::BlockOutcome;
using tarn::policy::CaptureOutcome;
using tarn::policy::DecideBlock;
using tarn::policy::DecideCapture;
using tarn::policy::DecideQuarantine;
using tarn::policy::DecideReport;
using tarn::policy::QuarantineOutcome;
using TextFault = QuarantineRule::TextFault;

constexpr uint64_t kEventTime = 1794495600;  // 2026-11-12T15:00:00Z

CrmEventSource Source(int version, uint16_t protocol) {
    CrmEventSource source(version);
    source.SetIssueId(1100);
    source.SetEventTime(kEventTime);
    source.SetProtocol(protocol);
    source.SetSourceIp(htonl(0x0A000001));
    source.SetDestinationIp(htonl(0x0A000002));
    source.SetSourcePort(1025);
    source.SetDestinationPort(80);
    source.SetIcmp(8, 3);
    return source;
}

BlockDecision Decide(const CrmEventSource& source, uint32_t flags, uint64_t duration = 60) {
    BlockRule rule;
    rule.flags = flags;
    rule.duration = duration;
    return DecideBlock(source, rule);
}

TEST(DecideReport, TakesNameResponseFlagsAndSeverityFromTheEntry) {
    Node entry(7);
    entry.eventName = "Name";
    entry.userResponse = "WithRaw, and more of it";
    entry.userResponseFlags = kUserResponseWithRaw | kUserResponseWithoutRaw;
    entry.severity = kSeverityHigh;
    const auto report = DecideReport(8, &entry);
    EXPECT_EQ("Name", report.eventName);
    EXPECT_EQ("WithRaw, and more of it", report.userResponse);
    EXPECT_EQ(kUserResponseWithRaw | kUserResponseWithoutRaw, report.userResponseFlags);
    EXPECT_EQ(kSeverityHigh, report.severity);
}

TEST(DecideReport, NamesASignatureWithoutAnEntryByItsNumber) {
    const auto report = DecideReport(4294967295U, nullptr);
    EXPECT_EQ("Unknown Snort Event (4294967295)", report.eventName);
    EXPECT_EQ("DISPLAY:WithoutRaw", report.userResponse);
    EXPECT_EQ(0u, report.userResponseFlags);
    EXPECT_EQ(kSeverityLow, report.severity);
}

TEST(DecideQuarantine, AsksForTheBitOfTheTraffic) {
    const std::list<BlockRule> rules(1);
    for (const int protocol : std::initializer_list<int>{IPPROTO_ICMP, IPPROTO_ICMPV6}) {
        EXPECT_EQ(QuarantineOutcome::kConsidered, DecideQuarantine(protocol, 0x08, rules));
        EXPECT_EQ(QuarantineOutcome::kNoResponse, DecideQuarantine(protocol, 0xF7, rules));
    }
    for (const int protocol :
         std::initializer_list<int>{IPPROTO_TCP, IPPROTO_UDP, 0, IPPROTO_GRE}) {
        EXPECT_EQ(QuarantineOutcome::kConsidered, DecideQuarantine(protocol, 0x04, rules));
        EXPECT_EQ(QuarantineOutcome::kNoResponse, DecideQuarantine(protocol, 0xFB, rules));
    }
}

TEST(DecideQuarantine, TellsAnEntryWithoutRulesFromOneWithoutAResponse) {
    EXPECT_EQ(QuarantineOutcome::kNoRules, DecideQuarantine(IPPROTO_TCP, 0x0C, {}));
    EXPECT_EQ(QuarantineOutcome::kNoResponse, DecideQuarantine(IPPROTO_TCP, 0, {}));
}

TEST(DecideBlock, GivesTheTextAndItsEnd) {
    const BlockDecision decision =
        Decide(Source(4, IPPROTO_TCP), kBlockIntruderAddress | kBlockVictimPort, 600);
    EXPECT_EQ(BlockOutcome::kSent, decision.outcome);
    EXPECT_EQ("ip intruder addr 10.0.0.1 tcp src port 0 dst port 80 expires 2026-11-12T15:10:00Z",
              decision.text);
    EXPECT_EQ(static_cast<std::time_t>(kEventTime + 600), decision.expiration);
    EXPECT_FALSE(decision.isDefaultEnd);
    EXPECT_FALSE(decision.lacksIntruder || decision.lacksVictim);
    EXPECT_EQ(TextFault::kNone, decision.textFault);
}

TEST(DecideBlock, EndsAnHourAfterTheEventWithoutADuration) {
    const BlockDecision decision = Decide(Source(4, IPPROTO_UDP), kBlockVictimAddress, 0);
    EXPECT_TRUE(decision.isDefaultEnd);
    EXPECT_EQ("ip victim addr 10.0.0.2 udp src port 0 dst port 0 expires 2026-11-12T16:00:00Z",
              decision.text);
}

TEST(DecideBlock, SubnetsStandForTheirAddresses) {
    const BlockDecision decision =
        Decide(Source(4, IPPROTO_ICMP), kBlockIntruderSubnet | kBlockVictimSubnet);
    EXPECT_EQ(
        kBlockIntruderSubnet | kBlockVictimSubnet | kBlockIntruderAddress | kBlockVictimAddress,
        decision.flags);
    EXPECT_EQ("ip intruder addr 10.0.0.1 victim addr 10.0.0.2 icmp expires 2026-11-12T15:01:00Z",
              decision.text);
}

TEST(DecideBlock, SaysWhyARuleDoesNotFit) {
    const CrmEventSource tcp = Source(4, IPPROTO_TCP);
    const CrmEventSource icmp = Source(4, IPPROTO_ICMP);
    EXPECT_EQ(BlockOutcome::kOtherFamily,
              Decide(tcp, kBlockIntruderAddress | kBlockIcmpType).outcome);
    EXPECT_EQ(BlockOutcome::kOtherFamily, Decide(tcp, kBlockIcmpCode).outcome);
    EXPECT_EQ(BlockOutcome::kOtherFamily, Decide(icmp, kBlockIntruderPort).outcome);
    EXPECT_EQ(BlockOutcome::kOtherFamily,
              Decide(icmp, kBlockVictimAddress | kBlockVictimPort).outcome);
    EXPECT_EQ(BlockOutcome::kNothingNamed, Decide(tcp, 0).outcome);
    EXPECT_EQ(BlockOutcome::kNothingNamed, Decide(icmp, kBlockIssue).outcome);
    EXPECT_EQ("", Decide(tcp, 0).text);
    EXPECT_EQ(0, Decide(tcp, 0).expiration);
}

TEST(DecideBlock, SaysWhyARuleHasNoText) {
    const BlockDecision mixed = Decide(Source(6, IPPROTO_ICMP), kBlockIcmpType);
    EXPECT_EQ(BlockOutcome::kNoText, mixed.outcome);
    EXPECT_EQ(TextFault::kProtocol, mixed.textFault);
    EXPECT_EQ("", mixed.text);

    const CrmEventSource tcp = Source(4, IPPROTO_TCP);
    constexpr uint64_t kToTheEnd = std::numeric_limits<uint64_t>::max();
    const BlockDecision wrapped = Decide(tcp, kBlockVictimPort, kToTheEnd - kEventTime + 1);
    EXPECT_EQ(BlockOutcome::kNoText, wrapped.outcome);
    EXPECT_EQ(0, wrapped.expiration);
    EXPECT_EQ(TextFault::kNoExpiration, wrapped.textFault);

    const BlockDecision far = Decide(tcp, kBlockVictimPort, uint64_t{1} << 62);
    EXPECT_EQ(BlockOutcome::kNoText, far.outcome);
    EXPECT_EQ(TextFault::kExpirationTime, far.textFault);
}

TEST(DecideBlock, AppliesWhereTheRuleFitsThoughItHasNoText) {
    using tarn::policy::Applies;
    EXPECT_TRUE(Applies(BlockOutcome::kSent));
    EXPECT_TRUE(Applies(BlockOutcome::kNoText));
    EXPECT_FALSE(Applies(BlockOutcome::kOtherFamily));
    EXPECT_FALSE(Applies(BlockOutcome::kNothingNamed));
    EXPECT_FALSE(Applies(BlockOutcome::kNoAddress));
    EXPECT_FALSE(Applies(BlockOutcome::kNoIpVersion));
}

TEST(DecideBlock, LogsNothing) {
    const LogCapture log(5);
    for (const uint16_t protocol :
         std::initializer_list<uint16_t>{IPPROTO_TCP, IPPROTO_ICMP, IPPROTO_GRE}) {
        for (const int version : {4, 6}) {
            for (uint32_t flags = 0; flags <= 0x1FF; ++flags) {
                (void)Decide(Source(version, protocol), flags, 0);
            }
            (void)Decide(Source(version, protocol), kBlockIntruderAddress, 0 - kEventTime);
        }
    }
    EXPECT_THAT(log.Messages(), testing::IsEmpty());
}

TEST(DecideCapture, WantsThePacketOfAnEntryThatAsksForEvidence) {
    EXPECT_EQ(CaptureOutcome::kRequested,
              DecideCapture(kUserResponseLogEvidence | kUserResponseLogPackets));
    EXPECT_EQ(CaptureOutcome::kNotAsked,
              DecideCapture(kUserResponseWithRaw | kUserResponseWithoutRaw));
}

TEST(DecideCapture, KeepsAWordForAScopeFromAskingForPackets) {
    for (const uint32_t scope :
         {kUserResponseLogConnection, kUserResponseLogInterface, kUserResponseLogAllInterfaces}) {
        EXPECT_EQ(CaptureOutcome::kScopeNamed, DecideCapture(kUserResponseLogEvidence | scope));
    }
}

TEST(CaptureReport, LabelsTheCopyOnly) {
    const CrmEventSource source = Source(4, IPPROTO_TCP);
    const EventReport labelled = tarn::policy::CaptureReport(source);
    EXPECT_STREQ("SNORT", labelled.userString);
    EXPECT_EQ(1100u, labelled.issueId);
    EXPECT_EQ(nullptr, source.GetReport().userString);
}

}  // namespace
