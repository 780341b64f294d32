#include "tarnctl/common/display.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

namespace tarnctl {
namespace {

TEST(CutLine, KeepsWhatFitsAndMarksWhatIsCut) {
    EXPECT_EQ("a line", CutToWidth("a line", 0));
    EXPECT_EQ("a line", CutToWidth("a line", 6));
    EXPECT_EQ("a li>", CutToWidth("a line", 5));
    EXPECT_EQ(">", CutToWidth("a line", 1));
}

TEST(CutLine, CountsCharactersAndNotBytes) {
    EXPECT_EQ("\xC3\xA4\xC3\xA4", CutToWidth("\xC3\xA4\xC3\xA4", 2));
    EXPECT_EQ("\xC3\xA4>", CutToWidth("\xC3\xA4\xC3\xA4\xC3\xA4", 2));
}

TEST(CutLine, GivesColourNoRoomAndEndsIt) {
    const std::string red = Painted("blocked", Color::kRed, true);
    EXPECT_EQ("\x1b[31mblocked\x1b[0m", red);
    EXPECT_EQ(red, CutToWidth(red, 7));
    EXPECT_EQ("\x1b[31mblo\x1b[0m>", CutToWidth(red, 4));
    EXPECT_EQ(red + ">", CutToWidth(red + " by rule", 8));
}

TEST(PaintedText, IsPlainWithoutColour) {
    EXPECT_EQ("blocked", Painted("blocked", Color::kRed, false));
    EXPECT_EQ("blocked", Painted("blocked", Color::kNone, true));
    EXPECT_EQ("", Painted("", Color::kRed, true));
}

class Line : public testing::Test {
  protected:
    const std::array<Cell, 4> m_cells = {Cell{"one", Color::kNone, 5},
                                         Cell{"two", Color::kGreen, 3}, Cell{"", Color::kNone, 2},
                                         Cell{"four", Color::kNone, 9}};
    Display m_display;
};

TEST_F(Line, HasTwoBlanksBetweenCellsWhereThereIsNoTerminal) {
    EXPECT_EQ("one  two  four", LineOf(m_cells, m_display));
}

TEST_F(Line, HasColumnsOnATerminal) {
    m_display.isTerminal = true;
    m_display.width = 80;
    EXPECT_EQ("one    two      four", LineOf(m_cells, m_display));
    m_display.color = true;
    EXPECT_EQ("one    \x1b[32mtwo\x1b[0m      four", LineOf(m_cells, m_display));
}

TEST_F(Line, IsCutToTheTerminalUnlessItIsToBeWide) {
    m_display.isTerminal = true;
    m_display.width = 9;
    EXPECT_EQ("one    t>", LineOf(m_cells, m_display));
    m_display.wide = true;
    EXPECT_EQ("one    two      four", LineOf(m_cells, m_display));
}

class ColorChoice : public testing::Test {
  protected:
    ~ColorChoice() override { unsetenv("NO_COLOR"); }
    Display m_display;
};

// The standard output of a test is no terminal.
TEST_F(ColorChoice, FollowsTheOptionAndTheTerminal) {
    m_display.Resolve();
    EXPECT_FALSE(m_display.color);
    m_display.colorChoice = "always";
    m_display.Resolve();
    EXPECT_TRUE(m_display.color);
    EXPECT_TRUE(m_display.errorColor);
    m_display.colorChoice = "never";
    m_display.Resolve();
    EXPECT_FALSE(m_display.color);
}

TEST_F(ColorChoice, HasTheOptionBeforeTheEnvironment) {
    setenv("NO_COLOR", "1", 1);
    m_display.colorChoice = "always";
    m_display.Resolve();
    EXPECT_TRUE(m_display.color);
}

TEST(FoldedToWidth, DividesLinesAtBlanksAndIndentsWhatFollows) {
    EXPECT_EQ("one two\n  three\n  four\nfive\n",
              FoldedToWidth("one two three four\nfive\n", 8, 2));
    EXPECT_EQ("one two three\n", FoldedToWidth("one two three", 0, 2));
    EXPECT_EQ("one two\n", FoldedToWidth("one two", 7, 2));
    EXPECT_EQ("one\n  two\n", FoldedToWidth("one two", 6, 2));
    EXPECT_EQ("\n\n", FoldedToWidth("\n\n", 6, 2));
}

TEST(FoldedToWidth, KeepsAWordThatIsLongerThanALineWhole) {
    EXPECT_EQ("a\n  longerthanthat\n  b\n", FoldedToWidth("a longerthanthat b", 8, 2));
    EXPECT_EQ("longerthanthat\n  b\n", FoldedToWidth("longerthanthat b", 8, 2));
    EXPECT_EQ("longerthanthat \n", FoldedToWidth("longerthanthat \n", 8, 2));
}

TEST(FoldedToWidth, KeepsTheIndentOfTheFirstLineAndCountsNoSequences) {
    EXPECT_EQ("    one\n   two\n", FoldedToWidth("    one two", 10, 3));
    EXPECT_EQ("\x1b[31mone\x1b[0m two\n", FoldedToWidth("\x1b[31mone\x1b[0m two", 7, 2));
}

TEST(FoldedToWidth, IndentsLessWhereThereIsLittleRoom) {
    EXPECT_EQ("one\n  two\n", FoldedToWidth("one two", 5, 4));
}

}  // namespace
}  // namespace tarnctl
