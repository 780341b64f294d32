#include "crm/crm_event_producer.h"

#include <cstdarg>

#include <semaphore.h>

#include "crm/crm_event_source.h"
#include "logging/log.h"
#include "ring/event_queue.h"

using vald::Log;

namespace {

constexpr const char* kQueueName = "CRM";

// The queue's report callback. The queue counts its levels otherwise than the log: 0 is nothing,
// 3 and 4 are both an info, and from 5 on all is debug. Class and method stay out of the line.
__attribute__((format(printf, 4, 5))) int LogQueueReport(const char*, const char*, int64_t level,
                                                         const char* format, ...) {
    if (level <= 0) {
        return 1;
    }
    int logLevel = Log::kDebug;
    if (level <= 2) {
        logLevel = static_cast<int>(level);
    } else if (level <= 4) {
        logLevel = Log::kInfo;
    }
    va_list args;
    va_start(args, format);
    Log::GetInstance()->VWrite(logLevel, format, args);
    va_end(args);
    return 1;
}

}  // namespace

CrmEventProducer* CrmEventProducer::s_instance = nullptr;

CrmEventProducer::CrmEventProducer() = default;
CrmEventProducer::~CrmEventProducer() = default;

CrmEventProducer* CrmEventProducer::GetInstance() {
    if (s_instance == nullptr) {
        s_instance = new CrmEventProducer;
    } else {
        s_instance->m_refCount.fetch_add(1, std::memory_order_relaxed);
    }
    return s_instance;
}

void CrmEventProducer::Release() {
    // Acquire and release: the last holder sees what the others did before they let go.
    if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    s_instance = nullptr;
    Close();
    delete this;
}

int CrmEventProducer::Open(int32_t channelId) {
    if (m_queue != nullptr) {
        if (channelId == m_channelId) {
            return 0;
        }
        Log::GetInstance()->Write(
            Log::kDebug, "CRM communication channel has already opened with another channel ID.");
        return kNotOpen;
    }
    m_queue = std::make_unique<EventQueue>(kQueueName, channelId, 1);
    m_queue->m_pfnLog = LogQueueReport;
    if (m_queue->Open() != 0) {
        Log::GetInstance()->Write(Log::kError, "CRM communication channel cannot be opened.");
        m_queue.reset();
        return kNotOpen;
    }
    m_channelId = channelId;
    return 0;
}

int CrmEventProducer::Close() {
    m_queue.reset();
    return 0;
}

int CrmEventProducer::SendEvent(CrmEventSource* source) {
    return source->Dispatch(this);
}

int CrmEventProducer::Send(const iovec* pieces, int32_t count, uint32_t ring) {
    if (m_queue == nullptr) {
        Log::GetInstance()->Write(
            Log::kError,
            "Attempt to send event to CRM but communication channel has not be opened.");
        return kNotOpen;
    }
    auto& rings = m_queue->m_pairs.front()->m_aPipes;
    if (ring >= rings.size()) {
        return kNoSuchRing;
    }
    const int result = rings[ring].write(pieces, count);
    if (result != 0) {
        return result;
    }
    (void)sem_post(m_queue->m_pSem);  // an overflowing count has woken the CRM often enough
    return kSent;
}
