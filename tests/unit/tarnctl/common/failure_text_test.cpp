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
    EXPECT_EQ(FailureText("/file", EACCES),
              "/file: Permission denied; run this as root or as the user that tarn runs as");
}

TEST(FailureTextOfAPath, TellsTheReasonAloneWhereNothingCanBeDone) {
    EXPECT_EQ(FailureText("/file", ENAMETOOLONG), "/file: File name too long");
}

}  // namespace
}  // namespace tarnctl
