// What becomes of block rules, with a stand-in for the security manager on the other end.

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "config/event_rule_node.h"
#include "support/levelled_log.h"
#include "support/stream_peer.h"
#include "unit/events/bridge_fixture.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

constexpr uint32_t kIssue = 1100;
constexpr uint64_t kEventTime = 1794495600;  // 2026-11-12T15:00:00Z

// A number as the messages show flags.
std::string Hex4(uint32_t number) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%04x", number);
    return text;
}

// The source of an event from port 1025 to port 80, or of ICMP type 8 and code 3.
CrmEventSource* MakeSource(int version, uint16_t protocol) {
    auto* source = new CrmEventSource(version);
    source->SetIssueId(kIssue);
    source->SetEventTime(kEventTime);
    source->SetProtocol(protocol);
    if (version == 4) {
        source->SetSourceIp(htonl(0x0A000001));
        source->SetDestinationIp(htonl(0x0A000002));
    } else {
        uint8_t address[16] = {0x20, 0x01, 0x0d, 0xb8};
        address[15] = 1;
        source->SetSourceIpv6(address);
        address[15] = 2;
        source->SetDestinationIpv6(address);
    }
    source->SetSourcePort(1025);
    source->SetDestinationPort(80);
    source->SetIcmp(8, 3);
    return source;
}

// An alert of that event.
class PolicyAlert : public TestAlert {
  public:
    PolicyAlert(int version, uint16_t protocol)
        : TestAlert(kIssue), m_version(version), m_protocol(protocol) {}
    CrmEventSource* CreateCrmEventSource(bool) override {
        return MakeSource(m_version, m_protocol);
    }

  private:
    const int m_version;
    const uint16_t m_protocol;
};

std::string TextOf(const StreamPeer::Bytes& request) {
    return {request.begin() + 16, request.end() - 1};
}

class QuarantinePolicy : public EventBridgeFixture {
  protected:
    void SetUp() override {
        EventBridgeFixture::SetUp();
        InitializeForOneThread();
        EventBridgePeer::SetSecurityManager(*m_bridge, m_dir.File("manager"), 5);
    }

    // Answers each request with the next of these, and the last one for good.
    void Answer(std::vector<uint32_t> statuses) { m_statuses = std::move(statuses); }

    void Block(const char* response, std::initializer_list<const char*> rules) {
        Set("se.1100.msg", "Blocked");
        Set("se.1100.severity", "high");
        Set("se.1100.rule", "alert");
        Set("se.1100.user.response", "DISPLAY:WithoutRaw");
        Set("se.1100.response", response);
        for (const char* const rule : rules) {
            Set("se.1100.quarantine.rule", rule);
        }
        ASSERT_TRUE(Config::s_eventTable.Commit());
    }

    // Processes an event and yields the blocked status of its report.
    uint32_t BlockedStatusOf(int version, uint16_t protocol) {
        EXPECT_EQ(0, m_bridge->ProcessEvent(new PolicyAlert(version, protocol)));
        const auto reports = Reports();
        uint32_t status = 99;
        EXPECT_EQ(1u, reports.size()) << "the report goes out in every case";
        if (!reports.empty()) {
            std::memcpy(&status, &reports.back().at(24), sizeof(status));
        }
        return status;
    }

    int ByRule(const CrmEventSource& source, const BlockRule& rule) {
        return EventBridgePeer::QuarantineByRule(*m_bridge, source, rule);
    }

    Lines Texts() const {
        Lines texts;
        for (const auto& request : m_manager.Requests()) {
            texts.push_back(TextOf(request));
        }
        return texts;
    }

    TempDir m_dir;
    std::vector<uint32_t> m_statuses{15};
    StreamPeer m_manager{m_dir.File("manager"), [this](StreamPeer::Session& session) {
                             size_t turn = 0;
                             while (true) {
                                 StreamPeer::Bytes request = session.ReadRequest();
                                 if (request.size() < 8) {
                                     return;
                                 }
                                 m_manager.Keep(std::move(request));
                                 session.SendWords(
                                     m_statuses[std::min(turn++, m_statuses.size() - 1)], 0);
                             }
                         }};
};

// --- every combination of bits against every kind of event --------------------------------------

// What the block rules say, in their own words: the bits, and what each puts into the rule.
constexpr uint32_t kIntruderAddress = 0x001;
constexpr uint32_t kIntruderPort = 0x002;
constexpr uint32_t kVictimAddress = 0x004;
constexpr uint32_t kVictimPort = 0x008;
constexpr uint32_t kIcmpType = 0x010;
constexpr uint32_t kIcmpCode = 0x020;
constexpr uint32_t kIntruderSubnet = 0x040;
constexpr uint32_t kVictimSubnet = 0x080;
constexpr uint32_t kIssueId = 0x100;

// Which rules fit an event: fields of its own family, fields of the other, an address.
struct Fit {
    bool ownField;
    bool otherField;
    bool address;
    bool fits;
};
constexpr std::array<Fit, 8> kFits = {{
    {false, false, false, false},
    {false, false, true, true},
    {false, true, false, false},
    {false, true, true, false},
    {true, false, false, true},
    {true, false, true, true},
    {true, true, false, true},
    {true, true, true, true},
}};

struct Kind {
    const char* name;
    int version;
    uint16_t protocol;
    bool isIcmp;
    const char* piece;  // of the rule text; null where no text can be made
};
constexpr std::array<Kind, 10> kKinds = {{
    {"TcpOverIpv4", 4, IPPROTO_TCP, false, " tcp"},
    {"TcpOverIpv6", 6, IPPROTO_TCP, false, " tcp"},
    {"UdpOverIpv4", 4, IPPROTO_UDP, false, " udp"},
    {"UdpOverIpv6", 6, IPPROTO_UDP, false, " udp"},
    {"IcmpOverIpv4", 4, IPPROTO_ICMP, true, " icmp"},
    {"IcmpOverIpv6", 6, IPPROTO_ICMP, true, nullptr},
    {"Icmpv6OverIpv4", 4, IPPROTO_ICMPV6, true, nullptr},
    {"Icmpv6OverIpv6", 6, IPPROTO_ICMPV6, true, " icmpv6"},
    {"GreOverIpv4", 4, IPPROTO_GRE, false, " proto 47"},
    {"GreOverIpv6", 6, IPPROTO_GRE, false, " proto 47"},
}};

struct Expected {
    int result = 0;
    Lines lines;
    std::string text;  // what the manager gets; empty for nothing
};

bool AsksForIntruder(uint32_t bits) {
    return (bits & (kIntruderAddress | kIntruderSubnet)) != 0;
}

bool AsksForVictim(uint32_t bits) {
    return (bits & (kVictimAddress | kVictimSubnet)) != 0;
}

bool FitsTheEvent(const Kind& kind, uint32_t bits) {
    const bool portField = (bits & (kIntruderPort | kVictimPort)) != 0;
    const bool icmpField = (bits & (kIcmpType | kIcmpCode)) != 0;
    const bool ownField = kind.isIcmp ? icmpField : portField;
    const bool otherField = kind.isIcmp ? portField : icmpField;
    const auto fit = std::find_if(kFits.begin(), kFits.end(), [&](const Fit& row) {
        return row.ownField == ownField && row.otherField == otherField &&
               row.address == (AsksForIntruder(bits) || AsksForVictim(bits));
    });
    return fit->fits;
}

std::string ExpectedText(const Kind& kind, uint32_t bits) {
    const bool v4 = kind.version == 4;
    std::string text = v4 ? "ip" : "ipv6";
    if (AsksForIntruder(bits)) {
        text += v4 ? " intruder addr 10.0.0.1" : " intruder addr 2001:db8::1";
    }
    if (AsksForVictim(bits)) {
        text += v4 ? " victim addr 10.0.0.2" : " victim addr 2001:db8::2";
    }
    text += kind.piece;
    if (kind.isIcmp) {
        text += (bits & kIcmpType) != 0 ? " type 8" : "";
        text += (bits & kIcmpCode) != 0 ? " code 3" : "";
    } else if (kind.protocol != IPPROTO_GRE) {
        text += (bits & kIntruderPort) != 0 ? " src port 1025" : " src port 0";
        text += (bits & kVictimPort) != 0 ? " dst port 80" : " dst port 0";
    }
    return text + " expires 2026-11-12T16:00:00Z";
}

Expected Expect(const Kind& kind, uint32_t bits, bool isConnected) {
    Expected expected;
    Lines& lines = expected.lines;
    lines.push_back("Quarantine by rule: " + Hex4(bits));
    if ((bits & kIntruderSubnet) != 0) {
        lines.push_back(
            "Don't know how to deal with quarantine-intruder-subnet. Treat it as "
            "quarantine-intruder-address.");
    }
    if ((bits & kVictimSubnet) != 0) {
        lines.push_back(
            "Don't know how to deal with quarantine-victim-subnet. Treat it as "
            "quarantine-victim-address.");
    }
    if (!FitsTheEvent(kind, bits)) {
        expected.result = 1;
        lines.push_back("Ignoring invalid block rule (" + Hex4(bits) + ")" +
                        (kind.isIcmp ? " for ICMP event (" : " for non-ICMP event (") +
                        std::to_string(kind.protocol) + ").");
        return expected;
    }
    if ((bits & kIssueId) != 0) {
        lines.push_back("Ignoring issue ID blocking for Snort event.");
    }
    lines.push_back("Block duration is not assigned. Use default value (3600) instead.");
    if (kind.piece == nullptr) {
        expected.result = -1;
        lines.push_back("Invalid IP version (" + std::to_string(kind.version) + ") and protocol (" +
                        std::to_string(kind.protocol) + ") combination.");
        lines.push_back("Fail to construct quarantine rule string.");
        return expected;
    }
    if (kind.protocol == IPPROTO_GRE) {
        lines.push_back("Unrecognized protocol number 47.");
    }
    expected.text = ExpectedText(kind, bits);
    lines.push_back("Quarantine rule constructed: " + expected.text);
    lines.push_back("DbtComm is trying to add quarantine rule(s) after 0 failure(s): " +
                    expected.text);
    lines.push_back("issueIdRef=1100");
    if (!isConnected) {
        lines.push_back("DbtComm command channel is not opened. Open it before sending command.");
        lines.push_back("DbtComm opened command channel.");
    }
    lines.push_back("DbtComm received response of size 8.");
    lines.push_back("Quarantine rules are added successfully.");
    return expected;
}

class QuarantineCombination : public QuarantinePolicy, public testing::WithParamInterface<Kind> {};

TEST_P(QuarantineCombination, FollowsTheTableForEachSetOfBits) {
    const Kind& kind = GetParam();
    const std::unique_ptr<CrmEventSource> source(MakeSource(kind.version, kind.protocol));
    size_t sent = 0;
    for (uint32_t bits = 0; bits <= 0x1FF; ++bits) {
        SCOPED_TRACE(Hex4(bits));
        const Expected expected = Expect(kind, bits, sent > 0);
        BlockRule rule;
        rule.flags = bits;
        const LogCapture log;
        ASSERT_EQ(expected.result, ByRule(*source, rule));
        ASSERT_THAT(log.Messages(), ElementsAreArray(expected.lines));
        sent += expected.text.empty() ? 0 : 1;
        if (!expected.text.empty()) {
            const auto requests = m_manager.Requests();
            ASSERT_EQ(sent, requests.size()) << "one frame for each rule";
            ASSERT_EQ(expected.text, TextOf(requests.back()));
        }
    }
    EXPECT_EQ(sent, m_manager.Requests().size());
    EXPECT_EQ(kind.piece == nullptr ? 0 : 1, sent > 0 ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, QuarantineCombination, testing::ValuesIn(kKinds),
                         [](const auto& kind) { return std::string(kind.param.name); });

// --- one event ----------------------------------------------------------------------------------

TEST_F(QuarantinePolicy, SendsFlagsIssueAndText) {
    const std::unique_ptr<CrmEventSource> source(MakeSource(4, IPPROTO_TCP));
    BlockRule rule;
    rule.flags = kIntruderAddress;
    rule.duration = 600;
    rule.rateLimit = 7;
    ASSERT_EQ(0, ByRule(*source, rule));
    const std::string text =
        "ip intruder addr 10.0.0.1 tcp src port 0 dst port 0 counter 7b expires "
        "2026-11-12T15:10:00Z";
    const StreamPeer::Bytes frame = m_manager.Requests().at(0);
    const std::array<uint32_t, 4> words = {11, static_cast<uint32_t>(text.size() + 9), 1, 1100};
    ASSERT_EQ(16 + text.size() + 1, frame.size());
    EXPECT_EQ(0, std::memcmp(frame.data(), words.data(), 16));
    EXPECT_EQ(text, TextOf(frame));
    EXPECT_EQ(0, frame.back());
}

TEST_F(QuarantinePolicy, EveryMessageHasItsLevel) {
    const std::unique_ptr<CrmEventSource> tcp(MakeSource(4, IPPROTO_TCP));
    const std::unique_ptr<CrmEventSource> icmp(MakeSource(6, IPPROTO_ICMP));
    Answer({3});
    BlockRule rule;
    const auto lines = LevelledMessages([&] {
        rule.flags = kIntruderSubnet | kVictimSubnet | kIssueId;
        EXPECT_EQ(-1, ByRule(*tcp, rule));  // refused by the manager
        rule.flags = kIcmpType;
        EXPECT_EQ(1, ByRule(*tcp, rule));
        EXPECT_EQ(-1, ByRule(*icmp, rule));  // the protocol of the other version
        rule.flags = kVictimPort;
        EXPECT_EQ(1, ByRule(*icmp, rule));
    });
    Lines own;
    for (const std::string& line : lines) {
        for (const char* const start : {"Quarantine by", "Don't", "Ignoring", "Block", "Fail to"}) {
            if (line.substr(2).starts_with(start)) {
                own.push_back(line.substr(0, line.find('.')));
            }
        }
    }
    EXPECT_THAT(own, ElementsAre("5 Quarantine by rule: 0x01c0",
                                 "3 Don't know how to deal with quarantine-intruder-subnet",
                                 "3 Don't know how to deal with quarantine-victim-subnet",
                                 "5 Ignoring issue ID blocking for Snort event",
                                 "3 Block duration is not assigned",
                                 "1 Fail to add quarantine rule ip intruder addr 10",
                                 "5 Quarantine by rule: 0x0010",
                                 "5 Ignoring invalid block rule (0x0010) for non-ICMP event (6)",
                                 "5 Quarantine by rule: 0x0010", "3 Block duration is not assigned",
                                 "1 Fail to construct quarantine rule string",
                                 "5 Quarantine by rule: 0x0008",
                                 "5 Ignoring invalid block rule (0x0008) for ICMP event (1)"));
}

TEST_F(QuarantinePolicy, IntruderAddressWithoutADurationEndsAnHourAfterTheEvent) {
    Block("quarantine-traffic", {"quarantine-intruder-address"});
    const LogCapture log(3);
    EXPECT_EQ(5u, BlockedStatusOf(4, IPPROTO_TCP));
    EXPECT_THAT(Texts(), ElementsAre("ip intruder addr 10.0.0.1 tcp src port 0 dst port 0 expires "
                                     "2026-11-12T16:00:00Z"));
    EXPECT_THAT(log.Messages(),
                ElementsAre("Block duration is not assigned. Use default value (3600) instead."));
}

TEST_F(QuarantinePolicy, NoResponseMeansNoTrafficAndNoBlockedStatus) {
    Block("none", {"quarantine-intruder-address"});
    const LogCapture log(3);
    EXPECT_EQ(0u, BlockedStatusOf(4, IPPROTO_TCP));
    EXPECT_THAT(Texts(), IsEmpty());
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(QuarantinePolicy, NoBlockRulesMeansNoTrafficAndNoBlockedStatus) {
    Block("quarantine-traffic, quarantine-icmp-traffic", {});
    EXPECT_EQ(0u, BlockedStatusOf(4, IPPROTO_TCP));
    EXPECT_THAT(Texts(), IsEmpty());
}

// Bit 0x04 is for all but ICMP, bit 0x08 for ICMP, which is protocol 1 or 58 in either version.
TEST_F(QuarantinePolicy, ResponseCountsForItsOwnKindOfTraffic) {
    BlockRule rule;
    rule.flags = kIntruderAddress;
    for (const Kind& kind : kKinds) {
        const std::unique_ptr<CrmEventSource> source(MakeSource(kind.version, kind.protocol));
        for (uint32_t response = 0; response <= 0x0F; ++response) {
            const bool isAsked = (response & (kind.isIcmp ? 0x08U : 0x04U)) != 0;
            const bool isAdded = isAsked && kind.piece != nullptr;
            const size_t before = m_manager.Requests().size();
            EXPECT_EQ(isAdded ? 0 : 1,
                      EventBridgePeer::ApplyQuarantinePolicy(*m_bridge, *source, response, {rule}))
                << kind.name << ", response " << response;
            EXPECT_EQ(before + (isAdded ? 1 : 0), m_manager.Requests().size());
        }
    }
}

// A wrong protocol for the version still is ICMP, and is only found out when the text is made.
TEST_F(QuarantinePolicy, IcmpIsRecognisedByTheProtocolWhateverTheVersion) {
    Block("quarantine-icmp-traffic", {"quarantine-intruder-address, duration: 60"});
    const LogCapture log(1);
    EXPECT_EQ(0u, BlockedStatusOf(6, IPPROTO_ICMP));
    EXPECT_THAT(log.Messages(), ElementsAre("Invalid IP version (6) and protocol (1) combination.",
                                            "Fail to construct quarantine rule string."));
}

TEST_F(QuarantinePolicy, SecondRuleCountsWhereTheFirstFails) {
    Block("quarantine-traffic",
          {"quarantine-intruder-address, duration: 60", "quarantine-victim-address, duration: 60"});
    Answer({3, 15});
    const LogCapture log(2);
    EXPECT_EQ(5u, BlockedStatusOf(4, IPPROTO_UDP));
    const Lines texts = Texts();
    ASSERT_EQ(2u, texts.size());
    EXPECT_THAT(log.Messages(), ElementsAre("Failed to add quarantine rules: 3",
                                            "Fail to add quarantine rule " + texts[0] + "."));
}

TEST_F(QuarantinePolicy, FirstRuleCountsWhereTheSecondFails) {
    Block("quarantine-traffic",
          {"quarantine-intruder-address, duration: 60", "quarantine-victim-address, duration: 60"});
    Answer({15, 3});
    EXPECT_EQ(5u, BlockedStatusOf(4, IPPROTO_UDP));
    EXPECT_EQ(2u, Texts().size()) << "each rule is tried";
}

TEST_F(QuarantinePolicy, NothingIsBlockedWhereEveryRuleIsRefused) {
    Block("quarantine-traffic", {"quarantine-intruder-address", "quarantine-victim-address"});
    Answer({3});
    EXPECT_EQ(0u, BlockedStatusOf(4, IPPROTO_UDP));
    EXPECT_EQ(2u, Texts().size());
}

TEST_F(QuarantinePolicy, NothingIsBlockedWhereNoRuleApplies) {
    Block("quarantine-traffic", {"quarantine-icmp-type"});
    EXPECT_EQ(0u, BlockedStatusOf(4, IPPROTO_TCP));
    EXPECT_THAT(Texts(), IsEmpty());
}

TEST_F(QuarantinePolicy, AnEndThatWrapsToZeroIsRefusedWithALineOfItsOwn) {
    const std::unique_ptr<CrmEventSource> source(MakeSource(4, IPPROTO_TCP));
    BlockRule rule;
    rule.flags = kIntruderAddress;
    rule.duration = uint64_t{0} - kEventTime;
    const LogCapture log(vald::Log::kWarning);
    EXPECT_EQ(-1, ByRule(*source, rule));
    EXPECT_THAT(log.Messages(), ElementsAre("Expiration time must not be zero.",
                                            "Quarantine rule must have an expiration time.",
                                            "Fail to construct quarantine rule string."));
    EXPECT_TRUE(m_manager.Requests().empty());
}

TEST_F(QuarantinePolicy, ReportGoesOutThoughNoManagerIsThere) {
    EventBridgePeer::SetSecurityManager(*m_bridge, m_dir.File("nobody"), 1);
    Block("quarantine-traffic", {"quarantine-intruder-address, duration: 60"});
    const LogCapture log(1);
    EXPECT_EQ(0u, BlockedStatusOf(4, IPPROTO_TCP));
    EXPECT_THAT(log.Messages(),
                ElementsAre("Unable to connect socket, reason: No such file or directory",
                            "DbtComm failed to open command channel.",
                            "DbtComm command channel cannot to opened.",
                            "Unable to connect socket, reason: No such file or directory",
                            "DbtComm failed to open command channel.",
                            "DbtComm aborts retry because command channel cannot to reopened.",
                            "Fail to add quarantine rule ip intruder addr 10.0.0.1 tcp src port 0 "
                            "dst port 0 expires 2026-11-12T15:01:00Z."));
}

TEST_F(QuarantinePolicy, ConnectionStaysFromRuleToRule) {
    Block("quarantine-traffic",
          {"quarantine-intruder-address, duration: 60", "quarantine-victim-address, duration: 60"});
    const LogCapture log(5);
    EXPECT_EQ(5u, BlockedStatusOf(4, IPPROTO_TCP));
    const Lines lines = log.Messages();
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "DbtComm opened command channel."));
}

// --- oddities -----------------------------------------------------------------------------------

TEST_F(QuarantinePolicy, KeepsShowingTheConfiguredFlagsOfAnInvalidRule) {
    const std::unique_ptr<CrmEventSource> source(MakeSource(4, IPPROTO_TCP));
    BlockRule rule;
    rule.flags = kIntruderSubnet | kIcmpType;
    const LogCapture log(5);
    EXPECT_EQ(1, ByRule(*source, rule));
    EXPECT_EQ("Ignoring invalid block rule (0x0050) for non-ICMP event (6).",
              log.Messages().back());
}

TEST_F(QuarantinePolicy, KeepsAPortRuleWithoutAnAddressValid) {
    const std::unique_ptr<CrmEventSource> source(MakeSource(4, IPPROTO_TCP));
    BlockRule rule;
    rule.flags = kVictimPort;
    rule.duration = 60;
    EXPECT_EQ(0, ByRule(*source, rule));
    EXPECT_THAT(Texts(), ElementsAre("ip tcp src port 0 dst port 80 expires 2026-11-12T15:01:00Z"));
}

TEST_F(QuarantinePolicy, KeepsAFieldOfTheOtherFamilyFromSpoilingOneOfTheOwn) {
    const std::unique_ptr<CrmEventSource> source(MakeSource(4, IPPROTO_TCP));
    BlockRule rule;
    rule.flags = kIntruderPort | kIcmpType;
    rule.duration = 60;
    EXPECT_EQ(0, ByRule(*source, rule));
    EXPECT_THAT(Texts(),
                ElementsAre("ip tcp src port 1025 dst port 0 expires 2026-11-12T15:01:00Z"));
}

TEST_F(QuarantinePolicy, KeepsRefusingAnIcmpEventWithAPortRuleBesideItsAddress) {
    const std::unique_ptr<CrmEventSource> source(MakeSource(4, IPPROTO_ICMP));
    BlockRule rule;
    rule.flags = kIntruderPort | kIntruderAddress;
    const LogCapture log(5);
    EXPECT_EQ(1, ByRule(*source, rule));
    EXPECT_THAT(log.Messages(),
                ElementsAre("Quarantine by rule: 0x0003",
                            "Ignoring invalid block rule (0x0003) for ICMP event (1)."));
}

TEST_F(QuarantinePolicy, KeepsCountingTheEndFromTheTimeOfTheEvent) {
    const std::unique_ptr<CrmEventSource> source(MakeSource(4, IPPROTO_TCP));
    source->SetEventTime(1);
    BlockRule rule;
    rule.flags = kIntruderAddress;
    rule.duration = 59;
    EXPECT_EQ(0, ByRule(*source, rule));
    EXPECT_THAT(Texts(), ElementsAre("ip intruder addr 10.0.0.1 tcp src port 0 dst port 0 expires "
                                     "1970-01-01T00:01:00Z"));
}

}  // namespace
