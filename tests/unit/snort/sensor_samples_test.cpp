// What sensors in use have written, read through the FIFO as the daemon reads it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "config/config.h"
#include "snort/snort_event_reader.h"
#include "support/file_text.h"
#include "support/source_dir.h"
#include "support/temp_dir.h"
#include "unit/snort/log_questions.h"

namespace {

struct Sample {
    const char* file;
    std::map<uint32_t, int> records;  // by type
    int unsupportedExtraData;
    int failedAssociations;
};

std::ostream& operator<<(std::ostream& out, const Sample& sample) {
    return out << sample.file;
}

// The project's own samples first, then a folder beside the checkout that holds those that may not
// be copied. Empty if the sample is in neither.
std::string PathOf(const std::string& file) {
    namespace fs = std::filesystem;
    const char* given = std::getenv("TARN_SAMPLES");
    const fs::path source = SourceDir();
    for (const fs::path& folder : {source / "samples", fs::path(given != nullptr ? given : ""),
                                   source / "../shared/samples"}) {
        if (fs::exists(folder / file)) {
            return folder / file;
        }
    }
    return "";
}

uint32_t BigEndianAt(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = at; i < at + 4; ++i) {
        value = value << 8 | static_cast<uint8_t>(bytes.at(i));
    }
    return value;
}

// Plays a file into a reader, record by record, and waits until all is handed on.
class SensorSamples : public testing::TestWithParam<Sample> {
  protected:
    SensorSamples() { Config::s_logLevel = 5; }
    ~SensorSamples() override { Config::s_logLevel = 3; }

    std::map<uint32_t, int> Play(const std::string& file) const {
        const std::string bytes = ReadFile(file);
        const TempDir folder;
        const std::string path = folder.File("alerts.fifo");
        SnortEventReader reader(path.c_str());
        EXPECT_TRUE(reader.CreateFifo());
        const int sensor = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        std::map<uint32_t, int> records;
        for (size_t at = 0; at + 8 <= bytes.size();) {
            const size_t whole = size_t{8} + BigEndianAt(bytes, at + 4);
            if (whole > bytes.size() - at) {
                break;  // The sensor was writing it when the file was taken.
            }
            EXPECT_EQ(write(sensor, bytes.data() + at, whole), static_cast<ssize_t>(whole));
            EXPECT_TRUE(reader.ReadEvent(10));
            ++records[BigEndianAt(bytes, at)];
            at += whole;
        }
        EXPECT_FALSE(reader.ReadEvent(0));
        close(sensor);
        return records;
    }
};

TEST_P(SensorSamples, EveryRecordFindsItsPlace) {
    const Sample& sample = GetParam();
    const std::string path = PathOf(sample.file);
    if (path.empty()) {
        GTEST_SKIP() << sample.file << " is not on this machine";
    }
    const QuestionedLog log(vald::Log::kNotice);
    EXPECT_EQ(Play(path), sample.records);
    const auto count = [&](uint32_t type) {
        const auto found = sample.records.find(type);
        return found == sample.records.end() ? 0 : found->second;
    };
    // The bridge is not initialised here, so every alert that reaches it is refused.
    EXPECT_EQ(log.Count("Unable to process event."), count(104) + count(105));
    EXPECT_EQ(log.Count("Unsupported event type: "), count(7));
    EXPECT_EQ(log.Count("Unsupported ExtraData type"), sample.unsupportedExtraData);
    EXPECT_EQ(log.Count("Failed to associate alert event"), sample.failedAssociations);
    EXPECT_EQ(0, log.Count("Packet length doesn't match"));
    EXPECT_EQ(0, log.Count("Partial event read"));
}

INSTANTIATE_TEST_SUITE_P(
    All, SensorSamples,
    testing::Values(
        Sample{"sensor-302-alerts.u2", {{104, 222}, {105, 80}, {2, 302}, {110, 284}}, 160, 0},
        Sample{"sensor-5675-alerts.u2", {{104, 5675}, {2, 5741}, {110, 1952}}, 0, 0},
        Sample{"sensor-multi-record.u2", {{104, 1}, {2, 15}, {110, 1}}, 1, 0},
        Sample{"sensor-merged.u2", {{104, 6}, {2, 6}}, 0, 0},
        Sample{"sensor-ipv6.u2", {{105, 1}, {2, 1}}, 0, 0},
        Sample{"sensor-legacy.u2", {{7, 600}, {2, 600}}, 0, 600}),
    [](const testing::TestParamInfo<Sample>& played) {
        std::string name = played.param.file;
        name.resize(name.find('.'));
        std::erase(name, '-');
        return name;
    });

TEST_F(SensorSamples, FirstAlertShowsWhatTheSensorSaw) {
    const std::string path = PathOf("sensor-302-alerts.u2");
    ASSERT_FALSE(path.empty());
    const QuestionedLog log;
    Play(path);
    const std::vector<std::string> lines = log.Lines();
    const auto alert = std::find(lines.begin(), lines.end(),
                                 "Type: Event 1 -------------------------------------------");
    ASSERT_GT(lines.end() - alert, 21);
    EXPECT_EQ("  event_second       = 1763700000", alert[3]);
    EXPECT_EQ("  event_microsecond  = 40000", alert[4]);
    EXPECT_EQ("  signature_id       = 1000001", alert[6]);
    EXPECT_EQ("  ip_source          = 203.0.113.83", alert[10]);
    EXPECT_EQ("  sport_itype        = 43683", alert[11]);
    EXPECT_EQ("  ip_destination     = 192.0.2.243", alert[12]);
    EXPECT_EQ("  dport_icode        = 80", alert[13]);
    EXPECT_EQ("Type: Packet 1 -------------------------------------------", alert[20]);
    EXPECT_EQ(302, log.Count("Type: Packet "));
    EXPECT_EQ(124, log.Count("Type: Extra Data "));
    EXPECT_GE(log.Count("  Data                = www0.example.com"), 1);
}

// The bytes that docs/formats/unified2.md goes through one by one.
TEST_F(SensorSamples, WorkedExampleOfTheFormatPageReadsAsThePageSays) {
    const QuestionedLog log;
    Play(SourceDir() + "/fuzz/corpus/unified2_stream_fuzz/ipv4-protocol-6-extra-9-10");
    for (const char* line :
         {"Got Snort event, Header: Type = 104, Length = 124",
          "Got Snort event, Header: Type = 110, Length = 45",
          "Got Snort event, Header: Type = 110, Length = 48",
          "Got Snort event, Header: Type = 2, Length = 159",
          "Type: Event 32 -------------------------------------------",
          "  event_second       = 1763700001", "  event_microsecond  = 59999",
          "  signature_id       = 1000005", "  ip_source          = 203.0.113.132",
          "  sport_itype        = 50386", "  ip_destination     = 192.0.2.130",
          "  dport_icode        = 80", "  ip_protocol        = 6", "  vlanId             = 40",
          "  policy id          = 1", "  Data                = /wp-login.php",
          "  Data                = www3.example.com", "  packet_length       = 131",
          "    0: FF 02 01 0A 0B 0C FF 01 02 0A 0B 0C 08 00 45 00  ..............E."}) {
        EXPECT_EQ(1, log.Count(line)) << line;
    }
}

}  // namespace
