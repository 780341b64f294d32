#include "tarnctl/common/read_error.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "support/temp_dir.h"

namespace tarnctl {
namespace {

TEST(ReadErrorOfAFile, IsZeroWhereItCanBeRead) {
    const TempDir dir;
    EXPECT_EQ(0, ReadError(dir.Write("file", "")));
    EXPECT_EQ(ENOENT, ReadError(dir.File("none")));
}

TEST(ReadErrorOfAFile, TellsADirectory) {
    const TempDir dir;
    EXPECT_EQ(EISDIR, ReadError(dir.Path()));
}

TEST(ReadErrorOfAFile, DoesNotWaitForTheWriterOfAPipe) {
    const TempDir dir;
    ASSERT_EQ(0, mkfifo(dir.File("pipe").c_str(), 0600));
    EXPECT_EQ(0, ReadError(dir.File("pipe")));
}

TEST(ReadErrorOfAFile, LeavesNoDescriptorOpen) {
    const TempDir dir;
    const int before = dup(STDIN_FILENO);
    close(before);
    EXPECT_EQ(0, ReadError(dir.Write("file", "")));
    EXPECT_EQ(EISDIR, ReadError(dir.Path()));
    const int after = dup(STDIN_FILENO);
    close(after);
    EXPECT_EQ(before, after);
}

TEST(ReadFailure, SaysWhatToNameInPlaceOfIt) {
    EXPECT_EQ("/none/x: No such file or directory; check the name",
              ReadFailureText("/none/x", ENOENT));
    EXPECT_EQ("/tmp: Is a directory; name a file in it", ReadFailureText("/tmp", EISDIR));
    EXPECT_EQ("/x: Permission denied; run this as root or as the user that tarn runs as",
              ReadFailureText("/x", EACCES));
}

}  // namespace
}  // namespace tarnctl
