#include "tarnctl/show/record_content.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "quarantine/address_text.h"
#include "tarnctl/common/counted.h"
#include "unified2/unified2_format.h"

namespace tarnctl {
namespace {

using Bytes = std::span<const std::byte>;

// What is written besides the daemon's four.
enum OtherType : uint32_t {
    kEvent = 1,  // of either family
    kBuffer = 3,
    kOldEventIpv4 = 7,
    kOldEventIpv6 = 72,
    kMplsEventIpv4 = 99,
    kMplsEventIpv6 = 100,
    kApplicationEventIpv4 = 111,
    kApplicationEventIpv6 = 112,
    kApplicationStatistics = 113,
};

struct Kind {
    uint32_t type;
    const char* name;
};

constexpr Kind kKinds[] = {
    {kEvent, "event"},
    {unified2::kPacket, "packet"},
    {kBuffer, "buffer"},
    {kOldEventIpv4, "event"},
    {66, "extended event"},
    {67, "performance"},
    {68, "port scan"},
    {kOldEventIpv6, "event"},
    {kMplsEventIpv4, "event"},
    {kMplsEventIpv6, "event"},
    {unified2::kAlertIpv4, "event"},
    {unified2::kAlertIpv6, "event"},
    {unified2::kExtraData, "extra data"},
    {kApplicationEventIpv4, "event"},
    {kApplicationEventIpv6, "event"},
    {kApplicationStatistics, "application statistics"},
};

// The name of an application fills a field of this size; that of newer sensors is longer.
constexpr size_t kApplicationName = 16;
constexpr size_t kLongApplicationName = 64;

// Where the fields of an event begin that not every kind has.
template <typename Record>
constexpr size_t kMplsAt = offsetof(Record, mplsLabel);
template <typename Record>
constexpr size_t kVlanAt = offsetof(Record, vlanId);

std::string TooShort(size_t bytes, size_t least) {
    return Counted(bytes, "byte") + " of payload, where its kind needs at least " +
           std::to_string(least);
}

uint32_t Big32At(Bytes bytes, size_t at) {
    unified2::Big32 value;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value.HostOrder();
}

uint16_t Big16At(Bytes bytes, size_t at) {
    unified2::Big16 value;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value.HostOrder();
}

// A name in a field of fixed size, which need not end with a zero.
std::string NameIn(Bytes field) {
    const auto end = std::find(field.begin(), field.end(), std::byte{0});
    return {reinterpret_cast<const char*>(field.data()), static_cast<size_t>(end - field.begin())};
}

template <size_t N>
IpAddress AddressOf(const std::array<uint8_t, N>& bytes) {
    IpAddress address;
    address.family = N == 4 ? AF_INET : AF_INET6;
    std::copy(bytes.begin(), bytes.end(), address.bytes.begin());
    return address;
}

template <typename Record>
std::string DecodeEvent(Bytes payload, EventContent& event) {
    if (payload.size() < kMplsAt<Record>) {
        return TooShort(payload.size(), kMplsAt<Record>);
    }
    Record record;
    std::memcpy(static_cast<void*>(&record), payload.data(),
                std::min(payload.size(), sizeof record));
    event.sensorId = record.sensorId.HostOrder();
    event.eventId = record.eventId.HostOrder();
    event.second = record.eventSecond.HostOrder();
    event.microsecond = record.eventMicrosecond.HostOrder();
    event.signatureId = record.signatureId.HostOrder();
    event.generatorId = record.generatorId.HostOrder();
    event.revision = record.signatureRevision.HostOrder();
    event.classification = record.classificationId.HostOrder();
    event.priority = record.priorityId.HostOrder();
    event.source = AddressOf(record.ipSource);
    event.destination = AddressOf(record.ipDestination);
    event.sourcePort = record.sportItype.HostOrder();
    event.destinationPort = record.dportIcode.HostOrder();
    event.protocol = record.ipProtocol;
    event.impactFlag = record.impactFlag;
    event.impact = record.impact;
    event.blocked = record.blocked;
    if (payload.size() >= kVlanAt<Record>) {
        event.mplsLabel = record.mplsLabel.HostOrder();
    }
    if (payload.size() >= sizeof record) {
        event.vlanId = record.vlanId.HostOrder();
        event.policies = {record.policyId.HostOrder()};
    }
    if (payload.size() >= sizeof record + kApplicationName) {
        const Bytes rest = payload.subspan(sizeof record);
        event.application = NameIn(rest.first(std::min(rest.size(), kLongApplicationName)));
    }
    return "";
}

// An IPv4 address is mapped into an IPv6 one.
IpAddress AddressOfEither(Bytes bytes) {
    constexpr size_t kMapped = 12;
    std::array<uint8_t, 16> all = {};
    std::memcpy(all.data(), bytes.data(), all.size());
    const bool isMapped =
        std::all_of(all.begin(), all.begin() + 10, [](uint8_t byte) { return byte == 0; }) &&
        all[10] == 0xFF && all[11] == 0xFF;
    if (!isMapped) {
        return AddressOf(all);
    }
    std::array<uint8_t, 4> last = {};
    std::copy(all.begin() + kMapped, all.end(), last.begin());
    return AddressOf(last);
}

std::string DecodeEventOfEither(Bytes payload, EventContent& event) {
    constexpr size_t kLeast = 90;
    if (payload.size() < kLeast) {
        return TooShort(payload.size(), kLeast);
    }
    event.sensorId = Big32At(payload, 0);
    event.eventId = Big32At(payload, 4);
    event.second = Big32At(payload, 8);
    event.microsecond = Big32At(payload, 12);
    event.generatorId = Big32At(payload, 16);
    event.signatureId = Big32At(payload, 20);
    event.revision = Big32At(payload, 24);
    event.classification = Big32At(payload, 28);
    event.priority = Big32At(payload, 32);
    event.policies = {Big32At(payload, 36), Big32At(payload, 40), Big32At(payload, 44)};
    event.source = AddressOfEither(payload.subspan(48));
    event.destination = AddressOfEither(payload.subspan(64));
    event.mplsLabel = Big32At(payload, 80);
    event.sourcePort = Big16At(payload, 84);
    event.destinationPort = Big16At(payload, 86);
    event.vlanId = Big16At(payload, 88);
    return "";
}

std::string DecodePacket(Bytes payload, PacketContent& packet) {
    if (payload.size() < sizeof(unified2::Packet)) {
        return TooShort(payload.size(), sizeof(unified2::Packet));
    }
    const auto record =
        unified2::Load<unified2::Packet>(reinterpret_cast<const uint8_t*>(payload.data()));
    packet.sensorId = record.sensorId.HostOrder();
    packet.eventId = record.eventId.HostOrder();
    packet.eventSecond = record.eventSecond.HostOrder();
    packet.second = record.packetSecond.HostOrder();
    packet.microsecond = record.packetMicrosecond.HostOrder();
    packet.linkType = record.linktype.HostOrder();
    packet.length = record.packetLength.HostOrder();
    const Bytes rest = payload.subspan(sizeof record);
    packet.bytes = rest.first(std::min<size_t>(rest.size(), packet.length));
    return "";
}

std::string DecodeExtra(Bytes payload, ExtraContent& extra) {
    if (payload.size() < sizeof(unified2::ExtraData)) {
        return TooShort(payload.size(), sizeof(unified2::ExtraData));
    }
    const auto record =
        unified2::Load<unified2::ExtraData>(reinterpret_cast<const uint8_t*>(payload.data()));
    extra.sensorId = record.sensorId.HostOrder();
    extra.eventId = record.eventId.HostOrder();
    extra.eventSecond = record.eventSecond.HostOrder();
    extra.type = record.type.HostOrder();
    extra.dataType = record.dataType.HostOrder();
    const Bytes rest = payload.subspan(sizeof record);
    const uint32_t claimed = record.blobLength.HostOrder();
    if (claimed < unified2::kBlobOverhead || claimed - unified2::kBlobOverhead > rest.size()) {
        return "extra data is said to have " + std::to_string(claimed) + " bytes and has " +
               std::to_string(rest.size() + unified2::kBlobOverhead);
    }
    extra.bytes = rest.first(claimed - unified2::kBlobOverhead);
    return "";
}

std::string DecodeStatistics(Bytes payload, StatisticsContent& statistics) {
    constexpr size_t kHead = 8;
    if (payload.size() < kHead) {
        return TooShort(payload.size(), kHead);
    }
    statistics.second = Big32At(payload, 0);
    const uint32_t count = Big32At(payload, 4);
    const Bytes entries = payload.subspan(kHead);
    constexpr size_t kCounters = 8;
    const bool isLong = entries.size() == uint64_t{count} * (kLongApplicationName + kCounters);
    const size_t name = isLong ? kLongApplicationName : kApplicationName;
    const size_t size = name + kCounters;
    if (count > entries.size() / size) {
        return Counted(count, "application") + " where the record has room for " +
               std::to_string(entries.size() / size);
    }
    for (uint32_t i = 0; i < count; ++i) {
        const Bytes entry = entries.subspan(i * size, size);
        statistics.applications.push_back(
            {NameIn(entry.first(name)), Big32At(entry, name), Big32At(entry, name + 4)});
    }
    return "";
}

}  // namespace

const char* KindOfRecord(uint32_t type) {
    const auto* const kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                          [type](const Kind& one) { return one.type == type; });
    return kind != std::end(kKinds) ? kind->name : "unknown";
}

std::string KindOfExtraData(uint32_t type) {
    constexpr const char* kNames[] = {"",
                                      "original client IPv4",
                                      "original client IPv6",
                                      "",
                                      "gzip data",
                                      "SMTP file name",
                                      "SMTP sender",
                                      "SMTP recipient",
                                      "SMTP headers",
                                      "HTTP URI",
                                      "HTTP host name",
                                      "IPv6 source",
                                      "IPv6 destination",
                                      "normalized script"};
    return type < std::size(kNames) ? kNames[type] : "";
}

std::string DecodeRecord(uint32_t type, Bytes payload, RecordContent& content) {
    switch (type) {
        case kEvent:
            return DecodeEventOfEither(payload, content.emplace<EventContent>());
        case kOldEventIpv4:
        case kMplsEventIpv4:
        case unified2::kAlertIpv4:
        case kApplicationEventIpv4:
            return DecodeEvent<unified2::AlertIpv4>(payload, content.emplace<EventContent>());
        case kOldEventIpv6:
        case kMplsEventIpv6:
        case unified2::kAlertIpv6:
        case kApplicationEventIpv6:
            return DecodeEvent<unified2::AlertIpv6>(payload, content.emplace<EventContent>());
        case unified2::kPacket:
        case kBuffer:
            return DecodePacket(payload, content.emplace<PacketContent>());
        case unified2::kExtraData:
            return DecodeExtra(payload, content.emplace<ExtraContent>());
        case kApplicationStatistics:
            return DecodeStatistics(payload, content.emplace<StatisticsContent>());
        default:
            content.emplace<OtherContent>();
            return "";
    }
}

std::string AddressText(const IpAddress& address) {
    if (address.family == AF_INET) {
        std::array<uint8_t, 4> first = {};
        std::copy_n(address.bytes.begin(), first.size(), first.begin());
        return Ipv4Text(std::bit_cast<in_addr_t>(first));
    }
    return Ipv6Text(address.bytes);
}

}  // namespace tarnctl
