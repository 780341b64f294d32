#include "tarnctl/common/progress_bar.h"

#include <gtest/gtest.h>

#include <sstream>

namespace tarnctl {
namespace {

// What is on the line after one bar, half done, on a terminal of so many columns.
std::string BarAt(size_t columns) {
    Display display;
    display.errorIsTerminal = true;
    display.width = columns;
    std::ostringstream stream;
    ProgressBar bar(stream, display);
    bar.Show(0.5, "10 alerts");
    return stream.str();
}

TEST(Bar, FitsTheWidthOfTheTerminal) {
    EXPECT_EQ("\r[###############...............] 50% 10 alerts\x1b[K", BarAt(80));
    EXPECT_EQ("\r[###############...............] 50% 10 alerts\x1b[K", BarAt(47));
    EXPECT_EQ("\r[###########...........] 50% 10 alerts\x1b[K", BarAt(39));
    EXPECT_EQ("\r[##..] 50% 10 alerts\x1b[K", BarAt(21));
    EXPECT_EQ("\r50% 10 alerts\x1b[K", BarAt(20));
    EXPECT_EQ("\r50% >\x1b[K", BarAt(6));
    EXPECT_EQ("\r>\x1b[K", BarAt(1));
}

TEST(Bar, IsTakenOffTheLineAtTheEnd) {
    Display display;
    display.errorIsTerminal = true;
    display.width = 80;
    std::ostringstream stream;
    {
        ProgressBar bar(stream, display);
        bar.Show(1.0, "1 alert");
    }
    EXPECT_TRUE(stream.str().ends_with("\r\x1b[K"));
}

TEST(Bar, IsNotDrawnWhereThereIsNoTerminal) {
    const Display display;
    std::ostringstream stream;
    {
        ProgressBar bar(stream, display);
        bar.Show(0.5, "10 alerts");
    }
    EXPECT_EQ("", stream.str());
}

}  // namespace
}  // namespace tarnctl
