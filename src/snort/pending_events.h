#pragma once

// The alerts that wait for their attachments, oldest first: a ring of fixed size, so that nothing
// is allocated while alerts come and go. The id is stored beside the alert, so the search for the
// alert that a record belongs to touches no alert.
//
// Owned by SnortEventReader. Owns the alerts that are in it.
//
// Threads: none of its own; used by the reader's thread only.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "unified2/unified2_events.h"

struct PendingEvent {
    uint32_t eventId = 0;                 // the alert's, in host order
    std::unique_ptr<U2AlertEvent> event;  // owned until it is passed on
};

class PendingEvents {
  public:
    static constexpr size_t kCapacity = 128;

    [[nodiscard]] size_t Size() const { return m_size; }
    [[nodiscard]] bool IsEmpty() const { return m_size == 0; }
    [[nodiscard]] bool IsFull() const { return m_size == kCapacity; }

    // The entry at `position`, counted from the oldest. `position` must be below Size().
    [[nodiscard]] PendingEvent& At(size_t position) { return m_slots[Slot(position)]; }

    // The newest entry. The list must not be empty.
    [[nodiscard]] PendingEvent& Newest() { return At(m_size - 1); }

    // Adds the newest alert. The list must not be full.
    void Append(std::unique_ptr<U2AlertEvent> event) {
        PendingEvent& slot = m_slots[Slot(m_size)];
        slot.eventId = event->m_eventId;
        slot.event = std::move(event);
        ++m_size;
    }

    // Takes the oldest alert out. The list must not be empty.
    [[nodiscard]] std::unique_ptr<U2AlertEvent> TakeOldest() {
        std::unique_ptr<U2AlertEvent> event = std::move(m_slots[m_first].event);
        m_first = Slot(1);
        --m_size;
        return event;
    }

  private:
    [[nodiscard]] size_t Slot(size_t position) const { return (m_first + position) % kCapacity; }

    std::array<PendingEvent, kCapacity> m_slots;
    size_t m_first = 0;  // slot of the oldest, 0 to 127
    size_t m_size = 0;   // 0 to 128
};
