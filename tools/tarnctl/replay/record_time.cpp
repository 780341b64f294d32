#include "tarnctl/replay/record_time.h"

#include <cstring>

#include "unified2/unified2_format.h"

namespace tarnctl {
namespace {

void Store(std::span<std::byte> payload, size_t at, uint32_t value) {
    const auto field = unified2::Big32::FromHostOrder(value);
    if (at + sizeof field <= payload.size()) {
        std::memcpy(payload.data() + at, &field, sizeof field);
    }
}

}  // namespace

void SetRecordTime(uint32_t type, const RecordTime& time, std::span<std::byte> record) {
    if (record.size() < sizeof(unified2::RecordHeader)) {
        return;
    }
    const std::span<std::byte> payload = record.subspan(sizeof(unified2::RecordHeader));
    switch (type) {
        case unified2::kAlertIpv4:
        case unified2::kAlertIpv6:
            Store(payload, offsetof(unified2::AlertIpv4, eventSecond), time.second);
            Store(payload, offsetof(unified2::AlertIpv4, eventMicrosecond), time.microsecond);
            break;
        case unified2::kPacket:
            Store(payload, offsetof(unified2::Packet, eventSecond), time.second);
            Store(payload, offsetof(unified2::Packet, packetSecond), time.second);
            Store(payload, offsetof(unified2::Packet, packetMicrosecond), time.microsecond);
            break;
        case unified2::kExtraData:
            Store(payload, offsetof(unified2::ExtraData, eventSecond), time.second);
            break;
        default:
            break;
    }
}

}  // namespace tarnctl
