#include "tarnctl/feed/bookmark.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "support/temp_dir.h"
#include "tarnctl/feed/reject_file.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

// No file can become longer than this while it lives, as on a full disk.
class FileLimit {
  public:
    explicit FileLimit(rlim_t bytes) {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_former);
        const rlimit limit = {bytes, m_former.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileLimit() {
        setrlimit(RLIMIT_FSIZE, &m_former);
        signal(SIGXFSZ, SIG_DFL);
    }
    FileLimit(const FileLimit&) = delete;
    FileLimit& operator=(const FileLimit&) = delete;

  private:
    rlimit m_former = {};
};

Bookmark Example() {
    Bookmark bookmark;
    bookmark.spool = SpoolPlace{"u2.1700000000", 1, UINT64_MAX, 3, "00ff"};
    bookmark.refeed = SpoolPlace{"b.rejects.refeed", 4, 5, 6, ""};
    bookmark.ring = RingMark{7, 8, 9};
    bookmark.rejects = RejectsPlace{10, 11, 12};
    bookmark.isSettled = false;
    return bookmark;
}

class BookmarkTest : public testing::Test {
  protected:
    const TempDir m_dir;
    const std::string m_path = m_dir.File("bookmark");
};

TEST_F(BookmarkTest, ComesBackAsItWas) {
    for (Bookmark bookmark : {Example(), Bookmark()}) {
        ASSERT_EQ("", SaveBookmark(m_path, bookmark));
        Bookmark loaded = Example();
        ASSERT_EQ("", LoadBookmark(m_path, loaded));
        EXPECT_EQ(bookmark, loaded);
    }
    Bookmark odd = Example();
    odd.spool->name = "u\xFF\n2";
    ASSERT_EQ("", SaveBookmark(m_path, odd));
    Bookmark loaded;
    ASSERT_EQ("", LoadBookmark(m_path, loaded));
    EXPECT_EQ(odd, loaded);
    EXPECT_FALSE(std::filesystem::exists(m_path + ".new"));
}

TEST_F(BookmarkTest, IsAtTheBeginningWithoutAFile) {
    Bookmark loaded = Example();
    EXPECT_EQ("", LoadBookmark(m_path, loaded));
    EXPECT_EQ(Bookmark(), loaded);
    EXPECT_TRUE(loaded.isSettled);
}

TEST_F(BookmarkTest, AFullDiskIsNamedAndTheOldOneStays) {
    ASSERT_EQ("", SaveBookmark(m_path, Example()));
    {
        const FileLimit full(10);
        EXPECT_THAT(SaveBookmark(m_path, Bookmark()), HasSubstr(m_path + ": File too large"));
    }
    Bookmark loaded;
    ASSERT_EQ("", LoadBookmark(m_path, loaded));
    EXPECT_EQ(Example(), loaded);
    EXPECT_FALSE(std::filesystem::exists(m_path + ".new"));
}

TEST_F(BookmarkTest, WhatACrashLeftBesideItIsReplaced) {
    m_dir.Write("bookmark.new", "half");
    ASSERT_EQ("", SaveBookmark(m_path, Example()));
    Bookmark loaded;
    ASSERT_EQ("", LoadBookmark(m_path, loaded));
    EXPECT_EQ(Example(), loaded);
}

TEST_F(BookmarkTest, AFolderThatIsMissingIsNamed) {
    EXPECT_THAT(SaveBookmark(m_dir.File("none/bookmark"), Bookmark()),
                HasSubstr("make the directory " + m_dir.File("none") + " first"));
}

TEST_F(BookmarkTest, WhatIsNoBookmarkIsRefused) {
    for (const char* const text : {"", "{", "[]", "7", R"({"version":2})", R"({"version":1})",
                                   R"({"version":1,"spool":7,"refeed":null,"ring":null,)"
                                   R"("rejects":null,"settled":true})"}) {
        m_dir.Write("bookmark", text);
        Bookmark loaded = Example();
        EXPECT_THAT(LoadBookmark(m_path, loaded), HasSubstr("not a bookmark")) << text;
        EXPECT_EQ(Bookmark(), loaded) << text;
    }
}

class RejectFileTest : public testing::Test {
  protected:
    static std::vector<std::byte> Record(size_t length) {
        return std::vector<std::byte>(length, std::byte{7});
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.File("rejects");
    RejectFile m_file{m_path};
};

TEST_F(RejectFileTest, GrowsByWholeRecordsAndKnowsItsPlace) {
    EXPECT_FALSE(m_file.Place().has_value());
    ASSERT_EQ("", m_file.Open());
    ASSERT_EQ("", m_file.Add(Record(10)));
    ASSERT_EQ("", m_file.Add(Record(5)));
    ASSERT_EQ("", m_file.Sync());
    EXPECT_EQ(15U, m_file.Place()->size);
    EXPECT_EQ(std::string(15, '\x07'), m_dir.Read("rejects"));
}

TEST_F(RejectFileTest, AFullDiskLeavesNoHalfRecord) {
    ASSERT_EQ("", m_file.Open());
    ASSERT_EQ("", m_file.Add(Record(10)));
    {
        const FileLimit full(12);
        EXPECT_THAT(m_file.Add(Record(5)), HasSubstr(m_path));
    }
    EXPECT_EQ(10U, m_file.Place()->size);
    ASSERT_EQ("", m_file.Add(Record(5)));
    EXPECT_EQ(15U, m_file.Place()->size);
}

TEST_F(RejectFileTest, WhatCameAfterTheBookmarkIsCutOff) {
    ASSERT_EQ("", m_file.Open());
    ASSERT_EQ("", m_file.Add(Record(10)));
    const auto place = m_file.Place();
    ASSERT_EQ("", m_file.Add(Record(5)));
    m_file.Close();
    EXPECT_EQ("", m_file.CutTo(std::nullopt));
    EXPECT_EQ(15U, m_file.Place()->size);
    EXPECT_EQ("", m_file.CutTo(RejectsPlace{place->device, place->inode + 1, 10}));
    EXPECT_EQ(15U, m_file.Place()->size);
    EXPECT_EQ("", m_file.CutTo(RejectsPlace{place->device, place->inode, 20}));
    EXPECT_EQ(15U, m_file.Place()->size);
    EXPECT_EQ("", m_file.CutTo(place));
    EXPECT_EQ(10U, m_file.Place()->size);
}

}  // namespace
}  // namespace tarnctl
