#include "tarnctl/snort_rules/snort_configuration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Fault = tarnctl::SensorOutputFault;

namespace tarnctl {
namespace {

// Each fault with its line.
using Faults = std::vector<std::pair<Fault, uint32_t>>;

Faults FaultsOf(const std::vector<SensorOutputFinding>& findings) {
    Faults faults;
    for (const SensorOutputFinding& finding : findings) {
        EXPECT_EQ("name", finding.file);
        EXPECT_FALSE(finding.text.empty());
        faults.emplace_back(finding.fault, finding.line);
    }
    return faults;
}

Faults Snort2(const std::string& text) {
    return FaultsOf(ScanSnort2Configuration("name", text));
}

Faults Snort3(const std::string& text) {
    return FaultsOf(ScanSnort3Configuration("name", text));
}

TEST(Snort2Configuration, IsCleanWithTheKindsAndTheNameThatTheDaemonNeeds) {
    EXPECT_THAT(Snort2("# a comment\n"
                       "output unified2: filename alerts.fifo, limit 128, nostamp, "
                       "vlan_event_types\n"
                       "output alert_fast: a\n"),
                IsEmpty());
    EXPECT_THAT(Snort2("output unified2: \\\n  nostamp , \\\n  vlan_event_types\n"), IsEmpty());
}

TEST(Snort2Configuration, NamesRecordKindsThatTheDaemonDoesNotTake) {
    EXPECT_THAT(Snort2("\noutput unified2: filename a, nostamp\n"),
                ElementsAre(Pair(Fault::kForeignRecords, 2U)));
    EXPECT_THAT(Snort2("output unified2: nostamp, vlan_event_types, appid_event_types\n"),
                ElementsAre(Pair(Fault::kForeignRecords, 1U)));
    EXPECT_THAT(Snort2("output alert_unified2: nostamp, mpls_event_types\n"),
                ElementsAre(Pair(Fault::kForeignRecords, 1U)));
}

TEST(Snort2Configuration, NamesAStampedFileName) {
    EXPECT_THAT(Snort2("output unified2: filename nostamp, vlan_event_types\n"),
                ElementsAre(Pair(Fault::kStampedName, 1U)));
}

TEST(Snort2Configuration, NamesAWriterThatIsNotUnified2) {
    EXPECT_THAT(Snort2("\noutput alert_fast: a\noutput log_tcpdump: b\n"),
                ElementsAre(Pair(Fault::kNoRecordWriter, 2U)));
    EXPECT_THAT(Snort2("output log_unified2: filename a, nostamp\n"),
                ElementsAre(Pair(Fault::kNoRecordWriter, 1U)));
    EXPECT_THAT(Snort2("# text \\\noutput database: x\n"),
                ElementsAre(Pair(Fault::kNoRecordWriter, 2U)));
    EXPECT_THAT(Snort2(""), ElementsAre(Pair(Fault::kNoRecordWriter, 0U)));
}

TEST(Snort3Configuration, IsCleanWithLegacyEvents) {
    EXPECT_THAT(Snort3("unified2 = { legacy_events = true }\n"), IsEmpty());
    EXPECT_THAT(Snort3("unified2 =\n{\n    limit = 128,\n    nostamp = true,\n"
                       "    legacy_events = true,\n}\nalert_csv = { file = true }\n"),
                IsEmpty());
    EXPECT_THAT(Snort3("unified2 = {}\nunified2.legacy_events = true\n"), IsEmpty());
}

TEST(Snort3Configuration, NamesRecordKindsThatTheDaemonDoesNotTake) {
    EXPECT_THAT(Snort3("\nunified2 = { }\n"), ElementsAre(Pair(Fault::kForeignRecords, 2U)));
    EXPECT_THAT(Snort3("unified2 = {\n  limit = 1,\n  legacy_events = false }\n"),
                ElementsAre(Pair(Fault::kForeignRecords, 3U)));
    EXPECT_THAT(Snort3("unified2 = { -- legacy_events = true\n }\n"),
                ElementsAre(Pair(Fault::kForeignRecords, 1U)));
    EXPECT_THAT(Snort3("unified2 = { inner = { legacy_events = true } }\n"),
                ElementsAre(Pair(Fault::kForeignRecords, 1U)));
}

TEST(Snort3Configuration, NamesAStampedFileName) {
    EXPECT_THAT(Snort3("unified2 = { legacy_events = true,\n nostamp = false }\n"),
                ElementsAre(Pair(Fault::kStampedName, 2U)));
}

TEST(Snort3Configuration, NamesAWriterThatIsNotUnified2) {
    EXPECT_THAT(Snort3("alerts = { }\nalert_fast = { file = true }\nlog_pcap = { }\n"),
                ElementsAre(Pair(Fault::kNoRecordWriter, 2U)));
    EXPECT_THAT(Snort3("--[[\nunified2 = { legacy_events = true }\n--]]\n"),
                ElementsAre(Pair(Fault::kNoRecordWriter, 0U)));
    EXPECT_THAT(Snort3("local text = [==[\nunified2 = { } ]] ]==]\n"),
                ElementsAre(Pair(Fault::kNoRecordWriter, 0U)));
    EXPECT_THAT(Snort3("name = 'unified2 = {}'\nmodules = { unified2 = { } }\n"),
                ElementsAre(Pair(Fault::kNoRecordWriter, 0U)));
    EXPECT_THAT(Snort3("unified2 = nil\n"), ElementsAre(Pair(Fault::kNoRecordWriter, 0U)));
}

TEST(Snort3Configuration, SaysWhatOnlyLuaCanTell) {
    EXPECT_THAT(Snort3("unified2 = my_defaults\n"), ElementsAre(Pair(Fault::kUnclear, 1U)));
    EXPECT_THAT(Snort3("unified2 = { legacy_events = old,\nnostamp = plain }\n"),
                ElementsAre(Pair(Fault::kUnclear, 1U), Pair(Fault::kUnclear, 2U)));
}

TEST(SensorConfiguration, IsFoundBesideTheRulesAndInTheFolderAbove) {
    const TempDir dir;
    std::filesystem::create_directories(dir.File("etc/rules"));
    const std::string above = dir.Write("etc/qor-snort.conf", "");
    const std::string beside = dir.Write("etc/rules/snort.lua", "");
    dir.Write("snort.conf", "");
    dir.Write("etc/barnyard.conf", "");
    const std::string rules = dir.Write("etc/rules/a.rules", "");
    EXPECT_THAT(SensorConfigurationsNear(rules), ElementsAre(beside, above));
    EXPECT_THAT(SensorConfigurationsNear(dir.File("etc/rules")), ElementsAre(beside, above));
    EXPECT_THAT(SensorConfigurationsNear(dir.File("etc/rules/")), ElementsAre(beside, above));
    EXPECT_THAT(SensorConfigurationsNear(above), ElementsAre(above));
}

TEST(SensorConfiguration, IsReadAsTheGenerationOfItsName) {
    const TempDir dir;
    const auto faultOf = [&dir](const std::string& name, const std::string& text) {
        const std::vector<SensorOutputFinding> findings =
            ScanSensorConfiguration(dir.Write(name, text));
        return findings.empty() ? Faults{} : Faults{{findings[0].fault, findings[0].line}};
    };
    EXPECT_THAT(faultOf("snort.lua", "unified2 = { legacy_events = true }\n"), IsEmpty());
    EXPECT_THAT(faultOf("snort.conf", "output unified2: nostamp, vlan_event_types\n"), IsEmpty());
    const std::vector<SensorOutputFinding> missing =
        ScanSensorConfiguration(dir.File("none/snort.lua"));
    ASSERT_EQ(1U, missing.size());
    EXPECT_EQ(Fault::kUnreadable, missing[0].fault);
}

}  // namespace
}  // namespace tarnctl
