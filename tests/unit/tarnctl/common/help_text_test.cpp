#include "tarnctl/common/help_text.h"

#include <gtest/gtest.h>

namespace tarnctl {
namespace {

TEST(WrappedText, BreaksAtTheLastBlankThatFits) {
    EXPECT_EQ("one two\nthree\n", Wrapped("one two three", 8, 0));
    EXPECT_EQ("one two\nthree\n", Wrapped("one two three", 7, 0));
    EXPECT_EQ("one\ntwo\nthree\n", Wrapped("one two three", 6, 0));
    EXPECT_EQ("  one\n  two\n", Wrapped("one two", 8, 2));
}

TEST(WrappedText, KeepsItsLineEndsAndLongWords) {
    EXPECT_EQ("one\n\ntwo\n", Wrapped("one\n\ntwo", 80, 0));
    EXPECT_EQ("a\nlong-word\nb\n", Wrapped("a long-word b", 4, 0));
    EXPECT_EQ("  indented\nline\n", Wrapped("  indented line", 11, 0));
}

class Help : public testing::Test {
  protected:
    Help() {
        m_app.set_help_flag("-h,--help", "Show this help and end");
        m_app.add_option("--size", m_size, "How large it is")->type_name("N")->required();
        m_app.add_option("FILE", m_file, "What to read");
        m_app.footer(
            "A note that is\nfilled anew.\n\nExamples:\n  sees x  look\n  sees --size 3 y");
    }

    CLI::App m_app{"Sees things", "sees"};
    int m_size = 4;
    std::string m_file;
};

TEST_F(Help, HasItsPartsInOrder) {
    EXPECT_EQ(
        "Sees things\n"
        "\n"
        "Examples:\n"
        "  sees x           look\n"
        "  sees --size 3 y\n"
        "\n"
        "usage: tarnctl sees --size N [OPTION]... [FILE]\n"
        "\n"
        "Arguments:\n"
        "  FILE  What to read\n"
        "\n"
        "Options:\n"
        "  -h,--help  Show this help and end\n"
        "  --size N   How large it is (required)\n"
        "\n"
        "A note that is filled anew.\n",
        HelpText(m_app, "tarnctl sees", 80));
}

TEST_F(Help, PutsMeaningsBelowWhereItIsNarrow) {
    const std::string help = HelpText(m_app, "tarnctl sees", 30);
    EXPECT_NE(std::string::npos,
              help.find("  --size N\n      How large it is\n      (required)\n"));
    EXPECT_NE(std::string::npos, help.find("  sees x\n      look\n"));
}

}  // namespace
}  // namespace tarnctl
