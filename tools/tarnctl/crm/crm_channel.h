#pragma once

// The CRM's end of the event queue, for one channel.
//
// A reader's EventQueue opens all channels from 0 on and removes the ring files that it finds. That
// is right for the CRM, which comes first and serves every sensor. A monitor comes later and looks
// at one channel: it attaches to the two rings of that channel as they are, so that it shows what
// already waits there, and a running daemon, which has the files mapped, keeps its reader.
//
// A ring has one reader. Two monitors of one channel are kept apart by a lock on the first ring's
// file; the CRM itself takes no such lock.
//
// Threads: one at a time.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "ring/event_queue.h"

namespace tarnctl {

class CrmChannel {
  public:
    enum class ReadResult {
        kMessage,  // one message
        kEmpty,    // nothing waits in either ring
        kDamaged,  // a ring is damaged; Error() says what that costs
        kStuck,    // a ring is damaged for good; Error() says why
    };

    // `queueName` is the daemon's name of the queue; tests use one of their own.
    explicit CrmChannel(int channel, const char* queueName = "CRM");
    ~CrmChannel();
    CrmChannel(const CrmChannel&) = delete;
    CrmChannel& operator=(const CrmChannel&) = delete;

    // Makes what is missing of semaphore and rings, and attaches. False with the reason in Error().
    [[nodiscard]] bool Open();

    // The path of the first ring if it was missing before Open() made it, else an empty text.
    [[nodiscard]] const std::string& MissingRing() const { return m_missingRing; }

    // Takes the oldest message off the first ring that has one. `bytes` stays until the next call.
    [[nodiscard]] ReadResult Next(std::span<const std::byte>& bytes, int& ring);

    // Takes the oldest message of a ring, which begins at this ring offset, without a look at it.
    // False when another reader has moved on meanwhile.
    [[nodiscard]] bool Drop(int ring, uint32_t at);

    // Puts back the length of the message at the read index, which a reader that was killed while
    // it took the message has left as 0.
    void PutBackLength(int ring, uint32_t at, uint32_t length);

    [[nodiscard]] const std::string& RingPath(int ring) const;

    // Waits for a post, at most `time`; returns early at a signal.
    void Wait(std::chrono::milliseconds time);
    // Nothing waits in the rings, so that the post that Wait() took has no message.
    void ForgetPost() { m_hasPost = false; }

    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    // Takes the post that goes with a message that has been read, so that the count of the
    // semaphore stays the count of what is left for a reader that comes after.
    void TakePost();
    [[nodiscard]] ShmEventPipe& Ring(int ring) const;
    [[nodiscard]] bool Fail(const std::string& reason);

    EventQueue m_queue;                     // holds the semaphore and the one pair
    ShmEventPipePair* m_pair = nullptr;     // borrowed from m_queue
    std::unique_ptr<std::byte[]> m_buffer;  // as large as the larger ring: no message is too long
    int m_lock = -1;                        // owned; the first ring's file, locked
    bool m_hasPost = false;                 // a post was taken by Wait() and no message with it
    std::string m_missingRing;
    std::string m_error;
};

}  // namespace tarnctl
