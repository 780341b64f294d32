#include "tarnctl/packetlog/packetlog_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
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
#include "unit/tarnctl/common/lines_of.h"
#include "unit/tarnctl/packetlog/packets_in.h"

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace tarnctl {
namespace {

using namespace PacketLogCtrl;

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

    // Runs the command with a sender beside it, until all of it has come. The sender calls `before`
    // with the number of each datagram first.
    int Run(
        const std::vector<std::string>& datagrams, uint64_t count,
        const std::function<void(size_t)>& before = [](size_t) {}) {
        m_options.count = count;
        std::thread sender([&] {
            const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
            sockaddr_un address = {};
            address.sun_family = AF_UNIX;
            m_options.socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
            for (size_t number = 0; number < datagrams.size(); ++number) {
                before(number);
                const std::string& datagram = datagrams[number];
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
    const ReadPacket first{1007, 999999, 1514, "first"};
    const ReadPacket second{1008, 999999, 1514, std::string(1400, 'x')};
    const ReadPacket third{1007, 999999, 1514, "third"};
    int linkType = -1;
    EXPECT_THAT(PacketsIn(m_dir.File("all.pcap"), &linkType), ElementsAre(first, second, third));
    EXPECT_EQ(DLT_EN10MB, linkType);
    EXPECT_THAT(PacketsIn(m_dir.File("event-7.pcap")), ElementsAre(first, third));
    EXPECT_THAT(PacketsIn(m_dir.File("event-8.pcap")), ElementsAre(second));
}

TEST_F(PacketLogCommand, WritesTheLinkTypeThatItIsTold) {
    m_options.linkType = 101;  // raw IP, in files
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
    EXPECT_THAT(PacketsIn(m_dir.File("all.pcap")), ElementsAre(ReadPacket{5, 6, 60, "ring"}));
}

// --- as a service --------------------------------------------------------------------------------

TEST_F(PacketLogCommand, WritesPcapngWithWhatThePacketIsFor) {
    m_options.format = "pcapng";
    EXPECT_EQ(kExitFine, Run({Capture(7, "first")}, 1));
    EXPECT_THAT(PacketsIn(m_dir.File("event-7.pcapng")),
                ElementsAre(ReadPacket{1007, 999999, 1514, "first"}));
    EXPECT_THAT(m_dir.Read("all.pcapng"), HasSubstr("signature 7, from SNORT"));
    EXPECT_FALSE(std::filesystem::exists(m_dir.File("all.pcap")));
}

TEST_F(PacketLogCommand, CommentsHaveFrameAndHashWhereThereAreAny) {
    m_options.format = "pcapng";
    std::string datagram = Capture(7, "first");
    datagram[24] = 5;    // hash
    datagram[104] = 17;  // frame
    EXPECT_EQ(kExitFine, Run({datagram}, 1));
    EXPECT_THAT(m_dir.Read("all.pcapng"), HasSubstr("signature 7, from SNORT, frame 17, hash 5"));
}

TEST_F(PacketLogCommand, ThatIsQuietShowsNoMessages) {
    m_options.quiet = true;
    EXPECT_EQ(kExitFine, Run({Capture(7, "first"), Bare(kEngineShuttingDown)}, 2));
    EXPECT_THAT(Lines(), IsEmpty());
    EXPECT_THAT(m_err.str(), HasSubstr("2 messages, 0 records, 1 packet\n"));
}

TEST_F(PacketLogCommand, SaysWhatBurstTheKernelHolds) {
    EXPECT_EQ(kExitFine, Run({Bare(kType15)}, 1));
    EXPECT_THAT(m_err.str(), HasSubstr("messages while this is busy"));
}

TEST_F(PacketLogCommand, BringsTheDirectoryWithinItsLimitsAtItsStart) {
    for (const char* name : {"event-1.pcap", "event-2.pcap", "event-3.1.pcap", "notes.txt"}) {
        m_dir.Write(name, "left");
    }
    m_options.keep.files = 2;
    EXPECT_EQ(kExitFine, Run({Bare(kType15)}, 1));
    EXPECT_TRUE(std::filesystem::exists(m_dir.File("all.pcap")));
    EXPECT_TRUE(std::filesystem::exists(m_dir.File("notes.txt")));
    EXPECT_EQ(3, std::distance(std::filesystem::directory_iterator(m_dir.Path()), {}));
    EXPECT_THAT(m_err.str(), HasSubstr("0 packets, 2 files deleted\n"));
}

TEST_F(PacketLogCommand, KeepsItsBytesWhileItRuns) {
    m_options.keep.bytes = 8000;
    m_options.timeout = 30;
    const auto number = [this](uint32_t event) {
        return m_dir.File("event-" + std::to_string(event) + ".pcap");
    };
    std::vector<std::string> datagrams;
    for (uint32_t event = 1; event <= 9; ++event) {
        datagrams.push_back(Capture(event, std::string(1000, 'x')));
    }
    const auto wait = [&number](uint32_t event, bool isThere) {
        for (int tries = 0; std::filesystem::exists(number(event)) != isThere && tries < 20000;
             ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    // The first one goes within a second or so after the limit is passed.
    EXPECT_EQ(kExitFine, Run(datagrams, 9, [&](size_t next) {
                  if (next == 8) {
                      wait(8, true);
                      wait(1, false);
                  }
              }));
    EXPECT_FALSE(std::filesystem::exists(number(1)));
    EXPECT_TRUE(std::filesystem::exists(number(8)));
    EXPECT_THAT(m_err.str(), HasSubstr("deleted, for the limits\n"));
    EXPECT_LE(std::filesystem::file_size(m_dir.File("all.pcap")), 2000U) << "a quarter";
}

TEST_F(PacketLogCommand, BeginsItsFilesAnewAfterAHangup) {
    m_options.keep.days = 1;
    m_options.timeout = 30;
    const auto wait = [this](const char* name, const std::string& text) {
        for (int tries = 0; m_dir.Read(name).find(text) == std::string::npos && tries < 20000;
             ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    EXPECT_EQ(kExitFine, Run({Capture(7, "first"), Capture(7, "second")}, 2, [&](size_t next) {
                  if (next == 1) {
                      wait("event-7.pcap", "first");
                      EXPECT_EQ(0, kill(getpid(), SIGHUP));
                      wait("all.1.pcap", "first");
                  }
              }));
    EXPECT_EQ(1u, PacketsIn(m_dir.File("all.1.pcap")).size());
    EXPECT_EQ("second", PacketsIn(m_dir.File("all.pcap")).at(0).bytes);
    EXPECT_EQ("second", PacketsIn(m_dir.File("event-7.pcap")).at(0).bytes);
    EXPECT_EQ("first", PacketsIn(m_dir.File("event-7.1.pcap")).at(0).bytes);
    EXPECT_THAT(m_err.str(), HasSubstr("hangup: new files are begun\n"));
}

TEST_F(PacketLogCommand, CountsWhatItCannotKeepAndGoesOn) {
    std::filesystem::create_directory(m_dir.File("event-7.pcap"));
    EXPECT_EQ(kExitFailure, Run({Capture(7, "a"), Capture(7, "b"), Capture(8, "c")}, 3));
    EXPECT_THAT(m_err.str(), HasSubstr("packets are lost: " + m_dir.File("event-7.pcap")));
    EXPECT_EQ(m_err.str().find("are lost: /"), m_err.str().rfind("are lost: /")) << "once";
    EXPECT_THAT(m_err.str(), HasSubstr("packets are kept again; 2 packets lost\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("3 packets, 2 lost\n"));
    EXPECT_EQ(3u, PacketsIn(m_dir.File("all.pcap")).size()) << "which has room for each";
}

TEST_F(PacketLogCommand, IsRefusedWithAGroupThatIsNone) {
    m_options.group = "no-such-group";
    EXPECT_EQ(kExitFailure, RunPacketLog(m_options, m_out, m_err));
    EXPECT_THAT(m_err.str(), HasSubstr("--group: no-such-group is no group"));
}

TEST_F(PacketLogCommand, TakesAGroupByItsNumber) {
    m_options.group = std::to_string(getgid());
    EXPECT_EQ(kExitFine, Run({Capture(7, "a")}, 1));
}

TEST_F(PacketLogCommand, ReadsItsFileOptions) {
    CLI::App app;
    PacketLogOptions options;
    AddPacketLogCommand(app, options);
    app.parse("packetlog --dir " + m_dir.Path().string() +
              " --format pcapng --keep-days 14 --keep-bytes 10G --keep-files 500 --rotate 1M"
              " --group adm --quiet");
    EXPECT_EQ("pcapng", options.format);
    EXPECT_EQ(14u, options.keep.days);
    EXPECT_EQ(10ULL << 30U, options.keep.bytes);
    EXPECT_EQ(500u, options.keep.files);
    EXPECT_EQ(1ULL << 20U, options.newFileBytes);
    EXPECT_EQ("adm", options.group);
    EXPECT_TRUE(options.quiet);
    EXPECT_THROW(app.parse("packetlog --dir / --format pcap2"), CLI::ValidationError);
}

}  // namespace
}  // namespace tarnctl
