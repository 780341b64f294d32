#pragma once

// The peer's side of a ring file, written from the format alone: it shares no line and no constant
// with the daemon's own ring, so that the two can be held against each other.
//
// Threads: one writer and one reader, in any two threads or processes.

#include <cstdint>
#include <string>
#include <vector>

class IndependentRing {
  public:
    // Maps an existing ring file at the size it has. Throws std::runtime_error when it cannot.
    explicit IndependentRing(const std::string& path);
    ~IndependentRing();
    IndependentRing(const IndependentRing&) = delete;
    IndependentRing& operator=(const IndependentRing&) = delete;

    // False when there is no room now.
    bool Put(const std::vector<unsigned char>& message);
    // False when there is no message now. Throws on a length that cannot stand in the ring.
    bool Take(std::vector<unsigned char>& message);

    // A word of the file, for tests that look at it or poke it while no other side runs.
    uint32_t Word(uint32_t fileOffset) const;
    void Poke(uint32_t fileOffset, uint32_t value);
    // Every byte of the file.
    std::vector<unsigned char> Bytes() const;
    void Fill(unsigned char value);

  private:
    unsigned char* m_file = nullptr;
    uint32_t m_fileBytes = 0;
};
