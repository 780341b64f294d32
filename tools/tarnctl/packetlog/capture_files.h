#pragma once

// The capture files of `tarnctl packetlog`: one that grows with every packet, and a set for each
// event with the limits of its requests.
//
// all.pcap holds everything. event-ID.pcap is the newest file of an event. Before a packet would
// take it beyond the limit of kilobytes it becomes event-ID.1.pcap, what was .1 becomes .2, and so
// on; of all these, the newest one included, as many are kept as the limit of files says. A file
// holds one packet at least, and a limit of 0 is none.
//
// Files of an earlier run are not appended to: each run begins new files.
//
// Threads: one at a time.

#include <pcap/pcap.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "tarnctl/packetlog/captured_packet.h"

namespace tarnctl {

class CaptureFiles {
  public:
    // `linkType` as in the header of a capture file.
    CaptureFiles(std::string directory, int linkType);
    CaptureFiles(const CaptureFiles&) = delete;
    CaptureFiles& operator=(const CaptureFiles&) = delete;

    // Makes all.pcap. False with the reason in Error().
    [[nodiscard]] bool Open();
    // Puts the packet into all.pcap and, with an event other than 0, into the event's file. False
    // with the reason in Error().
    [[nodiscard]] bool Write(const CapturedPacket& packet);

    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    struct Close {
        void operator()(pcap_t* pcap) const { pcap_close(pcap); }
        void operator()(pcap_dumper_t* file) const { pcap_dump_close(file); }
    };
    using File = std::unique_ptr<pcap_dumper_t, Close>;

    // The files of one event. A new one is opened by the packet that goes into it first, and only
    // for as long, so that many events do not need as many descriptors.
    struct EventFiles {
        uint64_t bytes = 0;    // of the newest file; 0: there is none
        uint32_t rotated = 0;  // how many older ones there are
    };

    [[nodiscard]] File OpenFile(const std::string& path, bool append);
    [[nodiscard]] bool Put(pcap_dumper_t* file, const CapturedPacket& packet);
    [[nodiscard]] bool Rotate(uint32_t event, EventFiles& files, uint32_t maxFiles);
    [[nodiscard]] std::string PathOf(uint32_t event, uint32_t age) const;
    [[nodiscard]] bool Fail(const std::string& reason);

    const std::string m_directory;
    std::unique_ptr<pcap_t, Close> m_format;  // link type and snapshot length
    File m_all;
    std::map<uint32_t, EventFiles> m_events;
    std::string m_error;
};

}  // namespace tarnctl
