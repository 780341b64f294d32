#include "crm/msg_comm.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "support/bound_socket.h"
#include "support/golden_bytes.h"
#include "support/levelled_log.h"
#include "support/temp_dir.h"
#include "support/word_at.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

// The number that the next descriptor gets, which is that of the channel's socket.
std::string NextDescriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return std::to_string(fd);
}

class MsgCommTest : public testing::Test {
  protected:
    // The message of a text, whose time must lie in the span of the call.
    Bytes MessageOf(const char* text, bool isError) {
        const BoundSocket crm(SOCK_DGRAM, m_path);
        const std::time_t before = std::time(nullptr);
        EXPECT_EQ(0, m_channel.Open());
        EXPECT_EQ(0, isError ? m_channel.SendErrorMessage(text) : m_channel.SendInfoMessage(text));
        const std::time_t after = std::time(nullptr);
        m_channel.Close();
        const Bytes message = crm.Take();
        EXPECT_GE(message.size(), 21U);
        EXPECT_GE(WordAt(message, 8), static_cast<uint32_t>(before));
        EXPECT_LE(WordAt(message, 8), static_cast<uint32_t>(after));
        return message;
    }

    // The same with the time of the golden messages put in.
    Bytes MessageAtGoldenTime(const char* text, bool isError) {
        Bytes message = MessageOf(text, isError);
        const uint32_t time = 1794495600;
        std::memcpy(message.data() + 8, &time, sizeof(time));
        return message;
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("crm");
    MsgComm m_channel{m_path};
};

using MsgCommMessage = MsgCommTest;
using MsgCommSend = MsgCommTest;
using MsgCommOpen = MsgCommTest;

TEST_F(MsgCommMessage, OfAnErrorHasTheGoldenBytes) {
    EXPECT_EQ(GoldenBytes("crm_message_error.txt"), MessageAtGoldenTime("bad rule", true));
}

TEST_F(MsgCommMessage, OfAnEmptyInformationHasTheGoldenBytes) {
    EXPECT_EQ(GoldenBytes("crm_message_information.txt"), MessageAtGoldenTime("", false));
}

TEST_F(MsgCommMessage, OfAnEmptyTextIs21BytesLong) {
    EXPECT_EQ(21U, MessageOf("", true).size());
    EXPECT_EQ(21U, MessageOf("", false).size());
}

TEST_F(MsgCommMessage, OfA100ByteTextHasALengthOf121) {
    const Bytes message = MessageOf(std::string(100, 'x').c_str(), true);
    EXPECT_EQ(121U, message.size());
    EXPECT_EQ(121U, WordAt(message, 4) >> 16);
    EXPECT_EQ(0, message.back());
}

TEST_F(MsgCommMessage, KeepsTheLastByteOfA512ByteTextAsItsNul) {
    const std::string text(512, 'x');
    const Bytes message = MessageOf(text.c_str(), true);
    ASSERT_EQ(533U, message.size());
    EXPECT_EQ(533U, WordAt(message, 4) >> 16);
    EXPECT_EQ(Bytes(text.c_str(), text.c_str() + 513), Bytes(message.begin() + 20, message.end()));
}

TEST_F(MsgCommMessage, KeepsALongerTextWithoutANulAtTheCut) {
    for (const size_t length : {513U, 514U, 5000U}) {
        const std::string text(length, 'x');
        const Bytes message = MessageOf(text.c_str(), false);
        ASSERT_EQ(533U, message.size());
        EXPECT_EQ(Bytes(513, 'x'), Bytes(message.begin() + 20, message.end()));
    }
}

TEST_F(MsgCommMessage, OfA511ByteTextIsWhole) {
    const Bytes message = MessageOf(std::string(511, 'x').c_str(), false);
    EXPECT_EQ(532U, message.size());
    EXPECT_EQ(0, message.back());
}

TEST_F(MsgCommSend, LogsTheAttempt) {
    std::string fd;
    const std::vector<std::string> log = LevelledMessages([&] {
        const BoundSocket crm(SOCK_DGRAM, m_path);
        fd = NextDescriptor();
        EXPECT_EQ(0, m_channel.Open());
        EXPECT_EQ(0, m_channel.Send("abc", 3));
        EXPECT_EQ((Bytes{'a', 'b', 'c'}), crm.Take());
        m_channel.Close();
    });
    EXPECT_THAT(log, ElementsAre("5 MsgComm opened message channel by fd = " + fd,
                                 "5 MsgComm attempts to send 3 bytes of data via fd " + fd,
                                 "5 MsgComm closed message channel of fd = " + fd));
}

TEST_F(MsgCommSend, SendsNothingBeforeOpen) {
    const BoundSocket crm(SOCK_DGRAM, m_path);
    EXPECT_THAT(LevelledMessages([&] {
                    EXPECT_EQ(-1, m_channel.Send("abc", 3));
                    EXPECT_EQ(-1, m_channel.SendErrorMessage("abc"));
                }),
                ElementsAre("1 MsgComm cannot send data because channel is not opened.",
                            "1 MsgComm cannot send data because channel is not opened."));
    EXPECT_THAT(crm.Take(), IsEmpty());
}

TEST_F(MsgCommSend, KeepsMinusOneForTheBytesOfAFailedSend) {
    ASSERT_EQ(0, m_channel.Open());
    const std::vector<std::string> log =
        LevelledMessages([&] { EXPECT_EQ(-1, m_channel.SendInfoMessage("abc")); });
    ASSERT_EQ(2U, log.size());
    EXPECT_EQ("1 Only -1 of 24 bytes was sent via message channel.", log[1]);
}

TEST_F(MsgCommSend, DoesNotWaitForACrmThatIsFull) {
    const BoundSocket crm(SOCK_DGRAM, m_path);
    ASSERT_EQ(0, m_channel.Open());
    int sent = 0;
    while (m_channel.SendErrorMessage("abc") == 0) {
        ++sent;
        ASSERT_LT(sent, 100000);
    }
    EXPECT_GT(sent, 0);
    EXPECT_FALSE(crm.Take().empty());
    EXPECT_EQ(0, m_channel.SendErrorMessage("abc")) << "there is room again";
}

TEST_F(MsgCommSend, ReachesACrmThatCameBack) {
    ASSERT_EQ(0, m_channel.Open());
    {
        const BoundSocket crm(SOCK_DGRAM, m_path);
        EXPECT_EQ(0, m_channel.Send("a", 1));
    }
    EXPECT_EQ(-1, m_channel.Send("b", 1));
    const BoundSocket crm(SOCK_DGRAM, m_path);
    EXPECT_EQ(0, m_channel.Send("c", 1));
    EXPECT_EQ(Bytes{'c'}, crm.Take());
}

TEST_F(MsgCommOpen, OpensOnceAndClosesOnce) {
    std::string fd;
    const std::vector<std::string> log = LevelledMessages([&] {
        fd = NextDescriptor();
        EXPECT_FALSE(m_channel.IsOpen());
        EXPECT_EQ(0, m_channel.Open());
        EXPECT_TRUE(m_channel.IsOpen());
        EXPECT_EQ(FD_CLOEXEC, fcntl(std::stoi(fd), F_GETFD));
        EXPECT_EQ(0, m_channel.Open());
        m_channel.Close();
        EXPECT_FALSE(m_channel.IsOpen());
        EXPECT_EQ(-1, fcntl(std::stoi(fd), F_GETFD));
    });
    EXPECT_THAT(
        log,
        ElementsAre("5 MsgComm opened message channel by fd = " + fd,
                    "3 MsgComm attempts to open message channel but it has been opened already.",
                    "5 MsgComm closed message channel of fd = " + fd));
}

TEST_F(MsgCommOpen, LogsACloseThatHasNothingToClose) {
    EXPECT_THAT(
        LevelledMessages([&] {
            m_channel.Close();
            EXPECT_FALSE(m_channel.IsOpen());
        }),
        ElementsAre("3 MsgComm attempts to close message channel but it is not opened yet."));
}

TEST_F(MsgCommOpen, ReportsWhenThereIsNoDescriptorLeft) {
    EXPECT_THAT(
        LevelledMessages([&] {
            rlimit former{};
            ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &former));
            const rlimit none{static_cast<rlim_t>(std::stoi(NextDescriptor())), former.rlim_max};
            ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
            const int result = m_channel.Open();
            ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &former));
            EXPECT_EQ(-1, result);
            EXPECT_FALSE(m_channel.IsOpen());
        }),
        ElementsAre("1 socket() call failed: Too many open files"));
}

TEST_F(MsgCommOpen, ClosesInTheDestructorOnlyWhatIsOpen) {
    std::string fd;
    const std::vector<std::string> log = LevelledMessages([&] {
        fd = NextDescriptor();
        { const MsgComm closed(m_path); }
        MsgComm open(m_path);
        EXPECT_EQ(0, open.Open());
    });
    EXPECT_THAT(log, ElementsAre("5 MsgComm opened message channel by fd = " + fd,
                                 "5 MsgComm closed message channel of fd = " + fd));
}

TEST_F(MsgCommOpen, KeepsASocketOfDescriptorZeroForNotOpen) {
    const int standardInput = dup(STDIN_FILENO);
    EXPECT_THAT(
        LevelledMessages([&] {
            close(STDIN_FILENO);
            EXPECT_EQ(0, m_channel.Open());
            EXPECT_FALSE(m_channel.IsOpen());
            EXPECT_EQ(-1, m_channel.Send("abc", 3));
            m_channel.Close();
            EXPECT_NE(-1, fcntl(STDIN_FILENO, F_GETFD)) << "the descriptor stays taken";
        }),
        ElementsAre("5 MsgComm opened message channel by fd = 0",
                    "1 MsgComm cannot send data because channel is not opened.",
                    "3 MsgComm attempts to close message channel but it is not opened yet."));
    dup2(standardInput, STDIN_FILENO);
    close(standardInput);
}

}  // namespace
