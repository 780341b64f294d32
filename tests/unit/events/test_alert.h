#pragma once

// Alerts for the tests of this folder: one that counts its end and can refuse its report, and the
// record of a plain TCP alert.
//
// Threads: an alert belongs to one thread at a time; the counts may be read by any.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>

#include "crm/crm_event_source.h"
#include "unified2/unified2_events.h"

class TestAlert : public U2AlertEvent {
  public:
    inline static std::atomic<int> s_alive{0};
    inline static std::atomic<int> s_deleted{0};
    inline static std::atomic<int> s_reportsMade{0};

    static void ResetCounts() {
        s_alive = 0;
        s_deleted = 0;
        s_reportsMade = 0;
    }

    explicit TestAlert(uint32_t signatureId) : U2AlertEvent(Record(signatureId)) { ++s_alive; }
    ~TestAlert() override {
        --s_alive;
        ++s_deleted;
    }

    void Dump() override {}

    CrmEventSource* CreateCrmEventSource(bool withPacket) override {
        ++s_reportsMade;
        m_askedForPacket = withPacket;
        if (m_beforeReport) {
            m_beforeReport();
        }
        if (m_refusesReport) {
            return nullptr;
        }
        auto* source = new CrmEventSource(4);
        source->SetIssueId(m_signatureId);
        source->SetEventTime(1700000000);
        source->SetPacket(m_packet, sizeof(m_packet), 1700000000, 5);
        return source;
    }

    bool m_refusesReport = false;
    bool m_askedForPacket = false;
    std::function<void()> m_beforeReport;

  private:
    // A record of zeros but for the signature, which is big-endian at offset 16.
    static void* Record(uint32_t signatureId) {
        auto* bytes = static_cast<uint8_t*>(calloc(1, 84));
        for (int i = 0; i < 4; ++i) {
            bytes[16 + i] = static_cast<uint8_t>(signatureId >> (8 * (3 - i)));
        }
        return bytes;
    }

    uint8_t m_packet[3] = {0xde, 0xad, 0xbf};
};
