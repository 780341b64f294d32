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
constexpr std::size_t kIpv4Part = offsetof(ConnectionKey, uFirstIp);

static_assert(sizeof(ConnectionKey) == 48);
static_assert(kIpv4Part == 32);
static_assert(offsetof(ConnectionKey, uFirstPort) == 40);
static_assert(offsetof(ConnectionKey, uProtocol) == 44);
static_assert(offsetof(ConnectionKey, uVlanId) == 46);
static_assert(std::has_unique_object_representations_v<ConnectionKey>);

// One step of both functions: scrambles a word of the key and takes it into a lane.
constexpr uint32_t kMultiplier = 0x5bd1e995;
void Mix(uint32_t& uLane, const unsigned char* pWord) {
    uint32_t uWord = 0;
    std::memcpy(&uWord, pWord, sizeof uWord);
    uWord *= kMultiplier;
    uWord ^= uWord >> 24;
    uWord *= kMultiplier;
    uLane = (uLane * kMultiplier) ^ uWord;
}

// The one to three bytes that are left behind the last whole word.
void MixTail(uint32_t& uLane, const unsigned char* pTail, std::size_t uLength) {
    if (uLength == 0) {
        return;
    }
    for (std::size_t i = 0; i < uLength; ++i) {
        uLane ^= static_cast<uint32_t>(pTail[i]) << (8 * i);
    }
    uLane *= kMultiplier;
}

}  // namespace

uint64_t MurmurHash64B(const void* pKey, std::size_t uLength, uint64_t uSeed) {
    const auto* pAt = static_cast<const unsigned char*>(pKey);
    auto uFirst = static_cast<uint32_t>(uSeed) ^ static_cast<uint32_t>(uLength);
    auto uSecond = static_cast<uint32_t>(uSeed >> 32);
    for (; uLength >= 8; uLength -= 8, pAt += 8) {
        Mix(uFirst, pAt);
        Mix(uSecond, pAt + 4);
    }
    if (uLength >= 4) {
        Mix(uFirst, pAt);
        uLength -= 4;
        pAt += 4;
    }
    MixTail(uSecond, pAt, uLength);

    uFirst = (uFirst ^ (uSecond >> 18)) * kMultiplier;
    uSecond = (uSecond ^ (uFirst >> 22)) * kMultiplier;
    uFirst = (uFirst ^ (uSecond >> 17)) * kMultiplier;
    uSecond = (uSecond ^ (uFirst >> 19)) * kMultiplier;
    return uint64_t{uFirst} << 32 | uSecond;
}

uint32_t MurmurHash2(const void* pKey, std::size_t uLength, uint32_t uSeed) {
    const auto* pAt = static_cast<const unsigned char*>(pKey);
    uint32_t uLane = uSeed ^ static_cast<uint32_t>(uLength);
    for (; uLength >= 4; uLength -= 4, pAt += 4) {
        Mix(uLane, pAt);
    }
    MixTail(uLane, pAt, uLength);
    uLane = (uLane ^ (uLane >> 13)) * kMultiplier;
    return uLane ^ (uLane >> 15);
}

uint64_t ConnectionHash(const ConnectionRecord& record) {
    if (record.uEtherType != kEtherTypeIpv4 && record.uEtherType != kEtherTypeIpv6) {
        return 0;
    }
    ConnectionKey key;
    // Deliberate: where the ports are equal the source comes first, so the two directions of such a
    // connection have two hashes. The peer numbers its captures by the same rule.
    const bool bSourceFirst = record.uSourcePort <= record.uDestinationPort;
    if (record.uProtocol == IPPROTO_TCP || record.uProtocol == IPPROTO_UDP) {
        const auto [uLower, uHigher] = std::minmax(record.uSourcePort, record.uDestinationPort);
        key.uFirstPort = static_cast<uint16_t>(uLower);
        key.uSecondPort = static_cast<uint16_t>(uHigher);
    }
    key.uProtocol = static_cast<uint16_t>(record.uProtocol);
    if (record.uVlanId <= kHighestVlanId) {
        key.uVlanId = static_cast<uint16_t>(record.uVlanId);
    }
    if (record.uEtherType == kEtherTypeIpv4) {
        key.uFirstIp = bSourceFirst ? record.uSourceIp : record.uDestinationIp;
        key.uSecondIp = bSourceFirst ? record.uDestinationIp : record.uSourceIp;
        const auto* const pKey = reinterpret_cast<const unsigned char*>(&key);
        return MurmurHash64B(pKey + kIpv4Part, sizeof key - kIpv4Part, kConnectionHashSeed);
    }
    const auto& aFirst = bSourceFirst ? record.aSourceIpv6 : record.aDestinationIpv6;
    const auto& aSecond = bSourceFirst ? record.aDestinationIpv6 : record.aSourceIpv6;
    std::memcpy(key.aFirstIpv6, aFirst, sizeof key.aFirstIpv6);
    std::memcpy(key.aSecondIpv6, aSecond, sizeof key.aSecondIpv6);
    return MurmurHash64B(&key, sizeof key, kConnectionHashSeed);
}

uint64_t ConnectionHash(const EventReport& report) {
    ConnectionRecord record;
    record.uSourceIp = report.sourceIp;
    record.uDestinationIp = report.destinationIp;
    record.uSourcePort = report.sourcePort;
    record.uDestinationPort = report.destinationPort;
    record.uProtocol = report.ipProtocol;
    record.uVlanId = report.vlanId;
    std::memcpy(record.aSourceIpv6, report.sourceIpv6, sizeof record.aSourceIpv6);
    std::memcpy(record.aDestinationIpv6, report.destinationIpv6, sizeof record.aDestinationIpv6);
    record.uEtherType = report.etherType;
    return ConnectionHash(record);
}

uint64_t CaptureIdHash(uint64_t uCaptureId) {
    return MurmurHash64B(&uCaptureId, sizeof uCaptureId, kConnectionHashSeed);
}
