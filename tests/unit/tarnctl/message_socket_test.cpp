#include "tarnctl/message_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>

#include "quarantine/msg_comm.h"
#include "temp_dir.h"

namespace tarnctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
namespace fs = std::filesystem;

class MessageSocketTest : public testing::Test {
  protected:
    // Leaves the file of a socket on which nobody listens.
    void LeaveStaleSocket(int type) const {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        const int fd = socket(AF_UNIX, type, 0);
        ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        close(fd);
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("crm");
    std::span<const std::byte> m_bytes;
};

TEST_F(MessageSocketTest, ReceivesWhatTheDaemonsChannelSends) {
    MessageSocket socket(m_path);
    ASSERT_TRUE(socket.Open());
    MsgComm channel(m_path);
    ASSERT_EQ(channel.Open(), 0);
    ASSERT_EQ(channel.SendErrorMessage("bad rule"), 0);
    ASSERT_EQ(channel.SendInfoMessage(""), 0);
    ASSERT_TRUE(socket.Next(m_bytes, seconds(10)));
    EXPECT_EQ(m_bytes.size(), 29U);
    ASSERT_TRUE(socket.Next(m_bytes, seconds(10)));
    EXPECT_EQ(m_bytes.size(), 21U);
    EXPECT_FALSE(socket.Next(m_bytes, milliseconds(0)));
}

TEST_F(MessageSocketTest, RemovesItsFileAtItsEnd) {
    {
        MessageSocket socket(m_path);
        ASSERT_TRUE(socket.Open());
        EXPECT_TRUE(fs::is_socket(m_path));
    }
    EXPECT_FALSE(fs::exists(m_path));
}

TEST_F(MessageSocketTest, LeavesTheFileOfASuccessorAlone) {
    auto first = std::make_unique<MessageSocket>(m_path);
    ASSERT_TRUE(first->Open());
    fs::rename(m_path, m_dir.File("moved"));  // so that its number is not given out again
    MessageSocket second(m_path);
    ASSERT_TRUE(second.Open());
    first.reset();
    EXPECT_TRUE(fs::is_socket(m_path));
}

TEST_F(MessageSocketTest, RefusesAPathWhereSomebodyReceives) {
    MessageSocket first(m_path);
    ASSERT_TRUE(first.Open());
    {
        MessageSocket second(m_path);
        EXPECT_FALSE(second.Open());
        EXPECT_EQ(second.Error(), m_path + ": another receiver is there already");
    }
    EXPECT_TRUE(fs::is_socket(m_path)) << "the first one's";
}

TEST_F(MessageSocketTest, TakesThePlaceOfASocketThatWasLeftBehind) {
    LeaveStaleSocket(SOCK_DGRAM);
    MessageSocket socket(m_path);
    EXPECT_TRUE(socket.Open()) << socket.Error();
}

TEST_F(MessageSocketTest, RefusesAFileThatIsNoSocketAndLeavesItAlone) {
    m_dir.Write("crm", "a file");
    MessageSocket socket(m_path);
    EXPECT_FALSE(socket.Open());
    EXPECT_EQ(socket.Error(), m_path + ": is there already and is no socket");
    EXPECT_EQ(m_dir.Read("crm"), "a file");
}

TEST_F(MessageSocketTest, SaysWhyAPathCannotBeHad) {
    MessageSocket missing(m_dir.File("none/crm"));
    EXPECT_FALSE(missing.Open());
    EXPECT_EQ(missing.Error(), m_dir.File("none/crm") + ": No such file or directory");
    const std::string longPath = m_dir.File(std::string(200, 'x'));
    MessageSocket tooLong(longPath);
    EXPECT_FALSE(tooLong.Open());
    EXPECT_EQ(tooLong.Error(), longPath + ": File name too long");
}

}  // namespace
}  // namespace tarnctl
