#include "logging/log_at.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>

#include "support/levelled_log.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(LogAt, NamesTheFirstThreeLevels) {
    const LogCapture log;
    LogAt(1, 10, "f", "number %d", 1);
    LogAt(2, 10, "f", "number %d", 2);
    LogAt(3, 10, "f", "number %d", 3);
    LogAt(4, 10, "f", "number %d", 4);
    EXPECT_THAT(log.Messages(),
                ElementsAre("[ERROR]number 1", "[WARNING]number 2", "[INFO]number 3", "number 4"));
}

TEST(LogAt, ShowsTheSourcePositionAtLevelsFiveAndSix) {
    const LogCapture log(6);
    LogAt(5, 186, "static void Config::Save()", "text");
    LogAt(6, 186, "static void Config::Save()", "text");
    EXPECT_THAT(log.Messages(), ElementsAre("<static void Config::Save():186>text",
                                            "<static void Config::Save():186>text"));
}

TEST(LogAt, LogsAtTheLevelThatItIsGiven) {
    EXPECT_THAT(
        LevelledMessages([] {
            for (const int level : {1, 2, 3, 4, 5}) {
                LogAt(level, 10, "f", "text");
            }
        }),
        ElementsAre("1 [ERROR]text", "2 [WARNING]text", "3 [INFO]text", "4 text", "5 <f:10>text"));
}

TEST(LogAt, IsSilentAboveTheLevel) {
    const LogCapture log(2);
    LogAt(3, 10, "f", "text");
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST(LogAt, KeepsReadingTheTextAsAFormatOnceMore) {
    const LogCapture log;
    LogAt(4, 10, "f", "%s", "100%% of %s %");
    EXPECT_THAT(log.Messages(), ElementsAre("100% of %s %"));
}

TEST(LogAt, MarksATextThatIsCut) {
    const LogCapture log;
    LogAt(1, 10, "f", "%s", std::string(3000, 'x').c_str());
    ASSERT_EQ(1U, log.Messages().size());
    EXPECT_TRUE(log.Messages()[0].starts_with("[ERROR]xxx"));
}

// The bytes of a buffer of `size`, and of four more that are to stay as they are.
std::string Bounded(unsigned size, const std::string& prefix, const std::string& text) {
    std::string out(size + 4, '#');
    FormatBounded(out.data(), size, prefix, "%s", text.c_str());
    return out;
}

TEST(FormatBounded, JoinsPrefixAndTextAndClearsTheRest) {
    EXPECT_EQ(std::string("[I]abc\0\0\0\0####", 14), Bounded(10, "[I]", "abc"));
}

TEST(FormatBounded, TakesATextThatJustFits) {
    EXPECT_EQ(std::string("[I]abc\0####", 11), Bounded(7, "[I]", "abc"));
}

TEST(FormatBounded, CutsATextThatDoesNotFitAndMarksIt) {
    EXPECT_EQ(std::string("[I]a>>>\0####", 12), Bounded(8, "[I]", "abcde"));
}

TEST(FormatBounded, CutsAPrefixAsWell) {
    EXPECT_EQ(std::string("pr>>>\0####", 10), Bounded(6, "prefix", "text"));
}

TEST(FormatBounded, StaysInABufferTooSmallForTheMark) {
    EXPECT_EQ(std::string(">>>\0####", 8), Bounded(4, "", "abcd"));
    EXPECT_EQ(std::string(">>\0####", 7), Bounded(3, "", "abcd"));
    EXPECT_EQ(std::string("\0####", 5), Bounded(1, "", "abcd"));
    EXPECT_EQ("####", Bounded(0, "", "abcd"));
}

TEST(FormatBounded, FormatsAtMost2047Characters) {
    const std::string out = Bounded(4096, "", std::string(3000, 'x'));
    EXPECT_EQ(2047, std::count(out.begin(), out.end(), 'x'));
    EXPECT_EQ(std::string::npos, out.find('>'));
}

}  // namespace
