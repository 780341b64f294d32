// Two hundred faults in one run: each is named at its place, and nothing else is.

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <set>

#include "config/event_rule_parser.h"
#include "support/file_text.h"
#include "support/source_dir.h"
#include "unit/tarnctl/check/check_fixture.h"

namespace {

using CheckSeededFaults = CheckFixture;
using CheckCleanFiles = CheckFixture;
using CheckSuggestions = CheckFixture;

// A fault in an entry: `line` takes the place of the good line of this key, or follows them all.
// "%" is the entry's id and "@" the place of the finding. An empty line leaves the key out; the
// finding is then at the id of the entry's first line.
struct Fault {
    const char* kind;
    int key;  // kExtra or an index into kGood
    const char* line;
};
enum : int { kSeverity, kName, kUser, kResponse, kRule, kExtra };
constexpr const char* kGood[] = {
    "se.%.severity = high", "se.%.msg = Name", "se.%.user.response = DISPLAY:WithRaw",
    "se.%.response = quarantine-traffic",
    "se.%.quarantine.rule = quarantine-intruder-address, duration: 600"};

constexpr Fault kFaults[] = {
    {"unknown-marker", kSeverity, "se.%.@severty = high"},
    {"unknown-marker", kName, "se.%.@mgs = Name"},
    {"unknown-marker", kResponse, "se.%.@respons = quarantine-traffic"},
    {"unknown-marker", kExtra, "se.%.@colour = red"},
    {"key-with-more-text", kName, "se.%.msg@s = Name"},
    {"key-with-more-text", kUser, "se.%@.usr.quarantine.rule = quarantine-worm, duration: 1"},
    {"severity-unknown", kSeverity, "se.%.severity = @hgih"},
    {"severity-with-more-text", kSeverity, "se.%.severity = high@er"},
    {"empty-value", kSeverity, "@se.%.severity ="},
    {"empty-value", kName, "@se.%.msg ="},
    {"empty-value", kRule, "  @se.%.quarantine.rule = "},
    {"missing-equals", kExtra, "@se.%.msg Name"},
    {"missing-name", kExtra, "\t@= Name"},
    {"unknown-key", kExtra, "@s.%.msg = Name"},
    {"unknown-key", kExtra, "@Se.%.msg = Name"},
    {"wrong-file", kExtra, "@tarn.log.level = 3"},
    {"duplicate-key", kExtra, " @se.%.msg = Other"},
    {"carriage-return", kName, "se.%.msg = Name@\r"},
    {"carriage-return", kResponse, "se.%.response = quarantine-traffic@\r"},
    {"carriage-return", kExtra, "@\r"},
    {"id-refused", kExtra, "se.@0.msg = Name"},
    {"id-refused", kExtra, "se.@abc.msg = Name"},
    {"id-bent", kName, "se.%@x.msg = Name"},
    {"user-response-word", kUser, "se.%.user.response = DISPLAY:@WithRow"},
    {"user-response-word", kUser, "se.%.user.response = @LOGEVIDENC"},
    {"evidence-scope", kUser, "se.%.user.response = LOGEVIDENCE @Connection"},
    {"response-stopped", kResponse, "se.%.response = quarantine-traffic, @quarantine-trafic"},
    {"response-stopped", kResponse, "se.%.response = quarantine-traffic @quarantine-icmp-traffic"},
    {"quarantine-stopped", kRule,
     "se.%.quarantine.rule = @quarantine-intruder-adress, duration: 6"},
    {"quarantine-stopped", kRule, "se.%.quarantine.rule = quarantine-worm, duration: 60@s"},
    {"quarantine-stopped", kRule, "se.%.quarantine.rule = quarantine-worm, @duraton: 60"},
    {"quarantine-stopped", kRule, "se.%.quarantine.rule = quarantine-worm, duration @60"},
    {"words-erased", kRule,
     "se.%.quarantine.rule = quarantine-intruder-port, @quarantine-trojan, duration: 60"},
    {"trailing-comma", kRule, "se.%.quarantine.rule = quarantine-worm, duration: 60@,"},
    {"rule-never-applies", kRule, "se.%.quarantine.rule = @quarantine-issue, duration: 60"},
    {"duration-missing", kRule, "se.%.quarantine.rule = @quarantine-worm"},
    {"duration-zero", kRule, "se.%.quarantine.rule = @quarantine-worm, duration: 0"},
    {"number-out-of-range", kRule,
     "se.%.quarantine.rule = quarantine-worm, duration: 60, ratelimit: @4294967297"},
    {"number-out-of-range", kRule, "se.%.quarantine.rule = quarantine-worm, duration: @-1"},
    {"not-a-number", kRule, "se.%.quarantine.rule = quarantine-worm, ratelimit: @, duration: 60"},
    {"entry-without-name", kName, ""},
    {"entry-without-severity", kSeverity, ""},
    {"entry-without-response", kResponse, ""},
    {"rules-switched-off", kResponse, "se.%.response = @none"},
    {"response-without-rules", kRule, ""},
};

// A file under construction that remembers where its faults are.
class FaultyFile {
  public:
    void Add(const char* kind, std::string line) {
        ++m_line;
        const size_t mark = line.find('@');
        if (kind != nullptr && mark != std::string::npos) {
            line.erase(mark, 1);
            m_faults.emplace_back(kind, m_line, mark + 1);
        }
        m_text += line + "\n";
    }
    void Expect(const char* kind, uint32_t line, size_t column) {
        m_faults.emplace_back(kind, line, column);
    }
    [[nodiscard]] uint32_t NextLine() const { return m_line + 1; }
    [[nodiscard]] const std::string& Text() const { return m_text; }
    [[nodiscard]] std::vector<FoundPlace> Faults() const {
        std::vector<FoundPlace> sorted = m_faults;
        std::sort(sorted.begin(), sorted.end());
        return sorted;
    }

  private:
    std::string m_text;
    uint32_t m_line = 0;
    std::vector<FoundPlace> m_faults;
};

std::string WithId(std::string line, uint32_t id) {
    const size_t place = line.find('%');
    return place == std::string::npos ? line : line.replace(place, 1, std::to_string(id));
}

void AddFaultyEntry(FaultyFile& file, const Fault& fault, uint32_t id) {
    const bool isLeftOut = *fault.line == '\0';
    const bool leavesRules = isLeftOut && fault.key == kRule;
    if (isLeftOut && !leavesRules) {
        file.Expect(fault.kind, file.NextLine(), 4);
    }
    for (int key = kSeverity; key < kExtra; ++key) {
        if (key == fault.key) {
            if (!isLeftOut) {
                file.Add(fault.kind, WithId(fault.line, id));
            }
        } else if (leavesRules && key == kResponse) {
            file.Add(fault.kind, WithId("se.%.response = @quarantine-traffic", id));
        } else {
            file.Add(nullptr, WithId(kGood[key], id));
        }
    }
    if (fault.key == kExtra) {
        file.Add(fault.kind, WithId(fault.line, id));
    }
}

FaultyFile EventFileWithFaults(int rounds, int secondBlocks) {
    FaultyFile file;
    uint32_t id = 1000;
    for (int round = 0; round < rounds; ++round) {
        for (const Fault& fault : kFaults) {
            file.Add(nullptr, "# a comment");
            AddFaultyEntry(file, fault, ++id);
        }
    }
    for (int block = 0; block < secondBlocks; ++block) {
        file.Add("second-block", WithId("se.@%.msg = Again", 1001U + static_cast<uint32_t>(block)));
    }
    return file;
}

FaultyFile MainFileWithFaults() {
    FaultyFile file;
    file.Add("unknown-key", "@tarn.log.levl = 3");
    file.Add("unknown-key", "@TARN.log.level = 3");
    file.Add("number-trailing-text", "tarn.log.maxfiles = 5@ files");
    file.Add("not-a-number", "tarn.log.maxfilesize = @big");
    file.Add(nullptr, "tarn.log.level = 3");
    file.Add("duplicate-key", "@tarn.log.level = 4");
    file.Add("carriage-return", "tarn.log.file = /log@\r");
    file.Add("empty-value", "@tarn.evidencelog.maxfiles =");
    file.Add("wrong-file", "  @se.7.msg = Name");
    file.Add("missing-equals", "@tarn.engine.crm 2");
    file.Add("missing-name", "@= 2");
    file.Add("number-out-of-range", "tarn.evidencelog.file.timeout = @60");
    file.Add("number-out-of-range", "tarn.evidencelog.maxkbytes = @4294967297");
    file.Add("number-out-of-range", "tarn.engine.crm = @-1");
    file.Add(nullptr, "tarn.snort.cpu = 1");
    file.Add("same-cpu", "@tarn.engine.cpu = 0");
    return file;
}

// What stands in one list only.
std::vector<FoundPlace> Without(const std::vector<FoundPlace>& all,
                                const std::vector<FoundPlace>& others) {
    std::vector<FoundPlace> rest;
    std::set_difference(all.begin(), all.end(), others.begin(), others.end(),
                        std::back_inserter(rest));
    return rest;
}

void ExpectSame(const std::vector<FoundPlace>& expected, const std::vector<FoundPlace>& found) {
    EXPECT_THAT(Without(expected, found), testing::IsEmpty()) << "are not found";
    EXPECT_THAT(Without(found, expected), testing::IsEmpty()) << "are found and are no faults";
}

TEST_F(CheckSeededFaults, AreAllNamedAtTheirPlacesAndNothingElseIs) {
    const FaultyFile events = EventFileWithFaults(4, 5);
    const FaultyFile mainFile = MainFileWithFaults();
    Events(events.Text());
    Main(mainFile.Text());
    dir.Write("tarn.state", "tarn.evidencelog.maxkbytes = 20\n");
    EXPECT_EQ(1, Run());

    ExpectSame(events.Faults(), FoundIn("tarn_event.conf"));
    ExpectSame(mainFile.Faults(), FoundIn("tarn.conf"));
    EXPECT_EQ((std::vector<FoundPlace>{{"state-overruled", 1, 1}}), FoundIn("tarn.state"));

    std::set<std::string> names;
    for (const auto& finding : answer["findings"]) {
        names.insert(finding["name"].get<std::string>());
    }
    EXPECT_LE(200U, answer["findings"].size());
    EXPECT_LE(25U, names.size());
}

TEST_F(CheckCleanFiles, OfTheSampleAndTheExamplesHaveNoFinding) {
    options.strict = true;
    for (const char* folder : {"/samples/", "/packaging/examples/"}) {
        Main(ReadFile(SourceDir() + folder + "tarn.conf"));
        Events(ReadFile(SourceDir() + folder + "tarn_event.conf"));
        EXPECT_EQ(0, Run()) << folder << answer.dump(1);
        EXPECT_EQ(0U, answer["findings"].size()) << folder;
        EXPECT_LT(4U, answer["entryCount"].get<int>()) << folder;
    }
}

TEST_F(CheckCleanFiles, OfTenThousandEntriesHaveNoFinding) {
    std::string text;
    for (uint32_t id = 1; id <= 10000; ++id) {
        text += "# " + std::to_string(id) + "\n" + GoodEntry(id);
    }
    Events(text);
    options.strict = true;
    EXPECT_EQ(0, Run());
    EXPECT_EQ(0U, answer["findings"].size());
    EXPECT_EQ(10000, answer["entryCount"].get<int>());
    EXPECT_EQ(50000, answer["settings"].get<int>());
}

// One letter left out, put in, replaced or swapped with the next one.
std::string Slip(const std::string& word, std::mt19937& random) {
    std::string slipped = word;
    const size_t at = random() % (word.size() - 1);
    const char letter = static_cast<char>('a' + random() % 26);
    switch (random() % 4) {
        case 0:
            slipped.erase(at, 1);
            break;
        case 1:
            slipped.insert(at, 1, letter);
            break;
        case 2:
            slipped[at] = letter;
            break;
        default:
            std::swap(slipped[at], slipped[at + 1]);
            break;
    }
    return slipped;
}

TEST_F(CheckSuggestions, AreRightForNineteenInTwentySlipsOfOneLetter) {
    struct Place {
        std::vector<std::string> words;
        std::string before;  // of the word in its line
        std::string after;
        bool inMainFile = false;
    };
    const std::vector<Place> places = {
        {Config::SettingNames(), "", " = 7", true},
        {EventKeyNames(), "se.7.", " = quarantine-traffic"},
        {BlockRuleWords(), "se.7.quarantine.rule = quarantine-worm, ", ": 60"},
        {ResponseWords(), "se.7.response = ", ""},
        {SeverityWords(), "se.7.severity = ", ""},
    };
    std::mt19937 random(7);
    int slips = 0;
    int right = 0;
    std::string wrong;
    while (slips < 500) {
        const Place& place = places[random() % places.size()];
        const std::string& word = place.words[random() % place.words.size()];
        const std::string slipped = Slip(word, random);
        if (std::find(place.words.begin(), place.words.end(), slipped) != place.words.end()) {
            continue;  // the swap of two equal letters, or another word that is known
        }
        ++slips;
        (place.inMainFile ? Main(place.before + slipped + place.after + "\n") : Main(""));
        Events(place.inMainFile ? "" : place.before + slipped + place.after + "\n");
        (void)Run();
        const auto& findings = answer["findings"];
        const bool isRight =
            std::any_of(findings.begin(), findings.end(), [&](const auto& finding) {
                const auto& suggestion = finding["suggestion"];
                return suggestion == word || suggestion == "se.7." + word ||
                       suggestion == word + ": 600";
            });
        right += isRight ? 1 : 0;
        wrong += isRight ? "" : word + " as " + slipped + "\n";
    }
    EXPECT_LE(slips * 95 / 100, right) << wrong;
}

}  // namespace
