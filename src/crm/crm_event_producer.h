#pragma once

// CrmEventProducer: the daemon's end of the CRM event queue, one reference-counted instance per
// process.
//
// It is closed until Open, and open until Close or the last Release. A message goes into a ring of
// the queue's first pair, and then the queue's semaphore is posted.
//
// Owner: its holders, by reference count. EventBridge is the one holder in the daemon.
//
// Threads: no lock. Send belongs to the thread that processes events; GetInstance, Open, Close and
// Release are called while that thread doesn't run, or on it.

#include <sys/uio.h>

#include <atomic>
#include <cstdint>
#include <memory>

class CrmEventSource;
class EventQueue;

class CrmEventProducer {
  public:
    static constexpr int kSent = 0;
    static constexpr int kNotOpen = 1;     // a full ring gives the same number
    static constexpr int kNoSuchRing = 3;  // so does a message that is larger than the ring
    static constexpr uint32_t kReportRing = 0;

    CrmEventProducer(const CrmEventProducer&) = delete;
    CrmEventProducer& operator=(const CrmEventProducer&) = delete;

    // The instance, with one more reference held. Never null.
    [[nodiscard]] static CrmEventProducer* GetInstance();
    // Gives one reference back; the last one closes the queue and frees the instance.
    void Release();

    // Opens the queue of the CRM channel: 0. Also 0 when that channel is open already; 1 when
    // another one is, which then stays open, or when the queue cannot be opened.
    [[nodiscard]] int Open(int32_t channelId);
    // Returns 0. The ring files and what is in them stay.
    int Close();

    // source->Dispatch(this).
    [[nodiscard]] int SendEvent(CrmEventSource* source);

    // Writes the pieces as one message to the ring: 0; 1 when no channel is open; 3 when there is
    // no such ring; else the result of the ring's write. Only a message that went in is posted.
    [[nodiscard]] int Send(const iovec* pieces, int32_t count, uint32_t ring);

  private:
    friend class CrmEventProducerPeer;  // tests

    CrmEventProducer();
    ~CrmEventProducer();

    static CrmEventProducer* s_instance;  // owned by its references

    std::unique_ptr<EventQueue> m_queue;  // owned, null while closed
    std::atomic<uint32_t> m_refCount{1};
    int32_t m_channelId = 0;
};
