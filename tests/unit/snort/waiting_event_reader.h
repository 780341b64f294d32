#pragma once

// The event reader in its plain form: it waits before each header. SnortEventReader leaves the wait
// out while there is more to read, and the tests hold it against this one, so that nothing else
// changes. It takes no singleton and no batches.
//
// Threads: the test's own.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "snort/pending_events.h"
#include "snort/snort_reader_base.h"
#include "unified2/unified2_events.h"

class EventBridge;

class WaitingEventReader : public SnortReaderBase {
  public:
    static constexpr size_t kMaxPendingEvents = PendingEvents::kCapacity;

    // A reader of another FIFO. Takes a reference of EventBridge.
    explicit WaitingEventReader(const char* path);

    // Gives the reference back. Alerts still pending are dropped, not sent.
    ~WaitingEventReader() override;

    // One pass: opens the FIFO if it is closed, waits for at most `timeoutSeconds`, and handles at
    // most one record. True only if a whole record was read and handled. A wait that ends without
    // data sends all pending alerts on.
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
    [[nodiscard]] bool ReadFully(void* buffer, uint32_t length);
    void HandleRecord(U2Record record);
    void AddAlertEvent(std::unique_ptr<U2AlertEvent> event);
    bool AssociatePacket(std::unique_ptr<U2PacketEvent> packet);
    bool AssociateExtraData(std::unique_ptr<U2ExtraDataEvent> extra);
    bool SendToBridge(std::unique_ptr<U2AlertEvent> event);
    void FlushPending();

    EventBridge* m_pBridge;  // counted
    PendingEvents m_pending;
};
