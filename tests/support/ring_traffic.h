#pragma once

// Messages for exchanges over a ring: each is made from its number alone, so that the receiving
// side can recognise a lost, doubled, torn or altered one without having seen what was sent.
//
//   bytes 0..3   number      bytes 4..7   checksum of all that follows
//   bytes 8..    content
//
// Threads: plain values; each side has its own generator.

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

class RingTraffic {
  public:
    explicit RingTraffic(uint32_t seed) : m_state(seed | 1U) {}

    // The next message, of 8 to 600 bytes and now and then of up to `largest`.
    const std::vector<unsigned char>& Next(uint32_t largest) {
        const uint32_t dice = Random();
        const uint32_t length =
            dice % 512 == 0 ? 8 + Random() % (largest - 7) : 8 + (dice >> 9U) % 593;
        m_message.resize(length);
        const uint64_t filler = uint64_t{Random()} * 0x9E3779B97F4A7C15U;
        size_t at = 8;
        for (uint64_t word = filler; at + 8 <= length; at += 8, word += filler) {
            std::memcpy(&m_message[at], &word, 8);
        }
        for (; at < length; ++at) {
            m_message[at] = static_cast<unsigned char>(filler >> (at % 8 * 8));
        }
        const uint32_t sum = Checksum(m_message);
        std::memcpy(&m_message[0], &m_number, 4);
        std::memcpy(&m_message[4], &sum, 4);
        ++m_number;
        return m_message;
    }

    // Whether a received message is whole and is the one with this number.
    static bool IsIntact(std::span<const unsigned char> message, uint32_t number) {
        if (message.size() < 8) {
            return false;
        }
        uint32_t sentNumber = 0;
        uint32_t sentSum = 0;
        std::memcpy(&sentNumber, &message[0], 4);
        std::memcpy(&sentSum, &message[4], 4);
        return sentNumber == number && sentSum == Checksum(message);
    }

  private:
    uint32_t Random() {
        m_state ^= m_state << 13U;
        m_state ^= m_state >> 17U;
        m_state ^= m_state << 5U;
        return m_state;
    }

    static uint32_t Checksum(std::span<const unsigned char> message) {
        uint64_t sum = message.size();
        size_t at = 8;
        for (; at + 8 <= message.size(); at += 8) {
            uint64_t word = 0;
            std::memcpy(&word, &message[at], 8);
            sum = (sum ^ word) * 0x100000001B3U;
        }
        for (; at < message.size(); ++at) {
            sum = (sum ^ message[at]) * 0x100000001B3U;
        }
        return static_cast<uint32_t>(sum ^ (sum >> 32U));
    }

    uint32_t m_state;
    uint32_t m_number = 0;
    std::vector<unsigned char> m_message;
};
