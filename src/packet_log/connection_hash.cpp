#include "packet_log/connection_hash.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace {

constexpr uint32_t kHighestVlanId = 4096;

struct ConnectionKey {
    uint8_t aFirstIpv6[16] = {};
    uint8_t aSecondIpv6[16] = {};
    uint32_t uFirstIp = 0;
    uint32_t uSecondIp = 0;
    uint16_t uFirstPort = 0;
    uint16_t uSecondPort = 0;
    uint16_t uProtocol = 0;
    uint16_t uVlanId = 0;
};
constexpr size_t kIpv4Part = offsetof(ConnectionKey, uFirstIp);

static_assert(sizeof(ConnectionKey) == 48);
static_assert(kIpv4Part == 32);
static_assert(offsetof(ConnectionKey, uFirstPort) == 40);
static_assert(offsetof(ConnectionKey, uProtocol) == 44);
static_assert(offsetof(ConnectionKey, uVlanId) == 46);
static_assert(std::has_unique_object_representations_v<ConnectionKey>);

// One step of both functions: scrambles a word of the key and takes it into a lane.
constexpr uint32_t kMultiplier = 0x5bd1e995;
void Mix(uint32_t& lane, const unsigned char* bytes) {
    uint32_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    word *= kMultiplier;
    word ^= word >> 24;
    word *= kMultiplier;
    lane = (lane * kMultiplier) ^ word;
}

// The one to three bytes that are left after the last whole word.
void MixTail(uint32_t& lane, const unsigned char* tail, size_t length) {
    if (length == 0) {
        return;
    }
    for (size_t i = 0; i < length; ++i) {
        lane ^= static_cast<uint32_t>(tail[i]) << (8 * i);
    }
    lane *= kMultiplier;
}

}  // namespace

uint64_t MurmurHash64B(const void* key, size_t length, uint64_t seed) {
    const auto* at = static_cast<const unsigned char*>(key);
    auto first = static_cast<uint32_t>(seed) ^ static_cast<uint32_t>(length);
    auto second = static_cast<uint32_t>(seed >> 32);
    for (; length >= 8; length -= 8, at += 8) {
        Mix(first, at);
        Mix(second, at + 4);
    }
    if (length >= 4) {
        Mix(first, at);
        length -= 4;
        at += 4;
    }
    MixTail(second, at, length);

    first = (first ^ (second >> 18)) * kMultiplier;
    second = (second ^ (first >> 22)) * kMultiplier;
    first = (first ^ (second >> 17)) * kMultiplier;
    second = (second ^ (first >> 19)) * kMultiplier;
    return uint64_t{first} << 32 | second;
}

uint32_t MurmurHash2(const void* key, size_t length, uint32_t seed) {
    const auto* at = static_cast<const unsigned char*>(key);
    uint32_t lane = seed ^ static_cast<uint32_t>(length);
    for (; length >= 4; length -= 4, at += 4) {
        Mix(lane, at);
    }
    MixTail(lane, at, length);
    lane = (lane ^ (lane >> 13)) * kMultiplier;
    return lane ^ (lane >> 15);
}

uint64_t ConnectionHash(const ConnectionRecord& record) {
    if (record.uEtherType != kEtherTypeIpv4 && record.uEtherType != kEtherTypeIpv6) {
        return 0;
    }
    ConnectionKey key;
    // Deliberate: where the ports are equal the source comes first, so the two directions of such a
    // connection have two hashes. The peer numbers its captures by the same rule.
    const bool sourceFirst = record.uSourcePort <= record.uDestinationPort;
    if (record.uProtocol == IPPROTO_TCP || record.uProtocol == IPPROTO_UDP) {
        const auto [lower, higher] = std::minmax(record.uSourcePort, record.uDestinationPort);
        key.uFirstPort = static_cast<uint16_t>(lower);
        key.uSecondPort = static_cast<uint16_t>(higher);
    }
    key.uProtocol = static_cast<uint16_t>(record.uProtocol);
    if (record.uVlanId <= kHighestVlanId) {
        key.uVlanId = static_cast<uint16_t>(record.uVlanId);
    }
    if (record.uEtherType == kEtherTypeIpv4) {
        key.uFirstIp = sourceFirst ? record.uSourceIp : record.uDestinationIp;
        key.uSecondIp = sourceFirst ? record.uDestinationIp : record.uSourceIp;
        const auto* const bytes = reinterpret_cast<const unsigned char*>(&key);
        return MurmurHash64B(bytes + kIpv4Part, sizeof(key) - kIpv4Part, kConnectionHashSeed);
    }
    const auto& firstAddress = sourceFirst ? record.aSourceIpv6 : record.aDestinationIpv6;
    const auto& secondAddress = sourceFirst ? record.aDestinationIpv6 : record.aSourceIpv6;
    std::memcpy(key.aFirstIpv6, firstAddress, sizeof(key.aFirstIpv6));
    std::memcpy(key.aSecondIpv6, secondAddress, sizeof(key.aSecondIpv6));
    return MurmurHash64B(&key, sizeof(key), kConnectionHashSeed);
}

uint64_t ConnectionHash(const EventReport& report) {
    ConnectionRecord record;
    record.uSourceIp = report.sourceIp;
    record.uDestinationIp = report.destinationIp;
    record.uSourcePort = report.sourcePort;
    record.uDestinationPort = report.destinationPort;
    record.uProtocol = report.ipProtocol;
    record.uVlanId = report.vlanId;
    std::memcpy(record.aSourceIpv6, report.sourceIpv6, sizeof(record.aSourceIpv6));
    std::memcpy(record.aDestinationIpv6, report.destinationIpv6, sizeof(record.aDestinationIpv6));
    record.uEtherType = report.etherType;
    return ConnectionHash(record);
}

uint64_t CaptureIdHash(uint64_t uCaptureId) {
    return MurmurHash64B(&uCaptureId, sizeof(uCaptureId), kConnectionHashSeed);
}
