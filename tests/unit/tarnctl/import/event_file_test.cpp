#include "tarnctl/import/event_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "config/config.h"
#include "config/event_rule_table.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace tarnctl {
namespace {

// The text without the lines that go when only these entries stay.
std::string Pruned(const std::string& text, const std::set<uint32_t>& wanted) {
    const EventFile file(text);
    const std::vector<bool> remove = file.LinesToRemove(wanted);
    std::string rest;
    for (size_t at = 0; at < remove.size(); ++at) {
        rest += remove[at] ? "" : file.Lines()[at];
    }
    return rest;
}

TEST(EventFile, KnowsTheEntriesThatTheDaemonHasInForce) {
    const EventFile file(
        "# se.1.msg = a comment\n"
        "se.2.msg = two\r\n"
        "  se.3.severity\t= high\n"
        "se.4.severity = urgent\n"
        "se.5.mesage = slip\n"
        "se.6.msg\n"
        "se.0.msg = none\n"
        "tarn.log.level = 5\n"
        "se.7.quarantine.rule =\n"
        "se.4294967295.msg = last");
    EXPECT_THAT(file.Entries(), ElementsAre(2U, 3U, 7U, 4294967295U));
    EXPECT_TRUE(file.HasEntry(7));
    EXPECT_FALSE(file.HasEntry(5));
    EXPECT_EQ(10U, file.Lines().size());
}

TEST(EventFile, StartsAfresh) {
    const EventFile first("se.7.msg = a\nse.8.msg = b\nse.7.msg = stays aside\n");
    EXPECT_THAT(first.Entries(), ElementsAre(7U, 8U));
    const EventFile second("se.9.msg = c\n");
    EXPECT_THAT(second.Entries(), ElementsAre(9U));
    EXPECT_THAT(EventFile("").Entries(), IsEmpty());
}

TEST(EventFile, RemovesTheLinesOfEntriesThatNobodyWants) {
    EXPECT_EQ("# head\nse.1.msg = a\nse.3.msg = c\n",
              Pruned("# head\nse.1.msg = a\nse.2.msg = b\nse.2.response = none\nse.3.msg = c\n"
                     "se.2.msg = again\n",
                     {1, 3}));
}

TEST(EventFile, RemovesAnEntryWithTheCommentOfItsImportAndTheEmptyLine) {
    const std::string one = "\n# tarnctl import: 1:1 at a:1\nse.1.msg = a\n";
    const std::string two =
        "\n# tarnctl import: 1:2 at a:1\n# tarnctl import: 3:2 at a:1\nse.2.msg = b\n";
    EXPECT_EQ("# head\n" + one, Pruned("# head\n" + one + two, {1}));
    EXPECT_EQ("# head\n" + two, Pruned("# head\n" + one + two, {2}));
    EXPECT_EQ("# head\n", Pruned("# head\n" + one + two, {}));
}

TEST(EventFile, KeepsTheCommentsOfOthers) {
    EXPECT_EQ("# mine\n\n# yours\nse.2.msg = b\n",
              Pruned("# mine\nse.1.msg = a\n\n# yours\nse.2.msg = b\n", {2}));
    EXPECT_EQ("\nse.2.msg = b\n", Pruned("\nse.1.msg = a\nse.2.msg = b\n", {2}));
}

}  // namespace
}  // namespace tarnctl
