#include "packet_log/connection_hash.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using Key = std::vector<unsigned char>;

// The published function once more, written over the words of the key by their number instead of
// in a loop that eats the key.
uint64_t Reference64B(const Key& key, uint64_t seed) {
    constexpr uint64_t kModulo = 0x100000000U;
    constexpr uint64_t kFactor = 1540483477;
    const auto times = [](uint64_t a) { return a * kFactor % kModulo; };
    uint64_t lanes[2] = {(seed % kModulo) ^ key.size(), seed / kModulo};
    const size_t words = key.size() / 4;
    for (size_t word = 0; word < words; ++word) {
        uint64_t value = 0;
        for (size_t byte = 4; byte-- > 0;) {
            value = value * 256 + key[4 * word + byte];
        }
        value = times(value);
        value = times(value ^ value / 0x1000000U);
        lanes[word % 2] = times(lanes[word % 2]) ^ value;
    }
    if (key.size() % 4 != 0) {
        uint64_t rest = 0;
        for (size_t byte = key.size(); byte-- > 4 * words;) {
            rest = rest * 256 + key[byte];
        }
        lanes[1] = times(lanes[1] ^ rest);
    }
    const int shifts[] = {18, 22, 17, 19};
    for (int i = 0; i < 4; ++i) {
        uint64_t& lane = lanes[i % 2];
        lane = times(lane ^ lanes[1 - i % 2] >> shifts[i]);
    }
    return lanes[0] * kModulo + lanes[1];
}

Key CountingKey(size_t length) {
    Key key(length);
    for (size_t i = 0; i < length; ++i) {
        key[i] = static_cast<unsigned char>(i);
    }
    return key;
}

// The check by which implementations of a hash are compared: 256 keys are hashed with 256 seeds,
// then all the results together; the low 32 bits are the published value.
template <typename Hash>
uint32_t VerificationValue(Hash hash) {
    Key results;
    for (uint32_t i = 0; i < 256; ++i) {
        const auto value = hash(CountingKey(i), 256 - i);
        const auto* const bytes = reinterpret_cast<const unsigned char*>(&value);
        results.insert(results.end(), bytes, bytes + sizeof value);
    }
    return static_cast<uint32_t>(hash(results, 0));
}

struct KnownHash {
    uint16_t etherType;
    uint16_t protocol;
    uint16_t sourcePort;
    uint16_t destinationPort;
    uint32_t vlanId;
    uint64_t hash;
};

// 10.1.2.3 to 192.168.0.1, and 2001:db8::1 to 2001:db8::ff.
const KnownHash kKnownHashes[] = {
    {0x0800, 6, 49152, 443, 0xFFFFFFFF, 0xB459223B9D859653},
    {0x0800, 6, 49152, 443, 100, 0x38ECC913516FED36},
    {0x0800, 17, 5353, 53, 0xFFFFFFFF, 0x436435CC41A72161},
    {0x0800, 17, 5353, 53, 100, 0xDC41EBCA02E8D71A},
    {0x0800, 1, 8, 0, 0xFFFFFFFF, 0x663C05C2375CC7A7},
    {0x0800, 1, 8, 0, 100, 0xE22DB1BD6ECD1547},
    {0x86DD, 6, 49152, 443, 0xFFFFFFFF, 0x3FFE96BBEC75A910},
    {0x86DD, 6, 49152, 443, 100, 0x90482C3C0270B3C9},
    {0x86DD, 17, 5353, 53, 0xFFFFFFFF, 0xAD25F78A5C80190A},
    {0x86DD, 17, 5353, 53, 100, 0x79069E2F355792BD},
    {0x86DD, 58, 8, 0, 0xFFFFFFFF, 0x9BEB0DF2EFCBA9EF},
    {0x86DD, 58, 8, 0, 100, 0xC5478F78CE6B4248},
};

EventReport ReportOf(const KnownHash& known) {
    EventReport report;
    report.etherType = known.etherType;
    report.ipProtocol = known.protocol;
    report.sourcePort = known.sourcePort;
    report.destinationPort = known.destinationPort;
    report.vlanId = known.vlanId;
    report.sourceIp = 0x0A010203;
    report.destinationIp = 0xC0A80001;
    const uint8_t prefix[] = {0x20, 0x01, 0x0d, 0xb8};
    std::memcpy(report.sourceIpv6, prefix, sizeof prefix);
    std::memcpy(report.destinationIpv6, prefix, sizeof prefix);
    report.sourceIpv6[15] = 0x01;
    report.destinationIpv6[15] = 0xff;
    return report;
}

EventReport Reversed(const EventReport& report) {
    EventReport other = report;
    std::swap(other.sourcePort, other.destinationPort);
    std::swap(other.sourceIp, other.destinationIp);
    std::swap(other.sourceIpv6, other.destinationIpv6);
    return other;
}

ConnectionRecord RecordOf(const EventReport& report) {
    ConnectionRecord record;
    record.uEtherType = report.etherType;
    record.uProtocol = report.ipProtocol;
    record.uSourcePort = report.sourcePort;
    record.uDestinationPort = report.destinationPort;
    record.uVlanId = report.vlanId;
    record.uSourceIp = report.sourceIp;
    record.uDestinationIp = report.destinationIp;
    std::memcpy(record.aSourceIpv6, report.sourceIpv6, 16);
    std::memcpy(record.aDestinationIpv6, report.destinationIpv6, 16);
    return record;
}

std::string Describe(const KnownHash& known) {
    return "EtherType " + std::to_string(known.etherType) + " protocol " +
           std::to_string(known.protocol) + " VLAN " + std::to_string(known.vlanId);
}

TEST(MurmurHash64B, HasThePublishedVerificationValue) {
    EXPECT_EQ(0xDD537C05U, VerificationValue([](const Key& key, uint32_t seed) {
                  return MurmurHash64B(key.data(), key.size(), seed);
              }));
}

TEST(MurmurHash64B, MatchesASecondImplementationAtEveryLength) {
    for (const uint64_t seed : {uint64_t{0}, kConnectionHashSeed, ~uint64_t{0}}) {
        for (size_t length = 0; length <= 100; ++length) {
            const Key key = CountingKey(length);
            EXPECT_EQ(MurmurHash64B(key.data(), length, seed), Reference64B(key, seed)) << length;
        }
    }
}

TEST(MurmurHash64B, NeedsNoAlignment) {
    const Key key = CountingKey(64);
    const Key aligned(key.begin() + 3, key.begin() + 51);
    EXPECT_EQ(MurmurHash64B(&key[3], 48, 5), MurmurHash64B(aligned.data(), 48, 5));
}

TEST(MurmurHash2, HasThePublishedVerificationValue) {
    EXPECT_EQ(0x27864C1EU, VerificationValue([](const Key& key, uint32_t seed) {
                  return MurmurHash2(key.data(), key.size(), seed);
              }));
}

TEST(CaptureIdHash, HashesTheEightBytesOfTheIdentifier) {
    EXPECT_EQ(0x3292D677A678F339U, CaptureIdHash(0));
    EXPECT_EQ(0x7D4694FC7765D082U, CaptureIdHash(1));
    EXPECT_EQ(0x053009B59125E33DU, CaptureIdHash(0x0102030405060708U));
}

TEST(ConnectionHash, HasKnownValuesThatBothFormsAndBothDirectionsShare) {
    for (const KnownHash& known : kKnownHashes) {
        const EventReport report = ReportOf(known);
        EXPECT_EQ(ConnectionHash(report), known.hash) << Describe(known);
        EXPECT_EQ(ConnectionHash(Reversed(report)), known.hash) << Describe(known);
        EXPECT_EQ(ConnectionHash(RecordOf(report)), known.hash) << Describe(known);
        EXPECT_EQ(ConnectionHash(RecordOf(Reversed(report))), known.hash) << Describe(known);
    }
}

TEST(ConnectionHash, IsZeroForAnEtherTypeThatIsNotIp) {
    for (const int etherType : {0x0000, 0x0806, 0x86DC, 0xFFFF}) {
        EventReport report = ReportOf(kKnownHashes[0]);
        report.etherType = static_cast<uint16_t>(etherType);
        EXPECT_EQ(0U, ConnectionHash(report)) << etherType;
        EXPECT_EQ(0U, ConnectionHash(RecordOf(report))) << etherType;
    }
}

TEST(ConnectionHash, KeepsTwoHashesForTheDirectionsOfEqualPorts) {
    EventReport report = ReportOf(kKnownHashes[0]);
    report.sourcePort = report.destinationPort = 500;
    report.vlanId = 0;
    EXPECT_EQ(0x58363B5BCE91F177U, ConnectionHash(report));
    EXPECT_EQ(0x6DADBD190BDF5491U, ConnectionHash(Reversed(report)));
}

TEST(ConnectionHash, UsesPortsOfTcpAndUdpAlone) {
    for (const int protocol : {1, 6, 17, 47, 58}) {
        EventReport report = ReportOf(kKnownHashes[0]);
        report.ipProtocol = static_cast<uint16_t>(protocol);
        EventReport otherPort = report;
        otherPort.destinationPort = 444;
        EXPECT_EQ(ConnectionHash(report) != ConnectionHash(otherPort),
                  protocol == 6 || protocol == 17)
            << protocol;
    }
}

TEST(ConnectionHash, TakesAVlanFromOneTo4096) {
    EventReport report = ReportOf(kKnownHashes[0]);
    const auto hash = [&](uint32_t vlanId) {
        report.vlanId = vlanId;
        return ConnectionHash(report);
    };
    EXPECT_NE(hash(1), hash(0));
    EXPECT_NE(hash(4096), hash(0));
    EXPECT_EQ(hash(0), hash(4097));
    EXPECT_EQ(hash(0), hash(0x10001));
    EXPECT_EQ(hash(0), hash(0xFFFFFFFF));
}

TEST(ConnectionHash, LooksAtTheAddressesOfItsOwnVersionAlone) {
    EventReport report = ReportOf(kKnownHashes[0]);
    report.sourceIpv6[3] ^= 1;
    EXPECT_EQ(kKnownHashes[0].hash, ConnectionHash(report));
    report = ReportOf(kKnownHashes[6]);
    report.sourceIp ^= 1;
    EXPECT_EQ(kKnownHashes[6].hash, ConnectionHash(report));
}

}  // namespace
