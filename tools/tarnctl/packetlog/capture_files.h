#pragma once

// The capture files of `tarnctl packetlog`: one that grows with every packet, and a set for each
// event with the limits of its requests. capture_folder.h has their names.
//
// Before a packet would take the newest file of an event beyond the limit of kilobytes it becomes
// the one before it; of all these, the newest one included, as many are kept as the limit of files
// says. A file holds one packet at least, and a limit of 0 is none. The file of all packets is
// begun anew at a size, and at an age by a clock that nobody sets.
//
// What an earlier run has left is never written to or over: it takes part in the numbering, and the
// limits count it.
//
// Threads: one at a time.

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tarnctl/packetlog/capture_file.h"
#include "tarnctl/packetlog/capture_folder.h"
#include "tarnctl/packetlog/captured_packet.h"

namespace tarnctl {

struct CaptureSettings {
    std::string directory;
    CaptureFormat format = CaptureFormat::kPcap;
    int linkType = 1;            // as in the header of a capture file
    std::optional<gid_t> group;  // that gets the files; none: the process's own
    uint64_t newFileBytes = 0;   // size of the file of all packets; 0: no limit
    // Its age when it has packets; 0: no limit.
    std::chrono::seconds newFileAge{0};
};

class CaptureFiles {
  public:
    using Clock = std::chrono::steady_clock;

    explicit CaptureFiles(CaptureSettings settings);

    // Looks at what is there and begins the file of all packets. False with the reason in Error().
    [[nodiscard]] bool Open();
    // Puts the packet into the file of all packets and, with an event other than 0, into the
    // event's. False with the reason in Error(): it is not in each of the two, and the next one is
    // tried all the same.
    [[nodiscard]] bool Write(const CapturedPacket& packet);
    // Begins each file anew: that of all packets at once if it has any, that of an event with its
    // next packet. False with the reason in Error().
    [[nodiscard]] bool Renew();
    // Begins the file of all packets anew if it is old enough. False with the reason in Error().
    [[nodiscard]] bool RenewAged(Clock::time_point now);
    // Somebody has deleted files: looks again which there are. False with the reason in Error().
    [[nodiscard]] bool LookAgain();

    // The files that may still be written to.
    [[nodiscard]] std::vector<CaptureName> InUse() const;
    // How many files this one has made, and bytes of packets it has written.
    [[nodiscard]] uint64_t Made() const { return m_made; }
    [[nodiscard]] uint64_t Written() const { return m_written; }
    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    // The files of one event. The newest is opened for each packet, and only for as long, so that
    // many events do not need as many descriptors.
    struct EventFiles {
        bool isBegun = false;  // the newest file is of this run
        uint32_t older = 0;    // the highest number of the others
    };

    [[nodiscard]] bool OpenAll();
    [[nodiscard]] bool WriteToAll(const std::string& record);
    [[nodiscard]] bool WriteToEvent(const CapturedPacket& packet, const std::string& record);
    [[nodiscard]] bool Put(CaptureFile& file, const std::string& record);
    [[nodiscard]] bool Rotate(std::optional<uint32_t> event, uint32_t& older, uint32_t maxFiles);
    [[nodiscard]] std::string PathOf(std::optional<uint32_t> event, uint32_t age) const;
    [[nodiscard]] bool Fail(const std::string& reason);

    const CaptureSettings m_settings;
    const std::string m_head;  // what each file begins with
    CaptureFile m_all;
    uint32_t m_olderOfAll = 0;
    Clock::time_point m_allBegun;
    std::map<uint32_t, EventFiles> m_events;
    std::optional<uint32_t> m_lastEvent;
    uint64_t m_made = 0;
    uint64_t m_written = 0;
    std::string m_error;
};

}  // namespace tarnctl
