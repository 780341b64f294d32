#include "tarnctl/common/message_socket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "crm/msg_comm.h"
#include "support/temp_dir.h"

namespace tarnctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
namespace fs = std::filesystem;

class MessageSocketTest : public testing::Test {
  protected:
    TempDir m_dir;
    const std::string m_path = m_dir.File("crm");
    std::span<const std::byte> m_bytes;
};

TEST_F(MessageSocketTest, ReceivesWhatTheDaemonsChannelSends) {
    MessageSocket socket;
    ASSERT_EQ("", socket.Open(m_path));
    MsgComm channel(m_path);
    ASSERT_EQ(0, channel.Open());
    ASSERT_EQ(0, channel.SendErrorMessage("bad rule"));
    ASSERT_EQ(0, channel.SendInfoMessage(""));
    ASSERT_TRUE(socket.Next(m_bytes, seconds(10)));
    EXPECT_EQ(29U, m_bytes.size());
    ASSERT_TRUE(socket.Next(m_bytes, seconds(10)));
    EXPECT_EQ(21U, m_bytes.size());
    EXPECT_FALSE(socket.Next(m_bytes, milliseconds(0)));
}

TEST_F(MessageSocketTest, RemovesItsFileAtItsEnd) {
    {
        MessageSocket socket;
        ASSERT_EQ("", socket.Open(m_path));
        EXPECT_TRUE(fs::is_socket(m_path));
    }
    EXPECT_FALSE(fs::exists(m_path));
}

TEST_F(MessageSocketTest, RefusesAPathWhereSomebodyReceives) {
    MessageSocket first;
    ASSERT_EQ("", first.Open(m_path));
    {
        MessageSocket second;
        EXPECT_EQ(second.Open(m_path),
                  m_path + ": another receiver is there already; stop it first");
    }
    EXPECT_TRUE(fs::is_socket(m_path)) << "the first one's";
}

}  // namespace
}  // namespace tarnctl
