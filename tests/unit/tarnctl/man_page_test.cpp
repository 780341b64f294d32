// The man pages have every option of the option tables, and no other.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/source_dir.h"
#include "tarnctl/sub_commands.h"

namespace tarnctl {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

const fs::path kTree = SourceDir();

std::string TextOf(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Options as they are typed: "--json", "-c".
using Options = std::set<std::string>;

// "Fl c , Fl -config Ar file" names "-c" and "--config"; the text without "Fl" names none.
void AddFlags(const std::string& line, Options& options) {
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        if (word == "Fl" && words >> word) {
            options.insert("-" + word);
        }
    }
}

// The options that are described in the section of a sub-command.
Options DescribedIn(const std::string& page, const std::string& command) {
    Options options;
    std::istringstream lines(page);
    bool isInside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(".Ss ") || line.starts_with(".Sh ")) {
            isInside = line == ".Ss tarnctl " + command;
        } else if (isInside && line.starts_with(".It Fl ")) {
            AddFlags(line, options);
        }
    }
    return options;
}

class ManPage : public testing::Test {
  protected:
    ManPage() {
        for (const auto& command : m_commands) {
            m_added.push_back(command->Add(m_app));
        }
    }

    // All options of a sub-command but those that every one has and those that are no one's to
    // give.
    static Options OptionsOf(const CLI::App& command) {
        Options options;
        for (const CLI::Option* const option : command.get_options({})) {
            if (option->get_group().empty()) {
                continue;
            }
            for (const std::string& name : option->get_lnames()) {
                options.insert("--" + name);
            }
            for (const std::string& name : option->get_snames()) {
                options.insert("-" + name);
            }
        }
        for (const char* const common : {"-h", "--help", "--color", "--wide"}) {
            options.erase(common);
        }
        return options;
    }

    const std::string m_page = TextOf(kTree / "docs/man/tarnctl.1");
    const std::vector<std::unique_ptr<SubCommand>> m_commands = MakeSubCommands();
    CLI::App m_app;
    std::vector<const CLI::App*> m_added;
};

TEST_F(ManPage, DescribesEachOptionOfEachSubCommandAndNoOther) {
    for (const CLI::App* const command : m_added) {
        EXPECT_THAT(m_page, HasSubstr("\n.Ss tarnctl " + command->get_name() + "\n"));
        EXPECT_EQ(OptionsOf(*command), DescribedIn(m_page, command->get_name()))
            << command->get_name();
    }
    EXPECT_THAT(m_page, HasSubstr("\n.Ss tarnctl completion\n"));
}

TEST_F(ManPage, HasEachSubCommandInItsSynopsis) {
    const std::string synopsis = m_page.substr(0, m_page.find("\n.Sh DESCRIPTION\n"));
    for (const CLI::App* const command : m_added) {
        EXPECT_THAT(synopsis, HasSubstr("\n.Nm\n.Cm " + command->get_name() + "\n"));
    }
    for (const char* const word : {"help", "completion"}) {
        EXPECT_THAT(synopsis, HasSubstr(std::string("\n.Nm\n.Cm ") + word + "\n"));
    }
}

TEST_F(ManPage, OfASubCommandNamesItsOptions) {
    for (const CLI::App* const command : m_added) {
        const fs::path path = kTree / ("docs/man/tarnctl-" + command->get_name() + ".1");
        if (!fs::exists(path)) {
            continue;
        }
        EXPECT_THAT(m_page, HasSubstr(".Xr tarnctl-" + command->get_name() + " 1"));
        // Both kinds of page: ".It Fl -json" of one, ".B \-\-json" of the other.
        std::string page = TextOf(path);
        std::erase(page, '\\');
        Options options;
        std::istringstream lines(page);
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with(".It Fl ")) {
                AddFlags(line, options);
            } else if ((line.starts_with(".B -") || line.starts_with(".BI -"))) {
                std::replace_if(
                    line.begin(), line.end(),
                    [](char letter) { return letter == '"' || letter == ','; }, ' ');
                std::istringstream words(line);
                for (std::string word; words >> word;) {
                    word = word.starts_with("fP") ? word.substr(2) : word;
                    if (word.starts_with('-')) {
                        options.insert(word);
                    }
                }
            }
        }
        Options wanted = OptionsOf(*command);
        wanted.insert("--color");
        if (command->get_option_no_throw("--wide") != nullptr) {
            wanted.insert("--wide");
        }
        EXPECT_EQ(wanted, options) << path;
    }
}

TEST_F(ManPage, NamesTheSchemaOfEachJson) {
    for (const CLI::App* const command : m_added) {
        if (command->get_option_no_throw("--json") == nullptr) {
            continue;
        }
        const std::string name = command->get_name() + ".json";
        EXPECT_TRUE(fs::exists(kTree / "docs/schemas" / name)) << name;
        EXPECT_THAT(m_page, HasSubstr("\n.Pa " + name + " "));
    }
}

}  // namespace
}  // namespace tarnctl
