#pragma once

// Keeps packets in capture files, and the files within their limits. What goes wrong is told once,
// counted, and tried again with the next packet.
//
// Threads: one at a time.

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tarnctl/packetlog/capture_files.h"
#include "tarnctl/packetlog/captured_packet.h"

namespace tarnctl {

struct PacketLogOptions;

class PacketStore {
  public:
    using News = std::vector<std::string>;  // what is to be said

    // The options are borrowed.
    explicit PacketStore(const PacketLogOptions& options) : m_options(options) {}

    // Brings the directory within its limits and begins its files. Returns an empty string, or the
    // reason why it cannot.
    [[nodiscard]] std::string Open();
    [[nodiscard]] News Keep(const CapturedPacket& packet);
    // Begins files anew after a hangup, and looks at the limits: once a minute, and within a second
    // where much has been written or a file begun.
    [[nodiscard]] News LookAfter();

    // Packets that are not in each file where they belong.
    [[nodiscard]] uint64_t Lost() const { return m_lost; }
    // A part of the closing line; empty when there is nothing to say.
    [[nodiscard]] std::string Counts() const;

  private:
    using Clock = CaptureFiles::Clock;

    [[nodiscard]] CaptureSettings Settings() const;
    [[nodiscard]] bool IsLookDue(Clock::time_point now) const;
    void ApplyLimits(News& news);

    const PacketLogOptions& m_options;
    std::unique_ptr<CaptureFiles> m_files;
    uint64_t m_lost = 0;
    uint64_t m_lostAtOnce = 0;  // since packets could be kept last
    uint64_t m_deleted = 0;     // files
    std::string m_trouble;      // with the limits; told already
    Clock::time_point m_lastLook;
    uint64_t m_writtenAtLook = 0;
    uint64_t m_madeAtLook = 0;
};

}  // namespace tarnctl
