#include "packet_log/packet_log_writer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "ring/shm_event_pipe.h"
#include "support/allocation_count.h"
#include "support/golden_bytes.h"
#include "support/independent_ring.h"
#include "support/levelled_log.h"
#include "support/log_capture.h"
#include "support/ring_fixture.h"

namespace {

using Lines = std::vector<std::string>;

PacketInfo PacketOf(const Bytes& data, uint32_t seconds = 0x2000) {
    PacketInfo packet;
    packet.uPacketLength = 1514;
    packet.iCapturedSize = static_cast<int32_t>(data.size());
    packet.uSeconds = seconds;
    packet.uMicroseconds = 0x3001;
    packet.pData = data.data();
    packet.uFrameNumber = 0x4002;
    packet.uReserved = 0x5003;
    packet.uFlags = 0x6004;
    packet.uAdapterID = 0x7005;
    return packet;
}

// A writer on a small ring in a directory of the test's own.
class PacketLogWriterWrite : public RingTest {
  protected:
    PacketLogWriterWrite() {
        m_writer.m_pPipe = std::make_unique<ShmEventPipe>(WRITER, m_path, 4096);
        EXPECT_TRUE(m_writer.m_pPipe->Open(true) && m_reader.Open(true));
    }
    int32_t Send(const PacketInfo& packet) { return m_writer.WritePacket(&packet, 1, 2, 3); }

    PacketLogWriter m_writer;
    ShmEventPipe m_reader{READER, m_path, 4096};
};

// A writer on the ring file that its instance number names. The number is the process's own, so
// that no other test and no daemon has this file.
class PacketLogWriterOpen : public testing::Test {
  protected:
    void SetUp() override {
        if (access("/var/run", W_OK) != 0) {
            GTEST_SKIP() << "the ring files lie in /var/run, which this user may not write";
        }
        std::filesystem::remove_all(m_path);
    }
    void TearDown() override { std::filesystem::remove_all(m_path); }

    const uint32_t m_instance = static_cast<uint32_t>(getpid()) + 100;
    const std::string m_number = std::to_string(m_instance);
    const std::string m_path = "/var/run/packetLogData" + m_number;
};

TEST(PacketLogWriter, StartsWithoutInstanceAndPipe) {
    const PacketLogWriter writer;
    EXPECT_EQ(0xffffU, writer.m_uInstance);
    EXPECT_EQ(0, writer.m_uLastFullReport);
    EXPECT_EQ(nullptr, writer.m_pPipe);
    EXPECT_EQ(72U, writer.m_record.uRunningLength);
}

TEST(PacketLogWriter, OpenPipeBeforeInitializeFails) {
    EXPECT_EQ(
        Lines{
            "1 Error Initializing the PacketLog Writer for instance 65535.  Initialize() wasn't called."},
        LevelledMessages([] {
            PacketLogWriter writer;
            EXPECT_FALSE(writer.OpenPipe());
            EXPECT_EQ(nullptr, writer.m_pPipe);
        }));
}

TEST(PacketLogWriter, WritePacketBeforeOpenPipeSendsNothing) {
    PacketLogWriter writer;
    const Bytes data{1, 2, 3};
    const PacketInfo packet = PacketOf(data);
    EXPECT_EQ(0, writer.WritePacket(&packet, 1, 2, 3));
    EXPECT_EQ(72U, writer.m_record.uRunningLength);
}

TEST(PacketLogWriter, NamesTheRingFileByAtLeastTwoDigits) {
    for (const auto& [instance, path] : {std::pair{7U, "/var/run/packetLogData07"},
                                         {12345678U, "/var/run/packetLogData12345678"}}) {
        const bool wasThere = std::filesystem::exists(path);
        PacketLogWriter writer;
        EXPECT_TRUE(writer.Initialize(instance));
        const bool opened = writer.OpenPipe();  // not for every user
        EXPECT_EQ(access(path, W_OK) == 0, opened);
        ASSERT_NE(nullptr, writer.m_pPipe);
        EXPECT_EQ(path, writer.m_pPipe->m_strPath);
        if (!wasThere) {
            std::filesystem::remove(path);
        }
    }
}

TEST_F(PacketLogWriterOpen, MapsARingOfTheAgreedSizeInTheWritersRole) {
    PacketLogWriter writer;
    EXPECT_TRUE(writer.Initialize(m_instance));
    EXPECT_TRUE(writer.OpenPipe());
    EXPECT_EQ(10240000U, std::filesystem::file_size(m_path));
    EXPECT_EQ(WRITER, writer.m_pPipe->m_eRole);
    EXPECT_EQ(10239992U, writer.m_pPipe->m_uSize);
    EXPECT_EQ(nullptr, writer.m_pPipe->m_pfnLog);
    writer.ClosePipe();
    EXPECT_EQ(nullptr, writer.m_pPipe);
    EXPECT_TRUE(std::filesystem::exists(m_path));
    writer.ClosePipe();
    EXPECT_TRUE(writer.OpenPipe());
}

TEST_F(PacketLogWriterOpen, TellsOfEveryStepAtTheDebugLevel) {
    EXPECT_EQ(
        (Lines{"5 Initializing instance " + m_number + " of PacketLogWriter.",
               "5 Opening shared pipe, " + m_path, "5 Successfully opened shared pipe, " + m_path,
               "5 Successfully opened shared pipe, " + m_path}),
        LevelledMessages([this] {
            PacketLogWriter writer;
            writer.Initialize(m_instance);
            EXPECT_TRUE(writer.OpenPipe());
            EXPECT_TRUE(writer.OpenPipe());
        }));
}

TEST_F(PacketLogWriterOpen, KeepsTakingAFailedPipeForAnOpenOne) {
    std::filesystem::create_directory(m_path);
    EXPECT_EQ((Lines{"5 Initializing instance " + m_number + " of PacketLogWriter.",
                     "5 Opening shared pipe, " + m_path, "1 Failed opening shared pipe " + m_path,
                     "5 Successfully opened shared pipe, " + m_path}),
              LevelledMessages([this] {
                  PacketLogWriter writer;
                  writer.Initialize(m_instance);
                  EXPECT_FALSE(writer.OpenPipe());
                  EXPECT_NE(nullptr, writer.m_pPipe);
                  EXPECT_TRUE(writer.OpenPipe());
                  EXPECT_FALSE(writer.m_pPipe->m_bMapped);
                  const Bytes data{1};
                  const PacketInfo packet = PacketOf(data);
                  EXPECT_EQ(PIPE_ERROR, writer.WritePacket(&packet, 0, 0, 0));
              }));
}

TEST_F(PacketLogWriterWrite, PutsTheAgreedBytesIntoTheRing) {
    const Bytes data{0xDE, 0xAD, 0xBE, 0xEF, 0x01};
    const PacketInfo packet = PacketOf(data);
    EXPECT_EQ(0, m_writer.WritePacket(&packet, 0x1122334455667788U, 0xA0A1A2A3U, 0xC0C1C2C3U));
    EXPECT_EQ(GoldenBytes("packet_log_record.txt"), Read(m_reader).message);
}

TEST_F(PacketLogWriterWrite, DropsAMissingPacketWithoutATrace) {
    EXPECT_EQ(0, m_writer.WritePacket(nullptr, 1, 2, 3));
    EXPECT_EQ(READ_EMPTY, Read(m_reader).status);
}

TEST_F(PacketLogWriterWrite, SendsABareRecordForAPacketWithoutBytes) {
    const Bytes data{1, 2, 3};
    for (const int32_t captured : {0, -1, -2000000000}) {
        PacketInfo packet = PacketOf(data);
        packet.iCapturedSize = captured;
        EXPECT_EQ(0, Send(packet));
        EXPECT_EQ(72U, Read(m_reader).message.size()) << captured;
    }
    PacketInfo packet = PacketOf(data);
    packet.pData = nullptr;
    EXPECT_EQ(0, Send(packet));
    const Bytes message = Read(m_reader).message;
    ASSERT_EQ(72U, message.size());
    PacketLogRecord record;
    std::memcpy(&record, message.data(), sizeof record);
    EXPECT_EQ(3, record.iCapturedSize);
    EXPECT_EQ(72U, record.uRunningLength);
}

TEST_F(PacketLogWriterWrite, KeepsARunningTotalInTheLengthWord) {
    uint32_t total = 72;
    for (const uint32_t captured : {5U, 60U, 1U}) {
        ASSERT_EQ(0, Send(PacketOf(Counting(captured))));
        total += captured;
        const Bytes message = Read(m_reader).message;
        EXPECT_EQ(72 + captured, message.size());
        PacketLogRecord record;
        std::memcpy(&record, message.data(), sizeof record);
        EXPECT_EQ(total, record.uRunningLength);
    }
    ASSERT_EQ(PIPE_OK, Send(PacketOf(Counting(3900))));
    ASSERT_EQ(PIPE_FULL, Send(PacketOf(Counting(200))));
    EXPECT_EQ(total + 3900 + 200, m_writer.m_record.uRunningLength) << "lost packets included";
}

TEST_F(PacketLogWriterWrite, ReturnsTheRingsErrorForAPacketLargerThanTheRing) {
    const LogCapture log;
    EXPECT_EQ(PIPE_ERROR, Send(PacketOf(Counting(5000))));
    EXPECT_EQ(Lines{}, log.Messages());
}

TEST_F(PacketLogWriterWrite, TellsOfAFullRingOncePer300SecondsOfPacketTime) {
    const Bytes large = Counting(3900);
    ASSERT_EQ(0, Send(PacketOf(large)));
    const auto linesAt = [&](uint32_t seconds) {
        const LogCapture log;
        EXPECT_EQ(PIPE_FULL, Send(PacketOf(large, seconds)));
        return log.Messages();
    };
    const Lines reported{"Failed to send packets to logger daemon, pipe is full."};
    EXPECT_EQ(reported, linesAt(1000000));
    EXPECT_EQ(Lines{}, linesAt(1000000));
    EXPECT_EQ(Lines{}, linesAt(1000300));
    EXPECT_EQ(reported, linesAt(1000301));
    EXPECT_EQ(Lines{}, linesAt(1000601));
    EXPECT_EQ(Lines{}, linesAt(999000));
    EXPECT_EQ(1000301, m_writer.m_uLastFullReport);
}

TEST_F(PacketLogWriterWrite, SaysOfAFullRingAtTheDebugLevel) {
    const Bytes large = Counting(3900);
    ASSERT_EQ(0, Send(PacketOf(large)));
    EXPECT_EQ(Lines{"5 Failed to send packets to logger daemon, pipe is full."},
              LevelledMessages([&] {
                  m_writer.m_uLastFullReport = 0;
                  EXPECT_EQ(PIPE_FULL, Send(PacketOf(large)));
              }));
}

TEST_F(PacketLogWriterWrite, AllocatesNothing) {
    if (AllocationCount() == 0) {
        GTEST_SKIP() << "the sanitizer's allocator counts nothing";
    }
    const Bytes data = Counting(100);
    const PacketInfo packet = PacketOf(data);
    vald::Log::GetInstance();  // made once in the life of a process
    const uint64_t before = AllocationCount();
    int sent = 0;
    while (m_writer.WritePacket(&packet, 1, 2, 3) == PIPE_OK) {
        ++sent;
    }
    EXPECT_EQ(before, AllocationCount());
    EXPECT_GT(sent, 10);
}

}  // namespace
