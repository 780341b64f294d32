#pragma once

// Writes unified2 records byte by byte, as a sensor would: it shares no struct and no constant with
// the daemon's own view of the format, so that the two can be held against each other.
//
// Threads: plain values.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace u2test {

using Bytes = std::vector<uint8_t>;

inline void Put8(Bytes& out, unsigned value) {
    out.push_back(static_cast<uint8_t>(value & 0xFF));
}

inline void Put16(Bytes& out, unsigned value) {
    Put8(out, value >> 8);
    Put8(out, value);
}

inline void Put32(Bytes& out, uint32_t value) {
    Put16(out, value >> 16);
    Put16(out, value & 0xFFFF);
}

inline void Append(Bytes& out, const Bytes& tail) {
    out.insert(out.end(), tail.begin(), tail.end());
}

// An alert; the length of the addresses decides which of the two types it is.
struct Alert {
    uint32_t sensorId = 0;
    uint32_t eventId = 1;
    uint32_t eventSecond = 1700000000;
    uint32_t eventMicrosecond = 0;
    uint32_t signatureId = 1000001;
    uint32_t generatorId = 1;
    uint32_t signatureRevision = 1;
    uint32_t classificationId = 0;
    uint32_t priorityId = 0;
    Bytes source = {10, 1, 2, 3};
    Bytes destination = {192, 168, 0, 1};
    unsigned sportItype = 40000;
    unsigned dportIcode = 80;
    unsigned protocol = 6;
    unsigned impactFlag = 0;
    unsigned impact = 0;
    unsigned blocked = 0;
    uint32_t mplsLabel = 0;
    unsigned vlanId = 0;
    unsigned policyId = 0;

    [[nodiscard]] uint32_t Type() const { return source.size() == 4 ? 104 : 105; }

    [[nodiscard]] Bytes Payload() const {
        Bytes out;
        for (const uint32_t word : {sensorId, eventId, eventSecond, eventMicrosecond, signatureId,
                                    generatorId, signatureRevision, classificationId, priorityId}) {
            Put32(out, word);
        }
        Append(out, source);
        Append(out, destination);
        Put16(out, sportItype);
        Put16(out, dportIcode);
        Put8(out, protocol);
        Put8(out, impactFlag);
        Put8(out, impact);
        Put8(out, blocked);
        Put32(out, mplsLabel);
        Put16(out, vlanId);
        Put16(out, policyId);
        return out;
    }
};

inline Alert AlertIpv6() {
    Alert alert;
    alert.source = {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    alert.destination = {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
    return alert;
}

struct Packet {
    uint32_t sensorId = 0;
    uint32_t eventId = 1;
    uint32_t eventSecond = 1700000000;
    uint32_t second = 1700000001;
    uint32_t microsecond = 999;
    uint32_t linktype = 1;
    Bytes data = {0xDE, 0xAD, 0xBE, 0xEF};
    int64_t claimedLength = -1;  // negative: the length of `data`

    [[nodiscard]] Bytes Payload() const {
        const auto length = static_cast<uint32_t>(
            claimedLength < 0 ? static_cast<int64_t>(data.size()) : claimedLength);
        Bytes out;
        for (const uint32_t word :
             {sensorId, eventId, eventSecond, second, microsecond, linktype, length}) {
            Put32(out, word);
        }
        Append(out, data);
        return out;
    }
};

struct ExtraData {
    uint32_t sensorId = 0;
    uint32_t eventId = 1;
    uint32_t eventSecond = 1700000000;
    uint32_t type = 9;
    uint32_t dataType = 1;
    std::string data = "/index.html";
    int64_t claimedLength = -1;  // negative: the length of `data` and 8

    [[nodiscard]] Bytes Payload() const {
        const auto length = static_cast<uint32_t>(
            claimedLength < 0 ? static_cast<int64_t>(data.size()) + 8 : claimedLength);
        Bytes out;
        for (const uint32_t word : {4U, static_cast<uint32_t>(data.size() + 32), sensorId, eventId,
                                    eventSecond, type, dataType, length}) {
            Put32(out, word);
        }
        out.insert(out.end(), data.begin(), data.end());
        return out;
    }
};

// A record as it stands in the stream: the header and then the payload.
inline Bytes Framed(uint32_t type, const Bytes& payload) {
    Bytes out;
    Put32(out, type);
    Put32(out, static_cast<uint32_t>(payload.size()));
    Append(out, payload);
    return out;
}

inline Bytes Framed(const Alert& alert) {
    return Framed(alert.Type(), alert.Payload());
}

inline Bytes Framed(const Packet& packet) {
    return Framed(2, packet.Payload());
}

inline Bytes Framed(const ExtraData& extra) {
    return Framed(110, extra.Payload());
}

// A copy from malloc, for a record object to take over: exactly these bytes, and zeros up to
// `least`.
inline void* Allocated(const Bytes& payload, size_t least = 0) {
    const size_t size = payload.size() > least ? payload.size() : least;
    auto* copy = static_cast<uint8_t*>(calloc(1, size));
    std::copy(payload.begin(), payload.end(), copy);
    return copy;
}

}  // namespace u2test
