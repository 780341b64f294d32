#include "tarnctl/common/failure_text.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "support/temp_dir.h"

namespace tarnctl {
namespace {

TEST(FailureTextOfAPath, NamesTheDirectoryThatIsMissing) {
    const TempDir dir;
    EXPECT_EQ(FailureText(dir.File("none/file"), ENOENT),
              dir.File("none/file") + ": No such file or directory; make the directory " +
                  dir.File("none") + " first");
    EXPECT_EQ(FailureText(dir.File("file"), ENOENT),
              dir.File("file") + ": No such file or directory; check the name");
}

TEST(FailureTextOfAPath, SaysWhoMayUseIt) {
    EXPECT_EQ("/file: Permission denied; run this as root or as the user that tarn runs as",
              FailureText("/file", EACCES));
}

TEST(FailureTextOfAPath, TellsTheReasonAloneWhereNothingCanBeDone) {
    EXPECT_EQ("/file: File name too long", FailureText("/file", ENAMETOOLONG));
}

}  // namespace
}  // namespace tarnctl
