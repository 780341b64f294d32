#include "tarnctl/common/atomic_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <utility>

#include "support/temp_dir.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

class AtomicFileTest : public testing::TestWithParam<Durability> {
  protected:
    static ino_t InodeOf(const std::string& path) {
        struct stat status = {};
        return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
    }
    bool HasRest() const { return std::filesystem::exists(m_path + ".new"); }

    const TempDir m_dir;
    const std::string m_path = m_dir.File("counters");
};

TEST_P(AtomicFileTest, MakesAFileThatAllMayRead) {
    const mode_t mask = umask(022);
    EXPECT_EQ("", WriteFileAtOnce(m_path, "text\n", GetParam()));
    umask(mask);
    EXPECT_EQ("text\n", m_dir.Read("counters"));
    EXPECT_FALSE(HasRest());
    struct stat status = {};
    ASSERT_EQ(0, stat(m_path.c_str(), &status));
    EXPECT_EQ(mode_t{0644}, status.st_mode & 07777);
}

TEST_P(AtomicFileTest, PutsAnotherFileInPlaceOfTheOldOne) {
    m_dir.Write("counters", "old");
    const ino_t before = InodeOf(m_path);
    EXPECT_EQ("", WriteFileAtOnce(m_path, "", GetParam()));
    EXPECT_EQ("", m_dir.Read("counters"));
    EXPECT_NE(before, InodeOf(m_path));
}

TEST_P(AtomicFileTest, WritesOverWhatACrashHasLeft) {
    m_dir.Write("counters.new", "a long rest of an earlier write");
    EXPECT_EQ("", WriteFileAtOnce(m_path, "text", GetParam()));
    EXPECT_EQ("text", m_dir.Read("counters"));
    EXPECT_FALSE(HasRest());
}

TEST_P(AtomicFileTest, AFullDiskLeavesTheOldFile) {
    m_dir.Write("counters", "old");
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
    const rlimit least = {10, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &least));
    const std::string fault = WriteFileAtOnce(m_path, std::string(100, 'n'), GetParam());
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
    std::signal(SIGXFSZ, SIG_DFL);
    EXPECT_THAT(fault, HasSubstr(m_path + ": File too large"));
    EXPECT_EQ("old", m_dir.Read("counters"));
    EXPECT_FALSE(HasRest());
}

TEST_P(AtomicFileTest, SaysThatTheFolderIsMissing) {
    const std::string path = m_dir.File("none/counters");
    EXPECT_THAT(WriteFileAtOnce(path, "text", GetParam()),
                HasSubstr(path + ".new: No such file or directory"));
}

TEST_P(AtomicFileTest, WhatCannotBePutInPlaceIsTakenAway) {
    std::filesystem::create_directory(m_path);
    EXPECT_THAT(WriteFileAtOnce(m_path, "text", GetParam()),
                HasSubstr(m_path + ": Is a directory"));
    EXPECT_FALSE(HasRest());
}

TEST_P(AtomicFileTest, ANameWithoutAFolderIsOneOfThisFolder) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_dir.Path());
    EXPECT_EQ("", WriteFileAtOnce("counters", "text", GetParam()));
    std::filesystem::current_path(before);
    EXPECT_EQ("text", m_dir.Read("counters"));
}

INSTANTIATE_TEST_SUITE_P(Both, AtomicFileTest,
                         testing::Values(Durability::kOnDisk, Durability::kVisible));

}  // namespace
}  // namespace tarnctl
