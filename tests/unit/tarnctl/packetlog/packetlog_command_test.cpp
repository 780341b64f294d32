#include "tarnctl/packetlog/packetlog_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "packet_log/packet_log_control_format.h"
#include "packet_log/packet_log_writer.h"
#include "ring/shm_event_pipe.h"
#include "support/temp_dir.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/packetlog/capture_files.h"
#include "unit/tarnctl/common/lines_of.h"

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace tarnctl {
namespace {

using namespace PacketLogCtrl;

struct Packet {
    long seconds;
    long microseconds;
    uint32_t length;
    std::string bytes;
    bool operator==(const Packet&) const = default;
};

// What libpcap finds in a capture file.
std::vector<Packet> PacketsIn(const std::string& path, int* linkType = nullptr) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* const file = pcap_open_offline(path.c_str(), error);
    if (file == nullptr) {
        ADD_FAILURE() << error;
        return {};
    }
    if (linkType != nullptr) {
        *linkType = pcap_datalink(file);
    }
    std::vector<Packet> packets;
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

std::string Datagram(const void* message, size_t length, const std::string& packet = "") {
    std::string datagram(static_cast<const char*>(message), length);
    datagram.resize(kControlDatagramBytes, '\0');
    return datagram + packet;
}

std::string Capture(uint32_t event, const std::string& packet, uint32_t maxFiles = 10,
                    uint32_t maxKBytes = 10) {
    LogControlMessage_OffendingPacketCapture message;
    message.uEventID = event;
    message.uMaxFiles = maxFiles;
    message.uMaxFileSize = maxKBytes;
    std::memcpy(message.szUserString, "SNORT", 5);
    message.uPacketLength = 1514;
    message.iCapturedSize = static_cast<int32_t>(packet.size());
    message.uSeconds = 1000 + event;
    message.uMicroseconds = 999999;
    return Datagram(&message, sizeof(message), packet);
}

std::string Bare(LogControlType type) {
    const LogControlMessage message{type, 8};
    return Datagram(&message, sizeof(message));
}

class PacketLogCommand : public testing::Test {
  protected:
    PacketLogCommand() {
        m_options.directory = m_dir.Path().string();
        m_options.socketPath = m_dir.File("socket");
        m_options.timeout = 2;
    }

    // Runs the command with a sender beside it, until all of it has come.
    int Run(const std::vector<std::string>& datagrams, uint64_t count) {
        m_options.count = count;
        std::thread sender([&] {
            const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
            sockaddr_un address = {};
            address.sun_family = AF_UNIX;
            m_options.socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
            for (const std::string& datagram : datagrams) {
                for (int tries = 0; tries < 5000; ++tries) {  // until the command listens
                    if (sendto(fd, datagram.data(), datagram.size(), 0,
                               reinterpret_cast<sockaddr*>(&address), sizeof(address)) >= 0) {
                        break;
                    }
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            }
            close(fd);
        });
        const int status = RunPacketLog(m_options, m_out, m_err);
        sender.join();
        return status;
    }

    std::vector<std::string> Lines() const { return LinesOf(m_out); }

    TempDir m_dir;
    PacketLogOptions m_options;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(PacketLogCommand, ShowsEachMessageAsALineAndTakesItsSocketAway) {
    EXPECT_EQ(kExitFine,
              Run({Bare(kEngineStarting), Capture(7, "abc"), Bare(kEngineShuttingDown)}, 3));
    EXPECT_THAT(Lines(),
                ElementsAre("EngineStarting",
                            "OffendingPacketCapture fileFormat=0 maxFiles=10 maxFileSize=10 "
                            "packetHash=0 eventId=7 userString=SNORT packetLength=1514 "
                            "capturedSize=3 time=1007.999999 frameNumber=0 "
                            "reserved=0 flags=0 adapterId=0",
                            "EngineShuttingDown"));
    EXPECT_THAT(m_err.str(), HasSubstr("3 messages, 0 records, 1 packet\n"));
    EXPECT_FALSE(std::filesystem::exists(m_options.socketPath));
}

TEST_F(PacketLogCommand, ShowsJsonWithThePacketInBase64) {
    m_options.json = true;
    EXPECT_EQ(kExitFine, Run({Capture(7, "abc")}, 1));
    const json message = json::parse(m_out.str());
    EXPECT_EQ("OffendingPacketCapture", message["name"]);
    EXPECT_EQ(4, message["type"]);
    EXPECT_EQ(7, message["eventId"]);
    EXPECT_EQ("YWJj", message["packet"]);
}

TEST_F(PacketLogCommand, WritesPacketsForAnyPcapReader) {
    EXPECT_EQ(kExitFine, Run({Capture(7, "first"), Capture(8, std::string(1400, 'x')),
                              Capture(7, ""), Capture(7, "third")},
                             4));
    const Packet first{1007, 999999, 1514, "first"};
    const Packet second{1008, 999999, 1514, std::string(1400, 'x')};
    const Packet third{1007, 999999, 1514, "third"};
    int linkType = -1;
    EXPECT_THAT(PacketsIn(m_dir.File("all.pcap"), &linkType), ElementsAre(first, second, third));
    EXPECT_EQ(DLT_EN10MB, linkType);
    EXPECT_THAT(PacketsIn(m_dir.File("event-7.pcap")), ElementsAre(first, third));
    EXPECT_THAT(PacketsIn(m_dir.File("event-8.pcap")), ElementsAre(second));
}

TEST_F(PacketLogCommand, WritesTheLinkTypeThatItIsTold) {
    m_options.linkType = DLT_RAW;
    EXPECT_EQ(kExitFine, Run({Capture(7, "first")}, 1));
    int linkType = -1;
    EXPECT_EQ(1u, PacketsIn(m_dir.File("event-7.pcap"), &linkType).size());
    EXPECT_EQ(DLT_RAW, linkType);
}

TEST_F(PacketLogCommand, ReportsAndSkipsWhatIsNoMessage) {
    m_options.json = true;
    std::string wrongLength = Bare(kEngineStarting);
    wrongLength[4] = 9;
    std::string wrongSize = Capture(7, "abc");
    wrongSize.pop_back();
    EXPECT_EQ(kExitFailure, Run({std::string(127, '\0'), Bare(static_cast<LogControlType>(5)),
                                 wrongLength, wrongSize, Bare(kType15) + "x", Bare(kType16)},
                                1));
    EXPECT_THAT(m_err.str(),
                HasSubstr("malformed message of 127 bytes skipped: shorter than 128 bytes\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("unknown type 5\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("type 1 with a length of 9 and not 8\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("a captured size of 3 and 2 bytes of packet\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("1 byte after a message without a packet\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("1 message, 0 records, 0 packets, 5 malformed\n"));
    ASSERT_EQ(6u, Lines().size());
    EXPECT_EQ("unknown type 5", json::parse(Lines()[1])["malformed"]);
    EXPECT_EQ("Type16", json::parse(Lines()[5])["name"]);
    EXPECT_THAT(PacketsIn(m_dir.File("all.pcap")), IsEmpty());
}

TEST_F(PacketLogCommand, DropsTheFirstDatagramsUnseen) {
    m_options.drop = 2;
    EXPECT_EQ(kExitFine, Run({Capture(1, "a"), Capture(2, "b"), Capture(3, "c")}, 1));
    EXPECT_EQ(1u, Lines().size());
    EXPECT_THAT(m_err.str(), HasSubstr("1 message, 0 records, 1 packet, 2 dropped\n"));
    EXPECT_EQ(1u, PacketsIn(m_dir.File("all.pcap")).size());
}

TEST_F(PacketLogCommand, ThatStopsReadingShowsNothing) {
    m_options.stopReading = true;
    m_options.timeout = 0.2;
    EXPECT_EQ(kExitFine, Run({Bare(kType15)}, 0));
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(PacketLogCommand, IsRefusedWhereAnotherReceives) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    m_options.socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    EXPECT_EQ(kExitFailure, RunPacketLog(m_options, m_out, m_err));
    EXPECT_THAT(m_err.str(), HasSubstr("another receiver"));
    EXPECT_FALSE(std::filesystem::exists(m_dir.File("all.pcap"))) << "it would be the other's";
    close(fd);
}

TEST_F(PacketLogCommand, IsRefusedWithoutADirectory) {
    m_options.directory += "/missing";
    EXPECT_EQ(kExitFailure, RunPacketLog(m_options, m_out, m_err));
    EXPECT_THAT(m_err.str(), HasSubstr("No such file or directory"));
}

TEST_F(PacketLogCommand, DrainsTheRingOfAWriter) {
    m_options.ring = 7;
    m_options.ringPath = m_dir.File("ring");
    PacketLogWriter writer;
    writer.m_pPipe = std::make_unique<ShmEventPipe>(WRITER, m_options.ringPath, kPacketLogRingSize);
    ASSERT_TRUE(writer.m_pPipe->Open(true));
    const uint8_t data[] = {'r', 'i', 'n', 'g'};
    PacketInfo packet;
    packet.uPacketLength = 60;
    packet.iCapturedSize = sizeof(data);
    packet.uSeconds = 5;
    packet.uMicroseconds = 6;
    packet.pData = data;
    ASSERT_EQ(PIPE_OK, writer.WritePacket(&packet, 1, 2, 3));
    packet.pData = nullptr;
    ASSERT_EQ(PIPE_OK, writer.WritePacket(&packet, 1, 2, 3));
    EXPECT_EQ(kExitFine, Run({}, 2));
    EXPECT_EQ(2u, Lines().size());
    EXPECT_THAT(Lines()[0], HasSubstr("Record runningLength=76 valueA=2 valueB=1 valueC=3 "));
    EXPECT_THAT(PacketsIn(m_dir.File("all.pcap")), ElementsAre(Packet{5, 6, 60, "ring"}));
}

// --- limits of the capture files -----------------------------------------------------------------

class CaptureFilesLimits : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(m_files.Open()) << m_files.Error(); }

    // Puts in a packet of 900 bytes, of which one fits into a kilobyte and two do not.
    void Write(char byte, uint32_t maxFiles, uint32_t maxKBytes) {
        const std::string bytes(900, byte);
        CapturedPacket packet{9, maxFiles, maxKBytes, 1, 2, 900, std::as_bytes(std::span(bytes))};
        ASSERT_TRUE(m_files.Write(packet)) << m_files.Error();
    }
    std::string BytesIn(const std::string& name) {
        std::string first;
        for (const Packet& packet : PacketsIn(m_dir.File(name))) {
            first += packet.bytes.front();
        }
        return first;
    }
    bool Exists(const std::string& name) { return std::filesystem::exists(m_dir.File(name)); }

    TempDir m_dir;
    CaptureFiles m_files{m_dir.Path().string(), DLT_EN10MB};
};

TEST_F(CaptureFilesLimits, KeepTheNewestFilesOfAnEvent) {
    for (const char byte : std::string("abcd")) {
        Write(byte, 3, 1);
    }
    EXPECT_EQ("d", BytesIn("event-9.pcap"));
    EXPECT_EQ("c", BytesIn("event-9.1.pcap"));
    EXPECT_EQ("b", BytesIn("event-9.2.pcap"));
    EXPECT_FALSE(Exists("event-9.3.pcap"));
    EXPECT_EQ("abcd", BytesIn("all.pcap"));
}

TEST_F(CaptureFilesLimits, OfAFileAreItsKilobytes) {
    for (const char byte : std::string("abcd")) {
        Write(byte, 3, 2);
    }
    EXPECT_EQ("cd", BytesIn("event-9.pcap"));
    EXPECT_EQ("ab", BytesIn("event-9.1.pcap"));
    EXPECT_LE(std::filesystem::file_size(m_dir.File("event-9.1.pcap")), 2048u);
}

TEST_F(CaptureFilesLimits, OfOneFileLeaveOne) {
    Write('a', 1, 1);
    Write('b', 1, 1);
    EXPECT_EQ("b", BytesIn("event-9.pcap"));
    EXPECT_FALSE(Exists("event-9.1.pcap"));
}

TEST_F(CaptureFilesLimits, OfZeroAreNone) {
    for (int packet = 0; packet < 20; ++packet) {
        Write('a', 0, 0);
    }
    EXPECT_EQ(20u, BytesIn("event-9.pcap").size());
    EXPECT_FALSE(Exists("event-9.1.pcap"));
}

TEST_F(CaptureFilesLimits, ThatAreLoweredTakeEffectAtOnce) {
    for (const char byte : std::string("abcd")) {
        Write(byte, 10, 1);
    }
    Write('e', 2, 1);
    EXPECT_EQ("e", BytesIn("event-9.pcap"));
    EXPECT_EQ("d", BytesIn("event-9.1.pcap"));
    EXPECT_FALSE(Exists("event-9.2.pcap"));
    EXPECT_FALSE(Exists("event-9.3.pcap"));
}

TEST_F(CaptureFilesLimits, OfAPacketThatIsLargerThanAFileStillLeaveItWhole) {
    const std::string bytes(5000, 'x');
    const CapturedPacket packet{9, 3, 1, 1, 2, 5000, std::as_bytes(std::span(bytes))};
    ASSERT_TRUE(m_files.Write(packet));
    EXPECT_EQ(bytes, PacketsIn(m_dir.File("event-9.pcap")).at(0).bytes);
}

}  // namespace
}  // namespace tarnctl
