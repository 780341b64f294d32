#pragma once

// The reports of a channel that have been looked at and not taken yet.
//
// They stay in the rings until Release(), so that nothing is lost when this process ends in
// between, however it ends: the next one finds them there. What it finds is then looked at a second
// time. A process that is killed within Release() may leave a message without its length, which no
// reader gets past. Its own form says how long it is, and Collect() puts that back.
//
// Threads: one at a time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>

#include "tarnctl/crm/crm_channel.h"
#include "tarnctl/rings/crm_report_text.h"
#include "tarnctl/rings/ring_walker.h"

namespace tarnctl {

class HeldReports {
  public:
    using Look = std::function<void(const CrmOrigin& origin, std::span<const std::byte> bytes)>;

    explicit HeldReports(int channel, const char* queueName = "CRM");

    // Attaches to the channel. False with the reason in Error().
    [[nodiscard]] bool Open();

    // Shows up to `most` further messages to `look`, and holds them. False when a ring is damaged,
    // with the reason in Error().
    [[nodiscard]] bool Collect(size_t most, const Look& look);

    // Takes the first `count` of those that are held out of the rings.
    void Release(size_t count);

    [[nodiscard]] size_t Held() const { return m_held.size(); }

    // Waits for news, at most `time`; returns early at a signal. Of use while nothing is held.
    void Wait(std::chrono::milliseconds time);

    // Whether the files are still those of the channel. Another file has taken the place of one
    // that somebody removed, as after a stuck ring.
    [[nodiscard]] bool IsCurrent() const;

    [[nodiscard]] const std::string& MissingRing() const { return m_channel.MissingRing(); }
    // Messages whose length was put back.
    [[nodiscard]] uint64_t PutBack() const { return m_putBack; }
    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    struct Place {
        int ring;
        uint32_t at;  // ring offset
    };

    [[nodiscard]] bool CollectFrom(int ring, size_t most, const Look& look);
    [[nodiscard]] bool PutBackLength(int ring);

    const int m_number;  // of the channel
    CrmChannel m_channel;
    std::array<RingWalker, 2> m_walkers;
    std::deque<Place> m_held;  // in the order in which they were shown
    uint64_t m_putBack = 0;
    std::string m_error;
};

}  // namespace tarnctl
