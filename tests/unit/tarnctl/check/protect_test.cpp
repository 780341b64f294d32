#include "tarnctl/check/protect.h"

#include <gmock/gmock.h>

#include <sstream>

#include "support/temp_dir.h"
#include "tarnctl/check/finding_kinds.h"
#include "tarnctl/common/standard_input.h"

namespace tarnctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint32_t kBoth = kResponseQuarantineTraffic | kResponseQuarantineIcmp;

LoadedEntry EntryWith(uint32_t blockFlags, const std::string& ruleText) {
    LoadedEntry entry;
    entry.id = 7;
    entry.ruleText = ruleText;
    entry.responseFlags = kBoth;
    entry.rules.push_back({{blockFlags, 600, 0}, {}, false, true});
    return entry;
}

std::vector<std::string> Reasons(const ProtectList& list, const LoadedEntry& entry) {
    Findings findings;
    list.Check({entry}, findings);
    std::vector<std::string> reasons;
    for (const Finding& finding : findings) {
        EXPECT_EQ(&kinds::kCanBlockProtected, finding.kind);
        reasons.push_back(finding.reason);
    }
    return reasons;
}

class ProtectListTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ("", list.Add("192.0.2.53", input)); }

    ProtectList list;
    std::ostringstream err;
    StandardInput input{err, "test"};
    TempDir dir;
};

TEST_F(ProtectListTest, NamesARuleThatCanMeanAnyAddress) {
    for (const char* text :
         {"", "12: a name", "alert tcp any any -> any 80 (sid:7;)",
          "alert tcp $EXTERNAL_NET any -> $HOME_NET 80 (sid:7;)",
          "alert tcp !10.0.0.1 any -> !10.0.0.1 80 (sid:7;)", "alert http (sid:7;)"}) {
        EXPECT_THAT(Reasons(list, EntryWith(kBlockIntruderAddress, text)),
                    ElementsAre("entry 7 can block 192.0.2.53"))
            << text;
    }
}

TEST_F(ProtectListTest, LeavesOutARuleWhoseHeaderNamesOtherAddresses) {
    const std::string rule =
        "alert tcp [198.51.100.0/24, 10.0.0.1] any -> 192.0.2.0/24 80 (sid:7;)";
    EXPECT_THAT(Reasons(list, EntryWith(kBlockIntruderAddress, rule)), IsEmpty());
    EXPECT_THAT(Reasons(list, EntryWith(kBlockIntruderSubnet, rule)), IsEmpty());
    EXPECT_EQ(1U, Reasons(list, EntryWith(kBlockVictimAddress, rule)).size());
    EXPECT_EQ(1U, Reasons(list, EntryWith(kBlockVictimSubnet, rule)).size());
}

TEST_F(ProtectListTest, TakesBothSidesOfARuleThatWorksBothWays) {
    const std::string rule = "alert tcp 198.51.100.1 any <> 192.0.2.53 80 (sid:7;)";
    EXPECT_EQ(1U, Reasons(list, EntryWith(kBlockIntruderAddress, rule)).size());
}

TEST_F(ProtectListTest, NamesARuleThatCutsOffEverybodyByAPort) {
    const std::string rule = "alert tcp 198.51.100.1 any -> 198.51.100.2 80 (sid:7;)";
    EXPECT_EQ(1U, Reasons(list, EntryWith(kBlockVictimPort, rule)).size());
    EXPECT_EQ(1U, Reasons(list, EntryWith(kBlockIcmpType, rule)).size());
}

TEST_F(ProtectListTest, LeavesOutWhatNeverBlocks) {
    LoadedEntry entry = EntryWith(kBlockIntruderAddress, "");
    entry.responseFlags = 0;
    EXPECT_THAT(Reasons(list, entry), IsEmpty());
    EXPECT_THAT(Reasons(list, EntryWith(0, "")), IsEmpty());
}

TEST_F(ProtectListTest, TakesNetworksAndAddressesOfBothFamilies) {
    EXPECT_EQ("", list.Add("2001:db8::/32", input));
    const std::string rule = "alert tcp 2001:db8:1::1 any -> 10.0.0.0/8 80 (sid:7;)";
    EXPECT_THAT(Reasons(list, EntryWith(kBlockIntruderAddress, rule)),
                ElementsAre("entry 7 can block 2001:db8::/32"));
}

TEST_F(ProtectListTest, ReadsAFile) {
    ProtectList fromFile;
    EXPECT_EQ(
        "", fromFile.Add(dir.Write("list", "# servers\n192.0.2.1 # first\n\n10.0.0.0/8\n"), input));
    EXPECT_THAT(Reasons(fromFile, EntryWith(kBlockIntruderAddress, "")),
                ElementsAre("entry 7 can block 192.0.2.1, 10.0.0.0/8"));
}

TEST_F(ProtectListTest, RefusesWhatIsNoAddress) {
    EXPECT_THAT(list.Add("192.0.2.300", input), HasSubstr("is no address, no network and no file"));
    EXPECT_THAT(list.Add("192.0.2.0/33", input), HasSubstr("is no address"));
    EXPECT_THAT(list.Add(dir.Path().string(), input), HasSubstr("is no address"));
    EXPECT_THAT(list.Add(dir.Write("list", "10.0.0.1\nhost\n"), input),
                HasSubstr("list:2: \"host\" is no address and no network"));
}

}  // namespace
}  // namespace tarnctl
