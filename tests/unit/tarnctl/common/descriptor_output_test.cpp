#include "tarnctl/common/descriptor_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <sstream>
#include <string>
#include <utility>

namespace tarnctl {
namespace {

class OutputToAPipe : public testing::Test {
  protected:
    OutputToAPipe() {
        std::signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(0, pipe2(m_ends.data(), O_CLOEXEC));
    }
    ~OutputToAPipe() override {
        CloseReader();
        close(m_ends[1]);
    }
    void CloseReader() {
        if (m_ends[0] != -1) {
            close(std::exchange(m_ends[0], -1));
        }
    }
    std::string Read() {
        std::array<char, 100> text = {};
        const ssize_t count = read(m_ends[0], text.data(), text.size());
        return {text.data(), static_cast<size_t>(std::max<ssize_t>(count, 0))};
    }

    std::array<int, 2> m_ends = {-1, -1};
};

TEST_F(OutputToAPipe, ArrivesWhenItIsFlushed) {
    DescriptorBuffer buffer(m_ends[1]);
    std::ostream out(&buffer);
    out << "a "
        << "line" << std::endl;
    EXPECT_EQ("a line\n", Read());
    EXPECT_EQ("", OutputFault(out));
    EXPECT_FALSE(IsReaderGone(out));
}

TEST_F(OutputToAPipe, ArrivesWhenTheStreamEnds) {
    {
        DescriptorBuffer buffer(m_ends[1]);
        std::ostream out(&buffer);
        out << "the rest";
    }
    EXPECT_EQ("the rest", Read());
}

TEST_F(OutputToAPipe, SeesThatTheReaderIsGoneBeforeItWrites) {
    DescriptorBuffer buffer(m_ends[1]);
    std::ostream out(&buffer);
    CloseReader();
    EXPECT_TRUE(IsReaderGone(out));
}

TEST_F(OutputToAPipe, IsNoFaultWhenTheReaderIsGone) {
    DescriptorBuffer buffer(m_ends[1]);
    std::ostream out(&buffer);
    CloseReader();
    out << "a line" << std::endl;
    EXPECT_FALSE(out);
    EXPECT_EQ(EPIPE, buffer.Error());
    EXPECT_EQ("", OutputFault(out));
}

TEST(OutputToAFullDisk, IsNamed) {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_NE(-1, full);
    {
        DescriptorBuffer buffer(full);
        std::ostream out(&buffer);
        out << std::string(100000, 'x');  // more than is kept back
        EXPECT_EQ("standard output: No space left on device; make room on its file system",
                  OutputFault(out));
        EXPECT_FALSE(IsReaderGone(out));
    }
    close(full);
}

TEST(OutputToAnotherStream, HasNoReaderThatCouldBeGone) {
    std::ostringstream out;
    EXPECT_FALSE(IsReaderGone(out));
    EXPECT_EQ("", OutputFault(out));
    out.setstate(std::ios::badbit);
    EXPECT_EQ("standard output: Input/output error", OutputFault(out));
}

}  // namespace
}  // namespace tarnctl
