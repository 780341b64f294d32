#pragma once

// What libpcap finds in a capture file.
//
// Threads: the test's own.

#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarnctl {

struct ReadPacket {
    long seconds;
    long microseconds;
    uint32_t length;
    std::string bytes;
    bool operator==(const ReadPacket&) const = default;
};

inline std::vector<ReadPacket> PacketsIn(const std::string& path, int* linkType = nullptr) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* const file = pcap_open_offline(path.c_str(), error);
    if (file == nullptr) {
        ADD_FAILURE() << error;
        return {};
    }
    if (linkType != nullptr) {
        *linkType = pcap_datalink(file);
    }
    std::vector<ReadPacket> packets;
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    int result = 0;
    while ((result = pcap_next_ex(file, &header, &bytes)) == 1) {
        packets.push_back({header->ts.tv_sec, header->ts.tv_usec, header->len,
                           std::string(reinterpret_cast<const char*>(bytes), header->caplen)});
    }
    EXPECT_EQ(PCAP_ERROR_BREAK, result) << "the file's end";
    pcap_close(file);
    return packets;
}

}  // namespace tarnctl
