#pragma once

// The records of Snort's unified2 format, as they come through the alert FIFO: an 8-byte header and
// then the payload of its type. Every number is big-endian. Of the many record types the daemon
// takes four; the alert records of older sensors, without the VLAN fields, are not among them.
//
// A sensor may write more than the struct of a type, and the rest is ignored. It may also write
// less: what a record lacks reads as zeros. docs/formats/unified2.md is the page of this format.
//
// Threads: plain values.

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace unified2 {

// A number in the byte order of a record. It becomes a number of this host only through
// HostOrder().
template <typename T>
class BigEndian {
  public:
    static_assert(std::is_unsigned_v<T> && (sizeof(T) == 2 || sizeof(T) == 4));

    [[nodiscard]] constexpr T HostOrder() const { return Swapped(m_wireOrder); }

    [[nodiscard]] static constexpr BigEndian FromHostOrder(T value) {
        BigEndian field;
        field.m_wireOrder = Swapped(value);
        return field;
    }

  private:
    [[nodiscard]] static constexpr T Swapped(T value) {
        if constexpr (std::endian::native == std::endian::big) {
            return value;
        } else if constexpr (sizeof(T) == 2) {
            return __builtin_bswap16(value);
        } else {
            return __builtin_bswap32(value);
        }
    }

    T m_wireOrder = 0;
};

using Big16 = BigEndian<uint16_t>;
using Big32 = BigEndian<uint32_t>;

enum RecordType : uint32_t {
    kPacket = 2,
    kAlertIpv4 = 104,
    kAlertIpv6 = 105,
    kExtraData = 110,
};

// The kinds of extra data that the daemon takes.
enum ExtraDataType : uint32_t {
    kHttpUri = 9,
    kHttpHostname = 10,
};

// Comes before every record. There is no magic, no checksum and no header of the stream.
struct RecordHeader {
    Big32 type;
    Big32 length;  // bytes of payload
};

// Type 104.
struct AlertIpv4 {
    Big32 sensorId;
    Big32 eventId;
    Big32 eventSecond;
    Big32 eventMicrosecond;
    Big32 signatureId;
    Big32 generatorId;
    Big32 signatureRevision;
    Big32 classificationId;
    Big32 priorityId;
    std::array<uint8_t, 4> ipSource;
    std::array<uint8_t, 4> ipDestination;
    Big16 sportItype;  // source port, or ICMP type
    Big16 dportIcode;  // destination port, or ICMP code
    uint8_t ipProtocol;
    uint8_t impactFlag;
    uint8_t impact;
    uint8_t blocked;
    Big32 mplsLabel;
    Big16 vlanId;
    Big16 policyId;
};

// Type 105.
struct AlertIpv6 {
    Big32 sensorId;
    Big32 eventId;
    Big32 eventSecond;
    Big32 eventMicrosecond;
    Big32 signatureId;
    Big32 generatorId;
    Big32 signatureRevision;
    Big32 classificationId;
    Big32 priorityId;
    std::array<uint8_t, 16> ipSource;
    std::array<uint8_t, 16> ipDestination;
    Big16 sportItype;  // source port, or ICMP type
    Big16 dportIcode;  // destination port, or ICMP code
    uint8_t ipProtocol;
    uint8_t impactFlag;
    uint8_t impact;
    uint8_t blocked;
    Big32 mplsLabel;
    Big16 vlanId;
    Big16 policyId;
};

// Type 2. The packet's bytes follow.
struct Packet {
    Big32 sensorId;
    Big32 eventId;
    Big32 eventSecond;
    Big32 packetSecond;
    Big32 packetMicrosecond;
    Big32 linktype;
    Big32 packetLength;  // bytes
};

// Type 110. The blob's bytes follow.
struct ExtraData {
    Big32 eventType;
    Big32 eventLength;
    Big32 sensorId;
    Big32 eventId;
    Big32 eventSecond;
    Big32 type;  // ExtraDataType
    Big32 dataType;
    Big32 blobLength;  // bytes, counting itself and dataType
};

// A copy of the fixed part of a record. `bytes` must hold at least that much; it need not be
// aligned.
template <typename Record>
[[nodiscard]] Record Load(const uint8_t* bytes) {
    Record record;
    std::memcpy(&record, bytes, sizeof(record));
    return record;
}

// What blobLength counts besides the blob: dataType and blobLength.
inline constexpr uint32_t kBlobOverhead = 8;

// The bytes that are read of every record of a type, whatever its length; 0 for other types.
[[nodiscard]] constexpr uint32_t FixedSize(uint32_t type) {
    switch (type) {
        case kPacket:
            return sizeof(Packet);
        case kAlertIpv4:
            return sizeof(AlertIpv4);
        case kAlertIpv6:
            return sizeof(AlertIpv6);
        case kExtraData:
            return sizeof(ExtraData);
        default:
            return 0;
    }
}

template <typename T>
inline constexpr bool kIsWireStruct = std::is_trivially_copyable_v<T>&&
    std::is_standard_layout_v<T>&& std::has_unique_object_representations_v<T>;

static_assert(sizeof(Big16) == 2 && kIsWireStruct<Big16>);
static_assert(sizeof(Big32) == 4 && kIsWireStruct<Big32>);

static_assert(sizeof(RecordHeader) == 8 && kIsWireStruct<RecordHeader>);
static_assert(offsetof(RecordHeader, type) == 0);
static_assert(offsetof(RecordHeader, length) == 4);

static_assert(sizeof(AlertIpv4) == 60 && kIsWireStruct<AlertIpv4>);
static_assert(offsetof(AlertIpv4, sensorId) == 0);
static_assert(offsetof(AlertIpv4, eventId) == 4);
static_assert(offsetof(AlertIpv4, eventSecond) == 8);
static_assert(offsetof(AlertIpv4, eventMicrosecond) == 12);
static_assert(offsetof(AlertIpv4, signatureId) == 16);
static_assert(offsetof(AlertIpv4, generatorId) == 20);
static_assert(offsetof(AlertIpv4, signatureRevision) == 24);
static_assert(offsetof(AlertIpv4, classificationId) == 28);
static_assert(offsetof(AlertIpv4, priorityId) == 32);
static_assert(offsetof(AlertIpv4, ipSource) == 36);
static_assert(offsetof(AlertIpv4, ipDestination) == 40);
static_assert(offsetof(AlertIpv4, sportItype) == 44);
static_assert(offsetof(AlertIpv4, dportIcode) == 46);
static_assert(offsetof(AlertIpv4, ipProtocol) == 48);
static_assert(offsetof(AlertIpv4, impactFlag) == 49);
static_assert(offsetof(AlertIpv4, impact) == 50);
static_assert(offsetof(AlertIpv4, blocked) == 51);
static_assert(offsetof(AlertIpv4, mplsLabel) == 52);
static_assert(offsetof(AlertIpv4, vlanId) == 56);
static_assert(offsetof(AlertIpv4, policyId) == 58);

static_assert(sizeof(AlertIpv6) == 84 && kIsWireStruct<AlertIpv6>);
static_assert(offsetof(AlertIpv6, sensorId) == 0);
static_assert(offsetof(AlertIpv6, eventId) == 4);
static_assert(offsetof(AlertIpv6, eventSecond) == 8);
static_assert(offsetof(AlertIpv6, eventMicrosecond) == 12);
static_assert(offsetof(AlertIpv6, signatureId) == 16);
static_assert(offsetof(AlertIpv6, generatorId) == 20);
static_assert(offsetof(AlertIpv6, signatureRevision) == 24);
static_assert(offsetof(AlertIpv6, classificationId) == 28);
static_assert(offsetof(AlertIpv6, priorityId) == 32);
static_assert(offsetof(AlertIpv6, ipSource) == 36);
static_assert(offsetof(AlertIpv6, ipDestination) == 52);
static_assert(offsetof(AlertIpv6, sportItype) == 68);
static_assert(offsetof(AlertIpv6, dportIcode) == 70);
static_assert(offsetof(AlertIpv6, ipProtocol) == 72);
static_assert(offsetof(AlertIpv6, impactFlag) == 73);
static_assert(offsetof(AlertIpv6, impact) == 74);
static_assert(offsetof(AlertIpv6, blocked) == 75);
static_assert(offsetof(AlertIpv6, mplsLabel) == 76);
static_assert(offsetof(AlertIpv6, vlanId) == 80);
static_assert(offsetof(AlertIpv6, policyId) == 82);

static_assert(sizeof(Packet) == 28 && kIsWireStruct<Packet>);
static_assert(offsetof(Packet, sensorId) == 0);
static_assert(offsetof(Packet, eventId) == 4);
static_assert(offsetof(Packet, eventSecond) == 8);
static_assert(offsetof(Packet, packetSecond) == 12);
static_assert(offsetof(Packet, packetMicrosecond) == 16);
static_assert(offsetof(Packet, linktype) == 20);
static_assert(offsetof(Packet, packetLength) == 24);

static_assert(sizeof(ExtraData) == 32 && kIsWireStruct<ExtraData>);
static_assert(offsetof(ExtraData, eventType) == 0);
static_assert(offsetof(ExtraData, eventLength) == 4);
static_assert(offsetof(ExtraData, sensorId) == 8);
static_assert(offsetof(ExtraData, eventId) == 12);
static_assert(offsetof(ExtraData, eventSecond) == 16);
static_assert(offsetof(ExtraData, type) == 20);
static_assert(offsetof(ExtraData, dataType) == 24);
static_assert(offsetof(ExtraData, blobLength) == 28);

}  // namespace unified2
