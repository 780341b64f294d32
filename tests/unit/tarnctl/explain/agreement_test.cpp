// What is explained is what the daemon does: random entries and alerts go through the daemon's own
// bridge, with stand-ins for its peers, and through the explanation, and the two are compared byte
// by byte.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "support/packet_log_daemon.h"
#include "support/stream_peer.h"
#include "support/unified2_records.h"
#include "tarnctl/explain/explain_text.h"
#include "tarnctl/explain/explanation.h"
#include "tarnctl/rings/crm_report.h"
#include "unit/events/bridge_fixture.h"

namespace {

using Json = nlohmann::json;
using Texts = std::vector<std::string>;

// Fifty thousand in all, in parts that end in good time on a busy machine.
constexpr int kParts = 10;
constexpr int kRounds = 5000;
constexpr uint32_t kSignature = 5000;
constexpr uint32_t kAdded = 15;
constexpr uint32_t kRefused = 3;

// Takes rules and keeps their texts; refuses each rule that holds the letter to refuse.
class RuleTaker {
  public:
    explicit RuleTaker(const std::string& path)
        : m_peer(path, [this](StreamPeer::Session& session) {
              for (auto request = session.ReadRequest(); request.size() > 16;
                   request = session.ReadRequest()) {
                  std::string text(request.begin() + 16, request.end() - 1);
                  const bool isRefused = IsRefused(text);
                  {
                      const std::lock_guard lock(m_mutex);
                      m_texts.push_back(std::move(text));
                  }
                  session.SendWords(isRefused ? kRefused : kAdded, 0);
              }
          }) {}

    // Every third text or so, by its bytes, so that both sides know.
    static bool IsRefused(const std::string& text) {
        unsigned sum = 0;
        for (const char letter : text) {
            sum += static_cast<unsigned char>(letter);
        }
        return sum % 3 == 0;
    }

    Texts Take() {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_texts, {});
    }

  private:
    std::mutex m_mutex;
    Texts m_texts;
    StreamPeer m_peer;
};

class Randomness {
  public:
    explicit Randomness(uint32_t seed) : m_engine(seed) {}

    uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(m_engine() % limit); }
    bool Often() { return Below(4) != 0; }
    template <typename T, size_t N>
    const T& OneOf(const std::array<T, N>& values) {
        return values.at(Below(N));
    }

  private:
    std::mt19937 m_engine;
};

const std::array<const char*, 15> kWords = {
    "quarantine-intruder-address",
    "quarantine-intruder-subnet",
    "quarantine-intruder-port",
    "quarantine-victim-address",
    "quarantine-victim-subnet",
    "quarantine-victim-port",
    "quarantine-icmp-type",
    "quarantine-icmp-code",
    "quarantine-issue",
    "quarantine-worm",
    "quarantine-trojan",
    "quarantine-intruder",
    "quarantine-ddos",
    "quarantine-nonsense",
    "",
};
const std::array<const char*, 8> kDurations = {
    "",
    "duration:600",
    "duration: 0",
    "duration:18446744073709551615",
    "duration:",
    "duration:60s",
    "duration:4611686018427387904",
    "duration:86400",
};
const std::array<const char*, 4> kRateLimits = {"", "ratelimit:100", "ratelimit:0",
                                                "ratelimit:4294967295"};
const std::array<const char*, 6> kResponses = {"none",
                                               "quarantine-traffic",
                                               "quarantine-icmp-traffic",
                                               "quarantine-future-traffic, quarantine-traffic",
                                               "rubbish",
                                               "quarantine-traffic, rubbish"};
const std::array<const char*, 9> kUserResponses = {"DISPLAY:WithoutRaw",
                                                   "WithRaw",
                                                   ",WithRaw LOGEVIDENCE",
                                                   "LOGEVIDENCE",
                                                   "LOGEVIDENCE Connection",
                                                   "LOGEVIDENCE WithRaw AllInterfaces",
                                                   "LOGEVIDENCE Interface",
                                                   ",",
                                                   "DISPLAY:WithRaw, and a long text behind it"};
const std::array<const char*, 5> kSeverities = {"low", "medium", "HIGH", "urgent", ""};
const std::array<const char*, 5> kNames = {"A name", ",comma:first", "with:colon", "\xff\xfe", "x"};
const std::array<unsigned, 8> kProtocols = {6, 17, 1, 58, 47, 0, 132, 255};
const std::array<uint32_t, 5> kTimes = {0, 1, 1794495600, 0x7FFFFFFF, 0xFFFFFFFF};

// A value as a file has it; empty ones leave the line out.
void SetRandomEntry(Randomness& random) {
    const auto set = [](const char* key, const std::string& value) {
        if (!value.empty()) {
            (void)Config::ApplyEventSetting("se.5000." + std::string(key), value);
        }
    };
    set("msg", random.OneOf(kNames));
    set("severity", random.OneOf(kSeverities));
    set("rule", random.Often() ? "alert tcp any any" : "");
    set("user.response", random.OneOf(kUserResponses));
    if (random.Often()) {
        set("response", random.OneOf(kResponses));
    }
    for (uint32_t rules = random.Below(4); rules > 0; --rules) {
        std::string value;
        for (uint32_t words = 1 + random.Below(3); words > 0; --words) {
            const std::string word = random.OneOf(kWords);
            value += word.empty() || value.empty() ? word : "," + word;
        }
        for (const std::string item : {random.OneOf(kDurations), random.OneOf(kRateLimits)}) {
            value += item.empty() || value.empty() ? item : ", " + item;
        }
        set("quarantine.rule", value);
    }
}

u2test::Bytes RandomAddress(Randomness& random, bool isIpv6) {
    u2test::Bytes address(isIpv6 ? 16 : 4, 0);
    if (random.Often()) {
        for (uint8_t& byte : address) {
            byte = static_cast<uint8_t>(random.Below(3) == 0 ? 0 : random.Below(256));
        }
    }
    return address;
}

u2test::Alert RandomAlert(Randomness& random) {
    const bool isIpv6 = random.Below(2) == 0;
    u2test::Alert alert;
    alert.signatureId = kSignature;
    alert.source = RandomAddress(random, isIpv6);
    alert.destination = RandomAddress(random, isIpv6);
    alert.protocol = random.OneOf(kProtocols);
    alert.sportItype = random.Below(65536);
    alert.dportIcode = random.Below(65536);
    alert.eventSecond = random.OneOf(kTimes);
    alert.vlanId = random.Below(3);
    return alert;
}

uint8_t* FromMalloc(const u2test::Bytes& bytes) {
    auto* const copy = static_cast<uint8_t*>(malloc(bytes.size()));
    std::memcpy(copy, bytes.data(), bytes.size());
    return copy;
}

// Two of these from the same bytes are the same alert.
std::unique_ptr<U2AlertEvent> MakeAlert(const u2test::Alert& alert, uint32_t packetBytes) {
    std::unique_ptr<U2AlertEvent> event;
    if (alert.Type() == 104) {
        event = std::make_unique<U2AlertEventIpv4>(FromMalloc(alert.Payload()));
    } else {
        event = std::make_unique<U2AlertEventIpv6>(FromMalloc(alert.Payload()));
    }
    if (packetBytes > 0) {
        u2test::Bytes packet(28 + packetBytes, 0xAB);
        packet[24] = packet[25] = packet[26] = 0;
        packet[27] = static_cast<uint8_t>(packetBytes);
        const auto length = static_cast<uint32_t>(packet.size());
        event->SetPacket(new U2PacketEvent(FromMalloc(packet), length));
    }
    return event;
}

class Agreement : public EventBridgeFixture, public testing::WithParamInterface<int> {
  protected:
    void SetUp() override {
        EventBridgeFixture::SetUp();
        InitializeForOneThread();
        EventBridgePeer::SetSecurityManager(*m_bridge, m_dir.File("manager"), 5);
        auto& packetLog = *EventBridgePeer::PacketLog(*m_bridge);
        PacketLogCtrl::PacketLogCtrlIFPeer::SetDestination(packetLog, m_dir.File("packetLog"));
        ASSERT_EQ(0, packetLog.OpenControlChannel());
        m_ring = std::make_unique<IndependentRing>(m_channel.RingBase() + "-0");
    }

    // What the daemon sends for the alert.
    struct Sent {
        Texts rules;
        tarnctl::CrmReport report;
        PacketLogDaemon::Datagram capture;
    };
    Sent SendThroughTheBridge(std::unique_ptr<U2AlertEvent> event) {
        Sent sent;
        EXPECT_EQ(0, m_bridge->ProcessEvent(event.release()));
        sent.rules = m_manager.Take();
        std::vector<unsigned char> message;
        EXPECT_TRUE(m_ring->Take(message));
        EXPECT_EQ("", tarnctl::DecodeCrmReport(std::as_bytes(std::span(message)), sent.report));
        sent.capture = m_packetLog.Take();
        return sent;
    }

    TempDir m_dir;
    RuleTaker m_manager{m_dir.File("manager")};
    PacketLogDaemon m_packetLog{m_dir.File("packetLog")};
    std::unique_ptr<IndependentRing> m_ring;
};

void ExpectSameReport(const tarnctl::Explanation& explanation, const tarnctl::CrmReport& report) {
    EXPECT_EQ(report.EventName(), explanation.name);
    EXPECT_EQ(report.Severity(), explanation.severity);
    EXPECT_EQ(report.userResponse, explanation.userResponse);
    EXPECT_EQ(report.pairs, explanation.pairs);
    EXPECT_EQ(report.packet.has_value(), explanation.withPacket);
}

TEST_P(Agreement, OfTheExplanationWithWhatTheDaemonSends) {
    Randomness random(static_cast<uint32_t>(GetParam()));
    int sentRules = 0;
    int blocked = 0;
    int captured = 0;
    for (int round = 0; round < kRounds && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Config::s_eventTable.Clear();
        SetRandomEntry(random);
        ASSERT_TRUE(Config::s_eventTable.Commit());
        const u2test::Alert alert = RandomAlert(random);
        const uint32_t packetBytes = random.Below(3) * 50;

        const auto explained = MakeAlert(alert, packetBytes);
        const std::unique_ptr<CrmEventSource> source(explained->CreateCrmEventSource(true));
        const auto entry = Config::s_eventTable.Find(kSignature);
        const auto explanation = tarnctl::Explain(kSignature, entry.get(), *source);
        const Sent sent = SendThroughTheBridge(MakeAlert(alert, packetBytes));

        const Json document = Json::parse(
            tarnctl::ExplanationAsJson({explanation, {}, *source, "options", 0, nullptr}));
        Texts rules;
        bool isAdded = false;
        for (const Json& rule : document.at("blocking").at("rules")) {
            if (rule.at("sent").get<bool>()) {
                rules.push_back(rule.at("text").get<std::string>());
                isAdded = isAdded || !RuleTaker::IsRefused(rules.back());
            } else {
                EXPECT_NE("", rule.at("reason").get<std::string>());
            }
        }
        EXPECT_EQ(sent.rules, rules);
        EXPECT_EQ(sent.report.IsBlocked(), isAdded);
        ExpectSameReport(explanation, sent.report);
        EXPECT_EQ(!sent.capture.empty(), explanation.isCaptured);
        if (explanation.isCaptured && !sent.capture.empty()) {
            EXPECT_EQ(sent.capture.size() - 128, explanation.capturedBytes);
        }
        sentRules += static_cast<int>(rules.size());
        blocked += isAdded ? 1 : 0;
        captured += explanation.isCaptured ? 1 : 0;
    }
    // The rounds reach what they are for.
    EXPECT_LT(kRounds / 5, sentRules);
    EXPECT_LT(kRounds / 10, blocked);
    EXPECT_LT(kRounds / 10, captured);
}

INSTANTIATE_TEST_SUITE_P(Parts, Agreement, testing::Range(0, kParts));

}  // namespace
