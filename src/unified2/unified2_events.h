#pragma once

// The objects made from the records of the alert FIFO: one alert, the packet that raised it,
// and the extra data that belongs to it. An object keeps its record as it came, in network byte
// order, and converts a field at the moment of use; the few fields needed again and again are
// copied out, in host order, when the object is made.
//
// SnortEventReader makes them and owns an alert while it is pending; EventBridge owns it
// afterwards. docs/formats/unified2.md describes the records and what becomes of a record that is
// too short.
//
// Threads: an object belongs to one thread at a time. EventBridge's queue makes the hand-over safe.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

class CrmEventSource;

struct FreeBytes {
    void operator()(uint8_t* bytes) const { free(bytes); }
};

// Bytes from malloc.
using U2RawBytes = std::unique_ptr<uint8_t, FreeBytes>;

// A packet record, type 2.
class U2PacketEvent {
  public:
    // Takes over `recordBytes`, which malloc gave and which holds the larger of `recordLength` and
    // 28 bytes. Warns when the packet's own length is not what the record holds, and goes on with
    // the packet's own. The bytes that the record lacks count as zeros and exist nowhere.
    U2PacketEvent(void* recordBytes, uint32_t recordLength);

    // Writes the record to the log, at level 5.
    void Dump() const;

    uint32_t eventId = 0;
    const uint8_t* data = nullptr;  // borrowed from `raw`, `held` bytes
    uint32_t length = 0;            // bytes that the packet claims
    uint32_t second = 0;            // time of capture
    uint32_t microsecond = 0;
    U2RawBytes raw;     // owned
    uint32_t held = 0;  // bytes that the record has of the packet, at most `length`
};

// An extra data record, type 110.
class U2ExtraDataEvent {
  public:
    // Takes over `recordBytes`, which malloc gave. All of the blob must be inside the record.
    // Throws std::length_error when the blob's length does not even cover its own two fields.
    explicit U2ExtraDataEvent(void* recordBytes);

    // As above, for a record that may be shorter than it says: the buffer holds the larger of
    // `recordLength` and 32 bytes. What the record lacks of its blob is treated as in a packet.
    U2ExtraDataEvent(void* recordBytes, uint32_t recordLength);

    // Writes the record to the log, at level 5.
    void Dump() const;

    uint32_t eventId = 0;
    uint32_t type = 0;   // unified2::ExtraDataType
    std::string text;    // the blob as far as the record has it, embedded zero bytes included
    U2RawBytes raw;      // owned
    uint32_t zeros = 0;  // bytes that the blob claims beyond its text; they count as zeros
};

// An alert record with its attachments.
class U2AlertEvent {
  public:
    virtual ~U2AlertEvent();
    U2AlertEvent(const U2AlertEvent&) = delete;
    U2AlertEvent& operator=(const U2AlertEvent&) = delete;

    // Writes the alert and then its attachments to the log, at level 5.
    virtual void Dump() = 0;

    // A new report with what the alert says and its attachments, the packet only `withPacket`.
    // The caller owns it; the packet's bytes stay with this alert, which must outlive the report.
    virtual CrmEventSource* CreateCrmEventSource(bool withPacket) = 0;

    // Takes the packet over and releases an earlier one. Returns true.
    bool SetPacket(U2PacketEvent* packet);

    // Takes the extra data over, by its type as URI or as host name, releases an earlier one of
    // that type and returns true. Any other type is refused with false and stays with the caller.
    bool SetExtraData(U2ExtraDataEvent* extra);

    const uint32_t m_eventId;
    const uint32_t m_signatureId;
    U2AlertEvent* m_nextFinished = nullptr;  // EventBridge's, once the alert is processed

  protected:
    // Takes over `recordBytes`, which malloc gave.
    explicit U2AlertEvent(void* recordBytes);

    void DumpAttachments() const;
    void ApplyAttachments(CrmEventSource& source, bool withPacket) const;

    std::unique_ptr<U2PacketEvent> m_pPacket;       // owned, null when there is none
    std::unique_ptr<U2ExtraDataEvent> m_pHostname;  // owned, null when there is none
    std::unique_ptr<U2ExtraDataEvent> m_pUri;       // owned, null when there is none
    U2RawBytes m_pRaw;                              // owned
};

// An IPv4 alert, type 104.
class U2AlertEventIpv4 : public U2AlertEvent {
  public:
    // Takes over `recordBytes`: at least 60 bytes from malloc.
    explicit U2AlertEventIpv4(void* recordBytes);
    void Dump() override;
    CrmEventSource* CreateCrmEventSource(bool withPacket) override;
};

// An IPv6 alert, type 105.
class U2AlertEventIpv6 : public U2AlertEvent {
  public:
    // Takes over `recordBytes`: at least 84 bytes from malloc.
    explicit U2AlertEventIpv6(void* recordBytes);
    void Dump() override;
    CrmEventSource* CreateCrmEventSource(bool withPacket) override;
};
