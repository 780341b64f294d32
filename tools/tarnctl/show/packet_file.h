#pragma once

// A capture file that the packets of a unified2 file are written into.
//
// Threads: one at a time.

#include <cstdint>
#include <memory>
#include <string>

#include "tarnctl/show/record_content.h"

namespace tarnctl {

class PacketFile {
  public:
    PacketFile();
    ~PacketFile();
    PacketFile(const PacketFile&) = delete;
    PacketFile& operator=(const PacketFile&) = delete;

    // Makes the file. False with the reason in Error(), as in a build without libpcap.
    [[nodiscard]] bool Open(const std::string& path);
    // Writes a packet. The file has the link type of the first one; a packet of another has no
    // place in it and is counted. False with the reason in Error().
    [[nodiscard]] bool Write(const PacketContent& packet);
    // Writes out what is buffered. False with the reason in Error().
    [[nodiscard]] bool Close();

    [[nodiscard]] uint64_t Written() const { return m_written; }
    [[nodiscard]] uint64_t OfAnotherLink() const { return m_ofAnotherLink; }
    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    struct Library;

    std::unique_ptr<Library> m_library;  // libpcap's objects; null until the first packet
    std::string m_path;
    uint32_t m_linkType = 0;
    uint64_t m_written = 0;
    uint64_t m_ofAnotherLink = 0;
    std::string m_error;
};

}  // namespace tarnctl
