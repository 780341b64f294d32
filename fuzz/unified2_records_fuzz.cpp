// Any bytes at all as the payloads of records: the objects, what they report and what they dump.
// Every buffer is exactly as long as the reader makes it, so that a read beyond it is found.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "crm/crm_event_source.h"
#include "logging/log.h"
#include "unified2/unified2_events.h"
#include "unified2/unified2_format.h"

namespace {

void* Payload(const uint8_t* data, uint32_t length, uint32_t type) {
    const uint32_t size = std::max({length, unified2::FixedSize(type), 1U});
    auto* payload = static_cast<uint8_t*>(malloc(size));
    std::memset(payload, 0, size);
    std::memcpy(payload, data, length);
    return payload;
}

// Touches every byte that the report would send.
void Report(U2AlertEvent& alert) {
    alert.Dump();
    const std::unique_ptr<CrmEventSource> source(alert.CreateCrmEventSource(true));
    source->CopyPacket();
}

void Attach(U2AlertEvent& alert, const uint8_t* data, uint32_t length, uint32_t type) {
    if (type == unified2::kPacket) {
        alert.SetPacket(new U2PacketEvent(Payload(data, length, type), length));
        return;
    }
    auto extra = std::make_unique<U2ExtraDataEvent>(Payload(data, length, type), length);
    if (alert.SetExtraData(extra.get())) {
        (void)extra.release();  // The alert has it now.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The log is not open, so the lines are made and go nowhere.
    vald::Log::SetLevel(vald::Log::kDebug);

    std::unique_ptr<U2AlertEvent> alert;
    while (size >= sizeof(unified2::RecordHeader)) {
        const auto header = unified2::Load<unified2::RecordHeader>(data);
        data += sizeof(header);
        size -= sizeof(header);
        const uint32_t type = header.type.HostOrder();
        const auto length =
            static_cast<uint32_t>(std::min<size_t>(header.length.HostOrder(), size));
        try {
            if (type == unified2::kAlertIpv4) {
                alert = std::make_unique<U2AlertEventIpv4>(Payload(data, length, type));
            } else if (type == unified2::kAlertIpv6) {
                alert = std::make_unique<U2AlertEventIpv6>(Payload(data, length, type));
            } else if (alert != nullptr && unified2::FixedSize(type) > 0) {
                Attach(*alert, data, length, type);
            }
        } catch (const std::length_error&) {
            // What extra data that cannot count itself comes to.
        }
        if (alert != nullptr) {
            Report(*alert);
        }
        data += length;
        size -= length;
    }
    return 0;
}
