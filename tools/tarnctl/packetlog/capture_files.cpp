#include "tarnctl/packetlog/capture_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

constexpr int kSnapshotLength = 262144;  // longer than any packet that fits into a datagram
constexpr uint64_t kFileHeaderBytes = 24;
constexpr uint64_t kPacketHeaderBytes = 16;
constexpr uint64_t kBytesPerKByte = 1024;

}  // namespace

CaptureFiles::CaptureFiles(std::string directory, int linkType)
    : m_directory(std::move(directory)), m_format(pcap_open_dead(linkType, kSnapshotLength)) {}

bool CaptureFiles::Open() {
    m_all = OpenFile(m_directory + "/all.pcap", false);
    return m_all != nullptr;
}

bool CaptureFiles::Write(const CapturedPacket& packet) {
    if (!Put(m_all.get(), packet)) {
        return false;
    }
    if (packet.event == 0) {
        return true;
    }
    EventFiles& files = m_events[packet.event];
    const uint64_t packetBytes = kPacketHeaderBytes + packet.bytes.size();
    const uint64_t limit = packet.maxKBytes * kBytesPerKByte;
    if (files.bytes != 0 && limit != 0 && files.bytes + packetBytes > limit &&
        !Rotate(packet.event, files, packet.maxFiles)) {
        return false;
    }
    const File file = OpenFile(PathOf(packet.event, 0), files.bytes != 0);
    if (file == nullptr || !Put(file.get(), packet)) {
        return false;
    }
    files.bytes = std::max(files.bytes, kFileHeaderBytes) + packetBytes;
    return true;
}

CaptureFiles::File CaptureFiles::OpenFile(const std::string& path, bool append) {
    File file(append ? pcap_dump_open_append(m_format.get(), path.c_str())
                     : pcap_dump_open(m_format.get(), path.c_str()));
    if (file == nullptr) {
        m_error = pcap_geterr(m_format.get());
        m_error += "; name a directory with --dir that this user may write into";
    }
    return file;
}

// Flushed at once, so that what was received can be read while the command runs.
bool CaptureFiles::Put(pcap_dumper_t* file, const CapturedPacket& packet) {
    pcap_pkthdr header = {};
    header.ts.tv_sec = packet.seconds;
    header.ts.tv_usec = static_cast<suseconds_t>(packet.microseconds);
    header.caplen = static_cast<bpf_u_int32>(packet.bytes.size());
    header.len = std::max<bpf_u_int32>(packet.length, header.caplen);
    pcap_dump(reinterpret_cast<u_char*>(file), &header,
              reinterpret_cast<const u_char*>(packet.bytes.data()));
    return pcap_dump_flush(file) == 0 || Fail(FailureText(m_directory, errno));
}

bool CaptureFiles::Rotate(uint32_t event, EventFiles& files, uint32_t maxFiles) {
    if (maxFiles != 0) {
        // Room for one more; a limit that has been lowered meanwhile takes effect at once.
        for (; files.rotated + 1 >= maxFiles && files.rotated > 0; --files.rotated) {
            (void)std::remove(PathOf(event, files.rotated).c_str());  // one that is gone is as good
        }
    }
    if (maxFiles != 1) {
        for (uint32_t age = files.rotated + 1; age > 0; --age) {
            const std::string from = PathOf(event, age - 1);
            if (std::rename(from.c_str(), PathOf(event, age).c_str()) != 0 && errno != ENOENT) {
                return Fail(FailureText(from, errno));
            }
        }
        ++files.rotated;
    }
    files.bytes = 0;
    return true;
}

std::string CaptureFiles::PathOf(uint32_t event, uint32_t age) const {
    return m_directory + "/event-" + std::to_string(event) +
           (age == 0 ? std::string() : "." + std::to_string(age)) + ".pcap";
}

bool CaptureFiles::Fail(const std::string& reason) {
    m_error = reason;
    return false;
}

}  // namespace tarnctl
