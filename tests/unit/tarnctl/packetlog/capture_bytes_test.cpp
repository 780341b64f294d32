#include "tarnctl/packetlog/capture_bytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "support/golden_bytes.h"
#include "support/temp_dir.h"
#include "unit/tarnctl/packetlog/packets_in.h"

using testing::ElementsAre;

namespace tarnctl {
namespace {

constexpr CaptureFormat kBoth[] = {CaptureFormat::kPcap, CaptureFormat::kPcapng};

CapturedPacket PacketOf(const std::string& bytes, const std::string& comment = "") {
    return {7, 0, 0, 1700000000, 123456, 60, std::as_bytes(std::span(bytes)), comment};
}

std::string FileOf(CaptureFormat format, const CapturedPacket& packet) {
    return CaptureHead(format, 1) + CaptureRecord(format, packet);
}

std::string Golden(const std::string& name) {
    const std::vector<uint8_t> bytes = GoldenBytes(name);
    return {bytes.begin(), bytes.end()};
}

TEST(CaptureBytes, ArePcapng) {
    const std::string bytes = "\xDE\xAD\xBE";
    EXPECT_EQ(Golden("capture_pcapng.txt"),
              FileOf(CaptureFormat::kPcapng, PacketOf(bytes, "signature 7, from SNORT")));
}

TEST(CaptureBytes, ArePcapWhichHasNoComments) {
    const std::string bytes = "\xDE\xAD\xBE";
    EXPECT_EQ(Golden("capture_pcap.txt"),
              FileOf(CaptureFormat::kPcap, PacketOf(bytes, "signature 7, from SNORT")));
}

TEST(CaptureBytes, AreReadBackWhateverTheirLengths) {
    const TempDir dir;
    for (const CaptureFormat format : kBoth) {
        for (size_t length = 0; length < 10; ++length) {
            for (size_t comment = 0; comment < 6; ++comment) {
                const std::string bytes(length, 'x');
                std::string file = CaptureHead(format, 1);
                file += CaptureRecord(format, PacketOf(bytes, std::string(comment, 'c')));
                file += CaptureRecord(format, PacketOf("last"));
                int linkType = -1;
                EXPECT_THAT(PacketsIn(dir.Write("file", file), &linkType),
                            ElementsAre(ReadPacket{1700000000, 123456, 60, bytes},
                                        ReadPacket{1700000000, 123456, 60, "last"}));
                EXPECT_EQ(DLT_EN10MB, linkType);
            }
        }
    }
}

TEST(CaptureBytes, OfAPacketThatIsLongerThanItSaysAreThatManyOnTheWire) {
    const TempDir dir;
    for (const CaptureFormat format : kBoth) {
        const std::string bytes(100, 'x');
        EXPECT_EQ(100u, PacketsIn(dir.Write("file", FileOf(format, PacketOf(bytes)))).at(0).length);
    }
}

TEST(CaptureBytes, OfALateTimeAreReadBack) {
    const TempDir dir;
    for (const CaptureFormat format : kBoth) {
        const std::string bytes = "x";
        CapturedPacket packet = PacketOf(bytes);
        packet.seconds = 4000000000;
        EXPECT_EQ(4000000000,
                  PacketsIn(dir.Write("file", FileOf(format, packet))).at(0).seconds & UINT32_MAX);
    }
}

TEST(CaptureBytes, CutACommentThatIsTooLong) {
    const TempDir dir;
    const std::string bytes = "x";
    const std::string file =
        FileOf(CaptureFormat::kPcapng, PacketOf(bytes, std::string(70000, 'c')));
    EXPECT_EQ(1u, PacketsIn(dir.Write("file", file)).size());
    EXPECT_NE(std::string::npos, file.find(std::string(65535, 'c')));
    EXPECT_EQ(std::string::npos, file.find(std::string(65536, 'c')));
}

TEST(CaptureFormatNames, AreThoseOfTheFiles) {
    EXPECT_EQ(CaptureFormat::kPcap, CaptureFormatFrom("pcap"));
    EXPECT_EQ(CaptureFormat::kPcapng, CaptureFormatFrom("pcapng"));
    EXPECT_EQ(std::nullopt, CaptureFormatFrom("pcapn"));
    EXPECT_EQ(std::nullopt, CaptureFormatFrom(""));
}

}  // namespace
}  // namespace tarnctl
