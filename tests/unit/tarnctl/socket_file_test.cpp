#include "tarnctl/socket_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>

#include "temp_dir.h"

using testing::EndsWith;

namespace tarnctl {
namespace {

class SocketFileTest : public testing::Test {
  protected:
    bool Exists() const {
        struct stat file = {};
        return lstat(m_path.c_str(), &file) == 0;
    }
    // What a receiver that was killed leaves.
    void LeaveBehind() const {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        close(fd);
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("socket");
};

TEST_F(SocketFileTest, MakesASocketForItsUserAndRemovesIt) {
    {
        SocketFile socket;
        ASSERT_EQ(socket.Open(m_path, SOCK_STREAM), "");
        struct stat file = {};
        ASSERT_EQ(lstat(m_path.c_str(), &file), 0);
        EXPECT_EQ(file.st_mode & 07777U, 0600U & ~umask(umask(0)));
    }
    EXPECT_FALSE(Exists());
}

TEST_F(SocketFileTest, ReplacesOneThatWasLeftBehind) {
    LeaveBehind();
    SocketFile socket;
    EXPECT_EQ(socket.Open(m_path, SOCK_STREAM), "");
}

TEST_F(SocketFileTest, LeavesAReceiverAlone) {
    SocketFile receiver;
    ASSERT_EQ(receiver.Open(m_path, SOCK_STREAM), "");
    ASSERT_EQ(listen(receiver.Descriptor(), 1), 0);
    {
        SocketFile socket;
        EXPECT_EQ(socket.Open(m_path, SOCK_STREAM), m_path + ": another receiver is there already");
    }
    EXPECT_TRUE(Exists());
}

TEST_F(SocketFileTest, LeavesAloneWhatIsNoSocket) {
    m_dir.Write("socket", "text");
    SocketFile socket;
    EXPECT_THAT(socket.Open(m_path, SOCK_STREAM), EndsWith("is there already and is no socket"));
    EXPECT_EQ(m_dir.Read("socket"), "text");
}

TEST_F(SocketFileTest, DoesNotRemoveTheFileOfASuccessor) {
    auto socket = std::make_unique<SocketFile>();
    ASSERT_EQ(socket->Open(m_path, SOCK_STREAM), "");
    ASSERT_EQ(rename(m_path.c_str(), m_dir.File("old").c_str()), 0);
    LeaveBehind();
    socket.reset();
    EXPECT_TRUE(Exists());
}

TEST_F(SocketFileTest, TellsWhyItFails) {
    SocketFile socket;
    EXPECT_THAT(socket.Open(m_dir.File("no/socket"), SOCK_STREAM),
                EndsWith("No such file or directory"));
    EXPECT_THAT(socket.Open("/tmp/" + std::string(120, 'x'), SOCK_STREAM),
                EndsWith("File name too long"));
}

}  // namespace
}  // namespace tarnctl
