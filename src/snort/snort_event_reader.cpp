#include "snort/snort_event_reader.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "config/config.h"
#include "events/event_bridge.h"
#include "logging/log.h"
#include "paths.h"
#include "threads/uncancelled_io.h"
#include "unified2/unified2_format.h"

namespace {

using vald::Log;

// A sensor's event ids wrap at 16 bits.
constexpr int32_t kEventIdRange = 65536;

}  // namespace

SnortEventReader* SnortEventReader::s_instance = nullptr;

SnortEventReader* SnortEventReader::Instance() {
    if (s_instance == nullptr) {
        s_instance = new SnortEventReader(tarn::paths::kAlertFifo);
    }
    return s_instance;
}

void SnortEventReader::ReleaseInstance() {
    delete s_instance;
    s_instance = nullptr;
}

SnortEventReader::SnortEventReader(const char* path)
    : SnortReaderBase(path), m_pBridge(EventBridge::GetInstance()) {}

// Deliberate: alerts that are still pending are dropped. The engine ends its read loop to stop or
// to reload, and an alert that may still lack its packet is not worth holding that up.
SnortEventReader::~SnortEventReader() {
    m_pBridge->EndBatch();
    m_pBridge->Release();
}

bool SnortEventReader::ReadEvent(long timeoutSeconds) {
    // Set again by a whole record only.
    const bool gaveRecord = std::exchange(m_gaveRecord, false) && m_fd >= 0;
    unified2::RecordHeader header;
    // A negative timeout is an error of the wait, whatever there is to read.
    uint32_t there = 0;
    if (gaveRecord && timeoutSeconds >= 0) {
        there = ReadWhatIsThere(&header, sizeof(header));
    }
    if (there == 0) {
        m_pBridge->EndBatch();
        if (m_fd < 0 && !OpenFifo()) {
            return false;
        }
        if (WaitReadable(timeoutSeconds) <= 0) {
            FlushPending();
            return false;
        }
    }
    if (!ReadFully(&header, sizeof(header), there)) {
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
        // Deliberate: the payload stays unread and is taken for headers. There is no mark in the
        // stream to find the next record by.
        Log::GetInstance()->Write(Log::kError, "Unable to allocate memory: %u bytes",
                                  record.length);
        return false;
    }
    if (!ReadFully(record.data.get(), record.length, 0)) {
        return false;
    }
    if (needed > record.length) {
        std::memset(record.data.get() + record.length, 0, needed - record.length);
    }
    HandleRecord(std::move(record));
    m_gaveRecord = true;
    return true;
}

bool SnortEventReader::OpenFifo() {
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

// The end of the writer counts as nothing, too, as does a failure: the wait that follows
// distinguishes them. It knows more than a read does, since a read finds the end of file also on a
// FIFO that has had no writer since it was opened.
uint32_t SnortEventReader::ReadWhatIsThere(void* buffer, uint32_t length) {
    const ssize_t count = ReadUncancelled(m_fd, buffer, length);
    return count > 0 ? static_cast<uint32_t>(count) : 0;
}

bool SnortEventReader::ReadFully(void* buffer, uint32_t length, uint32_t firstPiece) {
    uint32_t done = 0;
    while (done < length) {
        const ssize_t count =
            done == 0 && firstPiece > 0
                ? firstPiece
                : ReadUncancelled(m_fd, static_cast<uint8_t*>(buffer) + done, length - done);
        if (count == -1) {
            const int error = errno;
            // Deliberate: a record whose tail is not there yet is lost with the bytes read so far.
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
        // Deliberate: the piece is compared with the full length and not with what was left, so
        // the last piece of a split record is logged too.
        if (static_cast<size_t>(count) != length) {
            Log::GetInstance()->Write(Log::kWarning, "Partial event read: %d",
                                      static_cast<int>(count));
        }
        done += static_cast<uint32_t>(count);
    }
    return true;
}

void SnortEventReader::HandleRecord(U2Record record) {
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
            // Deliberate: the line feed belongs to the text that operators search for.
            Log::GetInstance()->Write(Log::kNotice, "Unsupported event type: %u\n", record.type);
            break;
    }
}

void SnortEventReader::AddAlertEvent(std::unique_ptr<U2AlertEvent> event) {
    while (m_pending.IsFull()) {
        SendToBridge(m_pending.TakeOldest());
    }
    m_pending.Append(std::move(event));
}

bool SnortEventReader::AssociatePacket(std::unique_ptr<U2PacketEvent> packet) {
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

bool SnortEventReader::AssociateExtraData(std::unique_ptr<U2ExtraDataEvent> extra) {
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
        // Deliberate: the limit is that of a full list, so a position beyond the end of a shorter
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
                (void)extra.release();  // the alert has it now
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

bool SnortEventReader::SendToBridge(std::unique_ptr<U2AlertEvent> event) {
    Log::GetInstance()->Write(Log::kDebug, "Sending event to event bridge");
    if (Config::s_logLevel.load(std::memory_order_relaxed) > Log::kNotice) {
        event->Dump();
    }
    if (m_pBridge->ProcessEvent(event.get(), EventBridge::HandOver::kInBatch) == 0) {
        (void)event.release();  // the bridge has it now, or has deleted it
        return true;
    }
    Log::GetInstance()->Write(Log::kWarning, "Unable to process event.");
    return false;
}

void SnortEventReader::FlushPending() {
    while (!m_pending.IsEmpty()) {
        SendToBridge(m_pending.TakeOldest());
    }
    m_pBridge->EndBatch();
}
