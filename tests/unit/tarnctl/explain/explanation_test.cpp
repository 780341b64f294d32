#include "tarnctl/explain/explanation.h"

#include <arpa/inet.h>

#include <string>
#include <vector>

#include "config/event_rule_node.h"
#include "crm/crm_event_source.h"

namespace {

using tarnctl::BlockExplanation;
using tarnctl::Explain;
using tarnctl::Explanation;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint64_t kEventTime = 1794495600;  // 2026-11-12T15:00:00Z

CrmEventSource Source(int version, uint16_t protocol) {
    CrmEventSource source(version);
    source.SetIssueId(7);
    source.SetEventTime(kEventTime);
    source.SetProtocol(protocol);
    source.SetSourceIp(htonl(0x0A000001));
    source.SetSourcePort(1025);
    source.SetDestinationPort(80);
    source.SetIcmp(8, 3);
    return source;
}

Node Entry(uint32_t blockFlags, uint64_t duration = 60) {
    Node entry(7);
    entry.eventName = "Name";
    entry.severity = kSeverityHigh;
    entry.rule = "alert";
    entry.responseFlags = kResponseQuarantineTraffic | kResponseQuarantineIcmp;
    entry.blockRules.push_back({blockFlags, duration, 0});
    return entry;
}

BlockExplanation Block(uint16_t protocol, uint32_t flags, uint64_t duration = 60, int version = 4) {
    const Node entry = Entry(flags, duration);
    return Explain(7, &entry, Source(version, protocol)).blockRules.at(0);
}

TEST(ExplainBlocking, GivesTheReasonOfARuleForTheOtherTraffic) {
    EXPECT_EQ("the entry asks for ports and this is ICMP", Block(1, kBlockVictimPort).reason);
    EXPECT_EQ("the entry asks for ports and this is ICMPv6",
              Block(58, kBlockIntruderPort, 60, 6).reason);
    EXPECT_EQ("the entry asks for an ICMP type or code and this is TCP",
              Block(6, kBlockIcmpType | kBlockIntruderAddress).reason);
    EXPECT_EQ("the entry asks for an ICMP type or code and this is protocol 47",
              Block(47, kBlockIcmpCode).reason);
}

TEST(ExplainBlocking, GivesTheReasonOfARuleThatNamesNothing) {
    EXPECT_EQ("the entry asks for neither an address nor a port nor an ICMP field",
              Block(6, 0).reason);
    EXPECT_EQ("the entry asks for the signature only, and rules for signatures are not supported",
              Block(6, kBlockIssue).reason);
}

TEST(ExplainBlocking, GivesTheReasonOfARuleThatCannotBeWritten) {
    EXPECT_THAT(Block(1, kBlockIcmpType, 60, 6).reason,
                HasSubstr("IP version 6 cannot name protocol 1"));
    EXPECT_THAT(Block(6, kBlockVictimPort, 0 - kEventTime).reason, HasSubstr("the time 0"));
    EXPECT_THAT(Block(6, kBlockVictimPort, uint64_t{1} << 62).reason, HasSubstr("no date"));
}

TEST(ExplainBlocking, GivesTextAndEndOfARuleThatIsSent) {
    const BlockExplanation block = Block(6, kBlockIntruderAddress);
    EXPECT_TRUE(block.isSent);
    EXPECT_EQ("", block.reason);
    EXPECT_EQ("ip intruder addr 10.0.0.1 tcp src port 0 dst port 0 expires 2026-11-12T15:01:00Z",
              block.text);
    EXPECT_EQ(static_cast<std::time_t>(kEventTime + 60), block.expiration);
    EXPECT_THAT(block.notes, IsEmpty());
}

TEST(ExplainBlocking, NotesWhatTheDaemonBends) {
    EXPECT_THAT(
        Block(6, kBlockIntruderSubnet | kBlockIssue | kBlockVictimPort | kBlockIcmpType, 0).notes,
        ElementsAre("the intruder's subnet is not supported; its address is used",
                    "rules for signatures are not supported; that part is ignored",
                    "the ICMP fields are ignored, since this is TCP",
                    "no duration is set, so it is 3600 seconds"));
    EXPECT_THAT(Block(1, kBlockIcmpType | kBlockVictimPort).notes,
                ElementsAre("the ports are ignored, since this is ICMP",
                            "the rule names no address, so it holds for all"));
    EXPECT_THAT(Block(1, kBlockVictimSubnet | kBlockVictimPort, 0).notes,
                ElementsAre("the victim's subnet is not supported; its address is used"));
    EXPECT_THAT(Block(6, kBlockIntruderAddress | kBlockVictimPort).notes, IsEmpty());
    EXPECT_THAT(Block(1, kBlockIntruderAddress | kBlockIcmpType).notes, IsEmpty());
}

TEST(ExplainBlocking, AsksForNothingWhereNoRuleIsSent) {
    const Node entry = Entry(kBlockVictimPort);
    const Explanation explanation = Explain(7, &entry, Source(4, 1));
    EXPECT_EQ(1U, explanation.blockRules.size());
    EXPECT_FALSE(explanation.AsksToBlock());
    EXPECT_EQ("", explanation.blockRules[0].text);
}

TEST(ExplainBlocking, SaysWhyNoRuleIsConsidered) {
    Node entry = Entry(kBlockIntruderAddress);
    entry.responseFlags = 0;
    EXPECT_EQ("the entry's response asks for no quarantine",
              Explain(7, &entry, Source(4, 6)).blockReason);
    entry.responseFlags = kResponseQuarantineIcmp;
    const Explanation other = Explain(7, &entry, Source(4, 6));
    EXPECT_EQ("the entry's response is for other traffic and this is TCP", other.blockReason);
    EXPECT_THAT(other.blockRules, IsEmpty());
    EXPECT_FALSE(other.AsksToBlock());
    entry.responseFlags = kResponseQuarantineTraffic;
    EXPECT_TRUE(Explain(7, &entry, Source(4, 6)).AsksToBlock());
    entry.blockRules.clear();
    EXPECT_EQ("the entry has no block rule", Explain(7, &entry, Source(4, 6)).blockReason);
}

TEST(ExplainReport, ShowsTheFieldsAsTheyAreSent) {
    Node entry = Entry(0);
    entry.userResponse = ",DISPLAY";
    CrmEventSource source = Source(4, 6);
    source.AddNameValue("URL", "/x");
    const Explanation explanation = Explain(7, &entry, source);
    EXPECT_EQ("Name", explanation.name);
    EXPECT_EQ("high", explanation.severity);
    EXPECT_TRUE(explanation.isSeveritySet);
    EXPECT_EQ("DISPLAY", explanation.userResponse);
    EXPECT_THAT(explanation.pairs,
                ElementsAre(testing::Pair("Rule", "alert"), testing::Pair("URL", "/x")));
    entry.severity = kSeverityNone;
    EXPECT_EQ("low", Explain(7, &entry, source).severity);
    EXPECT_FALSE(Explain(7, &entry, source).isSeveritySet);
}

TEST(ExplainReport, SaysWhetherThePacketGoesWithIt) {
    Node entry = Entry(0);
    CrmEventSource source = Source(4, 6);
    EXPECT_THAT(Explain(7, &entry, source).packetReason, HasSubstr("does not ask for it"));
    entry.userResponseFlags = kUserResponseWithRaw;
    EXPECT_EQ("the alert has none", Explain(7, &entry, source).packetReason);
    const uint8_t packet[3] = {};
    source.SetPacket(packet, sizeof(packet), 0, 0);
    EXPECT_TRUE(Explain(7, &entry, source).withPacket);
    EXPECT_EQ("", Explain(7, &entry, source).packetReason);
    entry.userResponseFlags = kUserResponseWithoutRaw;
    EXPECT_FALSE(Explain(7, &entry, source).withPacket);
}

TEST(ExplainCapture, SaysWhyOrHowMuch) {
    Node entry = Entry(0);
    CrmEventSource source = Source(4, 6);
    const uint8_t packet[3] = {};
    source.SetPacket(packet, sizeof(packet), 0, 0);
    EXPECT_THAT(Explain(7, &entry, source).captureReason, HasSubstr("(LOGEVIDENCE)"));
    entry.userResponseFlags = kUserResponseLogEvidence | kUserResponseLogConnection;
    EXPECT_THAT(Explain(7, &entry, source).captureReason, HasSubstr("an alert has neither"));
    entry.userResponseFlags = kUserResponseLogEvidence | kUserResponseLogPackets;
    const Explanation captured = Explain(7, &entry, source);
    EXPECT_TRUE(captured.isCaptured);
    EXPECT_EQ(3u, captured.capturedBytes);
    EXPECT_EQ("", captured.captureReason);
}

TEST(Explain, HasNothingMoreForASignatureWithoutAnEntry) {
    const Explanation explanation = Explain(9, nullptr, Source(4, 6));
    EXPECT_FALSE(explanation.hasEntry);
    EXPECT_EQ(9u, explanation.signature);
    EXPECT_FALSE(explanation.AsksToBlock());
}

}  // namespace
