#include "unit/snort/waiting_event_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "config/config.h"
#include "events/event_bridge.h"
#include "logging/log.h"
#include "unified2/unified2_format.h"

namespace {

using vald::Log;

// A sensor's event ids wrap at 16 bits.
constexpr int32_t kEventIdRange = 65536;

}  // namespace

WaitingEventReader::WaitingEventReader(const char* path)
    : SnortReaderBase(path), m_pBridge(EventBridge::GetInstance()) {}

// alerts that are still pending are dropped. The engine ends its read loop to stop or
// to reload, and an alert that may still lack its packet is not worth holding that up.
WaitingEventReader::~WaitingEventReader() {
    m_pBridge->Release();
}

bool WaitingEventReader::ReadEvent(long timeoutSeconds) {
    if (m_fd < 0 && !OpenFifo()) {
        return false;
    }
    if (WaitReadable(timeoutSeconds) <= 0) {
        FlushPending();
        return false;
    }

    unified2::RecordHeader header;
    if (!ReadFully(&header, sizeof(header))) {
        return false;
    }
    U2Record record;
    record.type = header.type.HostOrder();
    record.length = header.length.HostOrder();
    Log::GetInstance()->Write(Log::kDebug, "Got Snort event, Header: Type = %u, Length = %u",
                              record.type, record.length);

    // What a short record lacks of its type's fields reads as zeros. A long record is left as it
    // comes: the length is the sensor's word, and only the bytes that arrive are ever touched.
    const uint32_t needed = std::max(record.length, unified2::FixedSize(record.type));
    record.data.reset(static_cast<uint8_t*>(malloc(needed)));
    if (record.data == nullptr && needed > 0) {
        // the payload stays unread and is taken for headers. There is no mark in the
        // stream to find the next record by.
        Log::GetInstance()->Write(Log::kError, "Unable to allocate memory: %u bytes",
                                  record.length);
        return false;
    }
    if (!ReadFully(record.data.get(), record.length)) {
        return false;
    }
    if (needed > record.length) {
        std::memset(record.data.get() + record.length, 0, needed - record.length);
    }
    HandleRecord(std::move(record));
    return true;
}

bool WaitingEventReader::OpenFifo() {
    Log::GetInstance()->Write(Log::kDebug, "Opening file: %s", m_path.c_str());
    // Not blocking, since the open of a FIFO otherwise waits for its writer.
    m_fd = open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (m_fd == -1) {
        const int error = errno;
        Log::GetInstance()->Write(Log::kError, "Open file error: %s, reason: %s", m_path.c_str(),
                                  strerror(error));
        return false;
    }
    Log::GetInstance()->Write(Log::kDebug, "File is opened, waiting for Snort events");
    return true;
}

bool WaitingEventReader::ReadFully(void* buffer, uint32_t length) {
    uint32_t done = 0;
    while (done < length) {
        const ssize_t count = read(m_fd, static_cast<uint8_t*>(buffer) + done, length - done);
        if (count == -1) {
            const int error = errno;
            // a record whose tail is not there yet is lost with the bytes read so far.
            // Waiting for the tail would hold the main thread for as long as its writer pleases.
            Log::GetInstance()->Write(Log::kError, "Read event error, reason: %s", strerror(error));
            Close();
            return false;
        }
        if (count == 0) {
            Log::GetInstance()->Write(Log::kDebug, "Read EOF in SNORT event");
            Close();
            return false;
        }
        // the piece is compared with the full length and not with what was left, so
        // the last piece of a split record is logged too.
        if (static_cast<size_t>(count) != length) {
            Log::GetInstance()->Write(Log::kWarning, "Partial event read: %d",
                                      static_cast<int>(count));
        }
        done += static_cast<uint32_t>(count);
    }
    return true;
}

void WaitingEventReader::HandleRecord(U2Record record) {
    switch (record.type) {
        case unified2::kAlertIpv4:
            AddAlertEvent(std::make_unique<U2AlertEventIpv4>(record.data.release()));
            break;
        case unified2::kAlertIpv6:
            AddAlertEvent(std::make_unique<U2AlertEventIpv6>(record.data.release()));
            break;
        case unified2::kPacket:
            AssociatePacket(std::make_unique<U2PacketEvent>(record.data.release(), record.length));
            break;
        case unified2::kExtraData:
            AssociateExtraData(
                std::make_unique<U2ExtraDataEvent>(record.data.release(), record.length));
            break;
        default:
            Log::GetInstance()->Write(Log::kNotice, "Unsupported event type: %u\n", record.type);
            break;
    }
}

void WaitingEventReader::AddAlertEvent(std::unique_ptr<U2AlertEvent> event) {
    while (m_pending.IsFull()) {
        SendToBridge(m_pending.TakeOldest());
    }
    m_pending.Append(std::move(event));
}

bool WaitingEventReader::AssociatePacket(std::unique_ptr<U2PacketEvent> packet) {
    const uint32_t eventId = packet->eventId;
    if (!m_pending.IsEmpty() && m_pending.Newest().eventId == eventId) {
        Log::GetInstance()->Write(Log::kDebug, "Associate alert event %u with packet event",
                                  eventId);
        m_pending.Newest().event->SetPacket(packet.release());
        return true;
    }
    Log::GetInstance()->Write(
        Log::kInfo,
        "Failed to associate alert event %u with packet event. Packet event reported from Snort doesn't match previous alert event",
        eventId);
    return false;
}

bool WaitingEventReader::AssociateExtraData(std::unique_ptr<U2ExtraDataEvent> extra) {
    const uint32_t eventId = extra->eventId;
    if (!m_pending.IsEmpty()) {
        // Pending ids are taken to be consecutive, so the distance of the ids is that of the
        // alerts.
        auto distance = static_cast<int32_t>(m_pending.Newest().eventId - eventId);
        if (distance < 0) {
            distance += kEventIdRange;
        }
        const int32_t position = static_cast<int32_t>(m_pending.Size()) - distance - 1;
        const auto unsignedPosition = static_cast<uint32_t>(position);
        Log::GetInstance()->Write(
            Log::kDebug, "Incoming event ID: %u, assocated to position in pending events: %d",
            eventId, position);
        // the limit is that of a full list, so a position beyond the end of a shorter
        // one passes here and fails below, without this line.
        if (unsignedPosition >= kMaxPendingEvents) {
            Log::GetInstance()->Write(
                Log::kInfo, "Out of the range of pending events, position in pending events: %d",
                position);
        } else if (unsignedPosition < m_pending.Size() &&
                   m_pending.At(unsignedPosition).eventId == eventId) {
            Log::GetInstance()->Write(Log::kDebug, "Associate alert event %u with extra data event",
                                      eventId);
            if (m_pending.At(unsignedPosition).event->SetExtraData(extra.get())) {
                (void)extra.release();  // The alert has it now.
            }
            return true;
        }
    }
    Log::GetInstance()->Write(
        Log::kInfo,
        "Failed to associate alert event %u with extra data event. Number of pending events: %lu",
        eventId, static_cast<unsigned long>(m_pending.Size()));
    return false;
}

bool WaitingEventReader::SendToBridge(std::unique_ptr<U2AlertEvent> event) {
    Log::GetInstance()->Write(Log::kDebug, "Sending event to event bridge");
    if (Config::s_logLevel.load(std::memory_order_relaxed) > Log::kNotice) {
        event->Dump();
    }
    if (m_pBridge->ProcessEvent(event.get()) == 0) {
        (void)event.release();  // The bridge has it now, or has deleted it.
        return true;
    }
    Log::GetInstance()->Write(Log::kWarning, "Unable to process event.");
    return false;
}

void WaitingEventReader::FlushPending() {
    while (!m_pending.IsEmpty()) {
        SendToBridge(m_pending.TakeOldest());
    }
}
