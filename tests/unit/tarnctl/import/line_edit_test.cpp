#include "tarnctl/import/line_edit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace tarnctl {
namespace {

std::vector<std::string_view> LinesOf(const std::string& text) {
    std::vector<std::string_view> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        lines.push_back(std::string_view(text).substr(at, end - at));
        at = end;
    }
    return lines;
}

LineEdit Edit(const std::string& text, const std::vector<size_t>& removed,
              const std::string& added) {
    LineEdit edit{LinesOf(text), std::vector<bool>(LinesOf(text).size(), false), added};
    for (const size_t line : removed) {
        edit.remove[line] = true;
    }
    return edit;
}

TEST(LineEdit, ChangesNothingWithoutLinesThatComeOrGo) {
    const std::string text = "a\nb";
    EXPECT_TRUE(Edit(text, {}, "").ChangesNothing());
    EXPECT_EQ("a\nb", Edit(text, {}, "").Apply());
    EXPECT_EQ("", Edit(text, {}, "").Diff("a", "b"));
    EXPECT_FALSE(Edit(text, {}, "c\n").ChangesNothing());
    EXPECT_FALSE(Edit(text, {1}, "").ChangesNothing());
}

TEST(LineEdit, GivesTheLastLineItsEndWhenOthersFollow) {
    const std::string text = "a\nb";
    EXPECT_EQ("a\nb\nc\n", Edit(text, {}, "c\n").Apply());
    EXPECT_EQ("a\nc\n", Edit(text, {1}, "c\n").Apply());
    EXPECT_EQ("--- old\n+++ new\n@@ -1,2 +1,3 @@\n a\n-b\n\\ No newline at end of file\n+b\n+c\n",
              Edit(text, {}, "c\n").Diff("old", "new"));
}

TEST(LineEdit, ShowsThreeLinesAroundAChangeAndJoinsChangesThatMeet) {
    const std::string text = "1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n11\n12\n";
    EXPECT_EQ("--- o\n+++ n\n@@ -2,7 +2,6 @@\n 2\n 3\n 4\n-5\n 6\n 7\n 8\n",
              Edit(text, {4}, "").Diff("o", "n"));
    EXPECT_EQ(
        "--- o\n+++ n\n@@ -1,4 +1,3 @@\n-1\n 2\n 3\n 4\n@@ -10,3 +9,4 @@\n 10\n 11\n 12\n+x\n",
        Edit(text, {0}, "x\n").Diff("o", "n"));
    EXPECT_EQ("--- o\n+++ n\n@@ -1,11 +1,9 @@\n-1\n 2\n 3\n 4\n 5\n 6\n 7\n-8\n 9\n 10\n 11\n",
              Edit(text, {0, 7}, "").Diff("o", "n"));
}

TEST(LineEdit, ShowsANewFile) {
    const std::string none;
    EXPECT_EQ("--- /dev/null\n+++ n\n@@ -0,0 +1 @@\n+x\n",
              Edit(none, {}, "x\n").Diff("/dev/null", "n"));
}

TEST(LineEdit, IsTakenByPatchInAnyShape) {
    ASSERT_EQ(0, std::system("command -v patch >/dev/null")) << "the package patch is missing";
    const TempDir dir;
    std::mt19937 random(7);
    for (int round = 0; round < 60; ++round) {
        std::string text;
        const size_t count = random() % 40 + 1;
        for (size_t at = 0; at < count; ++at) {
            text += "line " + std::to_string(random() % 5) + "\n";
        }
        if (random() % 3 == 0) {
            text.pop_back();
        }
        std::vector<size_t> removed;
        for (size_t at = 0; at < count; ++at) {
            if (random() % 6 == 0) {
                removed.push_back(at);
            }
        }
        const LineEdit edit = Edit(text, removed, random() % 2 == 0 ? "new\nlines\n" : "");
        if (edit.ChangesNothing() || edit.Apply().empty()) {
            continue;
        }
        const std::string file = dir.Write("file", text);
        const std::string diff = dir.Write("diff", edit.Diff("file", "file"));
        ASSERT_EQ(0, std::system(("patch --quiet --fuzz=0 " + file + " < " + diff).c_str()))
            << text << dir.Read("diff");
        EXPECT_EQ(edit.Apply(), dir.Read("file")) << text << dir.Read("diff");
    }
}

}  // namespace
}  // namespace tarnctl
