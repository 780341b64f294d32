#include "tarnctl/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "tarnctl/common/exit_status.h"
#include "unit/tarnctl/common/lines_of.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace tarnctl {
namespace {

constexpr const char* kCommands[] = {
    "check",      "crm",    "explain", "feed", "import", "messages",
#ifdef TARNCTL_WITH_PCAP
    "packetlog",
#endif
    "quarantine", "reload", "replay",  "ring", "secmgr", "selftest", "show", "status",
#ifdef TARNCTL_WITH_NCURSES
    "top",
#endif
};

class CommandLineTest : public testing::Test {
  protected:
    int Run(std::vector<std::string> words) {
        words.insert(words.begin(), "tarnctl");
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        return RunCommandLine(static_cast<int>(arguments.size()), arguments.data(), m_out, m_err);
    }

    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(CommandLineTest, ShowsHelpWithTheSubCommandsAndExamples) {
    EXPECT_EQ(kExitFine, Run({"--help"}));
    for (const char* const command : kCommands) {
        EXPECT_THAT(m_out.str(), HasSubstr("\n  " + std::string(command) + " "));
    }
    EXPECT_THAT(m_out.str(), HasSubstr("Examples:"));
}

TEST_F(CommandLineTest, ShowsTheSameHelpByWordAndByOption) {
    for (const char* const command : kCommands) {
        m_out.str("");
        EXPECT_EQ(kExitFine, Run({command, "--help"}));
        const std::string byOption = m_out.str();
        m_out.str("");
        EXPECT_EQ(kExitFine, Run({"help", command}));
        EXPECT_EQ(byOption, m_out.str());
        EXPECT_THAT(byOption, HasSubstr("\nusage: tarnctl " + std::string(command) + " "));
    }
    m_out.str("");
    EXPECT_EQ(kExitFine, Run({"help"}));
    const std::string byWord = m_out.str();
    m_out.str("");
    EXPECT_EQ(kExitFine, Run({"--help"}));
    EXPECT_EQ(byWord, m_out.str());
}

TEST_F(CommandLineTest, ShowsHelpInEightyColumnsWithExamplesFirst) {
    EXPECT_EQ(kExitFine, Run({"help"}));
    for (const char* const command : kCommands) {
        EXPECT_EQ(kExitFine, Run({"help", command}));
    }
    for (const std::string& line : LinesOf(m_out)) {
        EXPECT_GE(80U, line.size()) << line;
    }
    const std::string help = m_out.str();
    EXPECT_LT(help.find("\nExamples:\n"), help.find("\nusage:"));
    EXPECT_LT(help.find("\nusage:"), help.find("\nOptions:\n"));
}

TEST_F(CommandLineTest, NamesAnUnknownSubCommandWithTheNearestOne) {
    EXPECT_EQ(kExitUsage, Run({"crn"}));
    EXPECT_EQ(kExitUsage, Run({"help", "repaly"}));
    EXPECT_EQ(kExitUsage, Run({"xyzzy", "--json"}));
    EXPECT_EQ(
        "tarnctl: unknown sub-command 'crn', did you mean 'crm'?\n"
        "tarnctl: unknown sub-command 'repaly', did you mean 'replay'?\n"
        "tarnctl: unknown sub-command 'xyzzy'; see 'tarnctl help'\n",
        m_err.str());
}

TEST_F(CommandLineTest, NamesAnUnknownOptionWithTheNearestOne) {
    EXPECT_EQ(kExitUsage, Run({"crm", "--channel", "3", "--jsn"}));
    EXPECT_EQ(kExitUsage, Run({"replay", "--lop=3"}));
    EXPECT_EQ(kExitUsage, Run({"--verzion"}));
    EXPECT_EQ(kExitUsage, Run({"crm", "--xyzzy"}));
    EXPECT_EQ(kExitUsage, Run({"check", "-cfile", "-n", "-x", "-q"}));
    EXPECT_EQ(
        "tarnctl crm: unknown option '--jsn', did you mean '--json'? See 'tarnctl crm --help'\n"
        "tarnctl replay: unknown option '--lop', did you mean '--loop'? See 'tarnctl replay "
        "--help'\n"
        "tarnctl: unknown option '--verzion', did you mean '--version'? See 'tarnctl --help'\n"
        "tarnctl crm: unknown option '--xyzzy'; see 'tarnctl crm --help'\n"
        "tarnctl check: unknown option '-q'; see 'tarnctl check --help'\n",
        m_err.str());
}

TEST_F(CommandLineTest, NamesAnUnknownOptionAfterAFlag) {
    EXPECT_EQ(kExitUsage, Run({"crm", "--json", "--xyzzy"}));
    EXPECT_EQ("tarnctl crm: unknown option '--xyzzy'; see 'tarnctl crm --help'\n", m_err.str());
}

// The value of an option may look like an option.
TEST_F(CommandLineTest, NamesTheFaultThatComesFirstAndNoOptionsValue) {
    EXPECT_EQ(kExitUsage, Run({"replay", "--fifo", "--strange", "f", "g"}));
    EXPECT_EQ("tarnctl replay: unexpected word 'g'; see 'tarnctl replay --help'\n", m_err.str());
}

TEST_F(CommandLineTest, RefusesAValueForAFlag) {
    EXPECT_EQ(kExitUsage, Run({"crm", "--json=no"}));
    EXPECT_EQ(kExitUsage, Run({"check", "--strict=0"}));
    EXPECT_EQ("", m_out.str());
    EXPECT_EQ(
        "tarnctl crm: option '--json' takes no value; see 'tarnctl crm --help'\n"
        "tarnctl check: option '--strict' takes no value; see 'tarnctl check --help'\n",
        m_err.str());
}

TEST_F(CommandLineTest, NamesAnOutputThatTakesNothing) {
    m_out.setstate(std::ios::badbit);
    EXPECT_EQ(kExitFailure, Run({"help"}));
    EXPECT_EQ("tarnctl: standard output: Input/output error\n", m_err.str());
}

TEST_F(CommandLineTest, ShowsTheVersion) {
    EXPECT_EQ(kExitFine, Run({"--version"}));
    EXPECT_THAT(m_out.str(), StartsWith("tarnctl 1."));
}

TEST_F(CommandLineTest, ShowsExamplesInTheHelpOfEachSubCommand) {
    for (const char* const command : kCommands) {
        m_out.str("");
        EXPECT_EQ(kExitFine, Run({command, "--help"}));
        EXPECT_THAT(m_out.str(), HasSubstr("Examples:\n  tarnctl " + std::string(command)));
    }
}

class WrongCommandLine : public CommandLineTest,
                         public testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(WrongCommandLine, IsAUsageError) {
    EXPECT_EQ(kExitUsage, Run(GetParam()));
    EXPECT_EQ("", m_out.str());
    EXPECT_NE("", m_err.str());
}

using Words = std::vector<std::string>;
INSTANTIATE_TEST_SUITE_P(
    Kinds, WrongCommandLine,
    testing::Values(Words{}, Words{"play"}, Words{"crm", "--none"}, Words{"crm", "--channel", "-1"},
                    Words{"crm", "--color", "blue"}, Words{"help", "crm", "crm"},
                    Words{"crm", "--count", "0"}, Words{"crm", "--timeout", "soon"},
                    Words{"messages", "--count", "0"}, Words{"messages", "f"}, Words{"replay"},
                    Words{"replay", "f", "--rate", "0"}, Words{"replay", "f", "--rate", "fast"},
                    Words{"replay", "f", "--rate", "-5"}, Words{"replay", "f", "--loop", "0"},
                    Words{"replay", "f", "g"}, Words{"crm", "replay", "f"},
                    Words{"secmgr", "--answer", "15x"}, Words{"secmgr", "--fail-first", "0"},
                    Words{"secmgr", "--flush"}, Words{"secmgr", "--never", "10.0.0.1"},
                    Words{"secmgr", "--nft", "--never", "10.0.0.1/8"}));

TEST_F(CommandLineTest, RunsTheSubCommandWithItsOptions) {
    EXPECT_EQ(kExitFailure, Run({"replay", "--rate", "max", "--fifo", "/none/fifo", "/none/file"}));
    EXPECT_EQ(
        "tarnctl replay: /none/file: No such file or directory; make the directory "
        "/none first\n",
        m_err.str());
}

}  // namespace
}  // namespace tarnctl
