// The man pages of both configuration files have each key with its default, and each word; and no
// other.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "config/config.h"
#include "config/event_rule_parser.h"
#include "support/source_dir.h"

namespace {

using testing::HasSubstr;

// The text of each item of a page, by its name: ".It Va tarn.log.level" names "tarn.log.level".
// Only items with that macro count, and only those of one section where one is given.
std::map<std::string, std::string> ItemsOf(const std::string& page, const std::string& macro,
                                           const std::string& section) {
    std::ifstream file(SourceDir() + "/docs/man/" + page);
    std::map<std::string, std::string> items;
    std::string* item = nullptr;
    bool isInside = false;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(".Sh ") || line.starts_with(".Ss ")) {
            isInside = line.substr(4) == section;
        } else if (isInside && line.starts_with(".It " + macro + " ")) {
            std::istringstream words(line.substr(5 + macro.size()));
            std::string name;
            words >> name;
            item = &items[name];
        } else if (line.starts_with(".It ") || line.starts_with(".El")) {
            item = nullptr;
        } else if (item != nullptr) {
            *item += line + "\n";
        }
    }
    return items;
}

std::set<std::string> NamesOf(const std::map<std::string, std::string>& items) {
    std::set<std::string> names;
    for (const auto& [name, text] : items) {
        names.insert(name);
    }
    return names;
}

TEST(ManPageOfTheMainFile, HasEachKeyAndNoOther) {
    const std::vector<std::string> keys = Config::SettingNames();
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()),
              NamesOf(ItemsOf("tarn.conf.5", "Va", "KEYS")));
}

TEST(ManPageOfTheMainFile, HasTheDefaultOfEachKey) {
    auto items = ItemsOf("tarn.conf.5", "Va", "KEYS");
    const std::pair<const char*, int> defaults[] = {
        {"tarn.log.level", Config::s_logLevel},
        {"tarn.log.maxfiles", Config::s_logMaxFiles},
        {"tarn.log.maxfilesize", Config::s_logMaxFileSize},
        {"tarn.snort.cpu", Config::s_snortCpu},
        {"tarn.engine.cpu", Config::s_engineCpu},
        {"tarn.engine.crm", Config::s_engineCrm},
        {"tarn.debug.single", Config::s_debugSingle},
        {"tarn.evidencelog.maxfiles", Config::s_evidenceMaxFiles},
        {"tarn.evidencelog.maxkbytes", Config::s_evidenceMaxKBytes},
        {"tarn.evidencelog.packetcount", Config::s_evidencePacketCount},
        {"tarn.evidencelog.file.timeout", Config::s_evidenceFileTimeout},
        {"tarn.evidencelog.bufferctrlsize", Config::s_evidenceBufferCtrlSize},
        {"tarn.evidencelog.suppress", Config::s_evidenceSuppress}};
    for (const auto& [key, number] : defaults) {
        EXPECT_THAT(items[key], testing::ContainsRegex("The default(,| is) " +
                                                       std::to_string(number) + "[.,;]"))
            << key;
    }
    EXPECT_THAT(items["tarn.log.file"], HasSubstr(".Pa " + Config::s_logFile));
    EXPECT_THAT(items["tarn.evidencelog.fileformat"], HasSubstr(Config::s_evidenceFileFormat));
    EXPECT_EQ(Config::SettingNames().size(), std::size(defaults) + 2);
}

TEST(ManPageOfTheEventFile, HasEachKeyAndNoOther) {
    std::set<int> kinds;
    for (const std::string& key : NamesOf(ItemsOf("tarn_event.conf.5", "Va", "KEYS"))) {
        int kind = kEventKeyNone;
        uint32_t id = 0;
        EXPECT_TRUE(ParseEventKey(("se.7." + key).c_str(), &kind, &id)) << key;
        kinds.insert(kind);
    }
    EXPECT_THAT(kinds, testing::ElementsAre(kEventKeySeverity, kEventKeyRule, kEventKeyMessage,
                                            kEventKeyUserResponse, kEventKeyResponse,
                                            kEventKeyQuarantineRule));
}

TEST(ManPageOfTheEventFile, HasWordsThatTheParserTakes) {
    uint32_t flags = 0;
    const auto responses = NamesOf(ItemsOf("tarn_event.conf.5", "Cm", "response"));
    EXPECT_EQ(4U, responses.size());
    for (const std::string& word : responses) {
        EXPECT_TRUE(ParseResponse(word.c_str(), &flags)) << word;
    }
    const auto words = NamesOf(ItemsOf("tarn_event.conf.5", "Cm", "quarantine.rule"));
    uint32_t all = 0;
    for (const std::string& word : words) {
        BlockRule rule;
        const bool isSetting = word == "duration" || word == "ratelimit";
        EXPECT_TRUE(ParseBlockRule((word + (isSetting ? ":1" : "")).c_str(), &rule)) << word;
        all |= rule.flags;
    }
    EXPECT_EQ(15U, words.size()) << "as many as docs/formats/tarn_event_conf.md has";
    EXPECT_EQ(0x1FFU, all);
}

}  // namespace
