#pragma once

// Turns the byte stream of the alert FIFO into finished alerts. Snort reports one detection in
// several records: the alert, its packet, and perhaps extra data. Consumers want one object with
// everything attached, so an alert is held on a pending list, takes on the records that follow it,
// and goes to EventBridge when the FIFO has been quiet for one timeout or when 128 younger alerts
// push it out. Nothing in the stream says that an alert is complete: a late record misses its
// alert.
//
// A process-wide singleton, made by the engine for each run cycle.
// docs/formats/unified2.md describes the stream and its records.
//
// Threads: the engine's main thread only. The hand-over to other threads is EventBridge's.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "snort/pending_events.h"
#include "snort/snort_reader_base.h"
#include "unified2/unified2_events.h"

class EventBridge;

class SnortEventReader : public SnortReaderBase {
  public:
    static constexpr size_t kMaxPendingEvents = PendingEvents::kCapacity;

    // The reader of the alert FIFO, made on first use.
    [[nodiscard]] static SnortEventReader* Instance();

    // Destroys the instance, if there is one; the next Instance() makes a new one.
    static void ReleaseInstance();

    // A reader of another FIFO. Takes a reference of EventBridge.
    explicit SnortEventReader(const char* path);

    // Gives the reference back. Alerts still pending are dropped, not sent.
    ~SnortEventReader() override;

    // One pass: opens the FIFO if it is closed, waits for at most `timeoutSeconds`, and handles at
    // most one record. True only if a whole record was read and handled. A wait that ends without
    // data sends all pending alerts on. After a whole record the wait is left out while there is
    // more to read; docs/decisions/0005-header-at-once.md says why nothing else changes by that.
    bool ReadEvent(long timeoutSeconds);

  private:
    // One record as it was read: the payload is `length` bytes, followed by zeros up to the least
    // size of its type.
    struct U2Record {
        uint32_t type = 0;
        uint32_t length = 0;  // bytes that the stream held
        U2RawBytes data;      // owned
    };

    [[nodiscard]] bool OpenFifo();
    // Reads once. The number of bytes, or 0 when there is nothing to read now, for whatever reason.
    [[nodiscard]] uint32_t ReadWhatIsThere(void* buffer, uint32_t length);
    // Fills the buffer, which has its first `firstPiece` bytes already, as they came with one read.
    [[nodiscard]] bool ReadFully(void* buffer, uint32_t length, uint32_t firstPiece);
    void HandleRecord(U2Record record);
    void AddAlertEvent(std::unique_ptr<U2AlertEvent> event);
    bool AssociatePacket(std::unique_ptr<U2PacketEvent> packet);
    bool AssociateExtraData(std::unique_ptr<U2ExtraDataEvent> extra);
    bool SendToBridge(std::unique_ptr<U2AlertEvent> event);
    void FlushPending();

    EventBridge* m_pBridge;  // counted
    PendingEvents m_pending;
    bool m_gaveRecord = false;  // the last pass got a whole record from the descriptor

    static SnortEventReader* s_instance;  // owned; null when there is none
};
