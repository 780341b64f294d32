#include "tarnctl/packetlog/capture_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "support/temp_dir.h"

using testing::UnorderedElementsAre;

namespace tarnctl {
namespace {

constexpr CaptureFormat kPlain = CaptureFormat::kPcap;

TEST(CaptureNames, AreWrittenAndReadBack) {
    const std::pair<CaptureName, const char*> names[] = {
        {{std::nullopt, kPlain, 0}, "all.pcap"},
        {{std::nullopt, CaptureFormat::kPcapng, 0}, "all.pcapng"},
        {{std::nullopt, kPlain, 12}, "all.12.pcap"},
        {{0, kPlain, 0}, "event-0.pcap"},
        {{4294967295U, CaptureFormat::kPcapng, 4294967295U}, "event-4294967295.4294967295.pcapng"}};
    for (const auto& [name, text] : names) {
        EXPECT_EQ(text, name.Text());
        EXPECT_EQ(name, CaptureName::From(text));
    }
}

TEST(CaptureNames, AreNoneOfTheseOthers) {
    for (const char* text : {"",
                             "all",
                             "pcap",
                             ".pcap",
                             "all.pcap.gz",
                             "all.0.pcap",
                             "all.01.pcap",
                             "all.-1.pcap",
                             "all.1.2.pcap",
                             "All.pcap",
                             "all.pcapn",
                             "xall.pcap",
                             "event-.pcap",
                             "event-7",
                             "event-07.pcap",
                             "event--7.pcap",
                             "event-7.x.pcap",
                             "event-4294967296.pcap",
                             "event-7.4294967296.pcap",
                             "event-7 .pcap",
                             "all.pcapng2",
                             "event-7.1",
                             "eve.pcap"}) {
        EXPECT_EQ(std::nullopt, CaptureName::From(text)) << text;
    }
}

TEST(CapturesInAFolder, ArePlainFilesWithSuchNames) {
    const TempDir dir;
    dir.Write("all.pcap", "12345");
    dir.Write("event-7.3.pcapng", "");
    dir.Write("notes.txt", "mine");
    std::filesystem::create_directory(dir.File("event-8.pcap"));
    std::filesystem::create_symlink(dir.File("notes.txt"), dir.File("event-9.pcap"));
    ASSERT_EQ(0, mkfifo(dir.File("event-10.pcap").c_str(), 0600));
    const auto captures = CapturesIn(dir.Path().string());
    ASSERT_TRUE(captures);
    std::vector<std::pair<std::string, uint64_t>> found;
    for (const KeptCapture& capture : *captures) {
        found.emplace_back(capture.name.Text(), capture.bytes);
        EXPECT_GT(capture.changed, 0);
    }
    EXPECT_THAT(found,
                UnorderedElementsAre(std::pair<std::string, uint64_t>("all.pcap", 5),
                                     std::pair<std::string, uint64_t>("event-7.3.pcapng", 0)));
}

TEST(CapturesInAFolder, ThatIsMissingAreUnknown) {
    const TempDir dir;
    EXPECT_FALSE(CapturesIn(dir.File("missing")));
    EXPECT_EQ(ENOENT, errno);
}

}  // namespace
}  // namespace tarnctl
