#include "tarnctl/show/packet_file.h"

#ifdef TARNCTL_WITH_PCAP
#include <pcap/pcap.h>
#endif

#include <algorithm>
#include <cerrno>

#include "tarnctl/common/failure_text.h"
#include "tarnctl/common/packet_summary.h"

namespace tarnctl {

#ifdef TARNCTL_WITH_PCAP

namespace {

constexpr int kSnapshotLength = 262144;
constexpr uint32_t kUsualLink = kLinkEthernet;  // of a file without packets

// Raw IP has one number in files and another one, which differs between systems, in the library.
int NumberInLibrary(uint32_t linkType) {
    return linkType == kLinkRawIp ? DLT_RAW : static_cast<int>(linkType);
}

}  // namespace

struct PacketFile::Library {
    ~Library() {
        if (file != nullptr) {
            pcap_dump_close(file);
        }
        if (format != nullptr) {
            pcap_close(format);
        }
    }
    pcap_t* format = nullptr;       // owned
    pcap_dumper_t* file = nullptr;  // owned
};

// The file is made at once, so that one that cannot be made ends the command before it has begun.
bool PacketFile::Open(const std::string& path) {
    m_path = path;
    m_linkType = kUsualLink;
    m_library = std::make_unique<Library>();
    m_library->format = pcap_open_dead(NumberInLibrary(m_linkType), kSnapshotLength);
    m_library->file = pcap_dump_open(m_library->format, path.c_str());
    if (m_library->file == nullptr) {
        m_error =
            std::string(pcap_geterr(m_library->format)) + "; name a file that this user may write";
        return false;
    }
    return true;
}

bool PacketFile::Write(const PacketContent& packet) {
    if (m_written == 0 && packet.linkType != m_linkType) {
        // Nothing has been written but the head, which is made anew.
        auto library = std::make_unique<Library>();
        library->format = pcap_open_dead(NumberInLibrary(packet.linkType), kSnapshotLength);
        m_library.reset();
        library->file = pcap_dump_open(library->format, m_path.c_str());
        if (library->file == nullptr) {
            m_error = m_path + ": packets of link type " + std::to_string(packet.linkType) +
                      " cannot be written: " + pcap_geterr(library->format);
            return false;
        }
        m_library = std::move(library);
        m_linkType = packet.linkType;
    }
    if (packet.linkType != m_linkType) {
        ++m_ofAnotherLink;
        return true;
    }
    pcap_pkthdr header = {};
    header.ts.tv_sec = packet.second;
    header.ts.tv_usec = static_cast<suseconds_t>(packet.microsecond);
    header.caplen = static_cast<bpf_u_int32>(packet.bytes.size());
    header.len = std::max<bpf_u_int32>(packet.length, header.caplen);
    pcap_dump(reinterpret_cast<u_char*>(m_library->file), &header,
              reinterpret_cast<const u_char*>(packet.bytes.data()));
    if (ferror(pcap_dump_file(m_library->file)) != 0) {
        m_error = FailureText(m_path, errno);
        return false;
    }
    ++m_written;
    return true;
}

bool PacketFile::Close() {
    if (m_library == nullptr) {
        return false;  // the write that failed has said why
    }
    if (pcap_dump_flush(m_library->file) != 0) {
        m_error = FailureText(m_path, errno);
        return false;
    }
    return true;
}

#else

struct PacketFile::Library {};

bool PacketFile::Open(const std::string& path) {
    m_error = path + " is not written: this tarnctl was built without libpcap";
    return false;
}

bool PacketFile::Write(const PacketContent& /*packet*/) {
    return false;
}

bool PacketFile::Close() {
    return false;
}

#endif

PacketFile::PacketFile() = default;
PacketFile::~PacketFile() = default;

}  // namespace tarnctl
