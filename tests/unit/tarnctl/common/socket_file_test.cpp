#include "tarnctl/common/socket_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "support/temp_dir.h"

namespace tarnctl {
namespace {

class SocketFileTest : public testing::TestWithParam<int> {
  protected:
    bool Exists() const {
        struct stat file = {};
        return lstat(m_path.c_str(), &file) == 0;
    }
    // What a receiver that was killed leaves.
    void LeaveBehind() const {
        const int fd = socket(AF_UNIX, GetParam() | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        ASSERT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
        close(fd);
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("socket");
};

TEST_P(SocketFileTest, MakesASocketForItsUserAndRemovesIt) {
    {
        SocketFile socket;
        ASSERT_EQ("", socket.Open(m_path, GetParam()));
        struct stat file = {};
        ASSERT_EQ(0, lstat(m_path.c_str(), &file));
        EXPECT_EQ(0600U & ~umask(umask(0)), file.st_mode & 07777U);
    }
    EXPECT_FALSE(Exists());
}

TEST_P(SocketFileTest, ReplacesOneThatWasLeftBehind) {
    LeaveBehind();
    SocketFile socket;
    EXPECT_EQ("", socket.Open(m_path, GetParam()));
}

TEST_P(SocketFileTest, LeavesAReceiverAlone) {
    SocketFile receiver;
    ASSERT_EQ("", receiver.Open(m_path, GetParam()));
    if (GetParam() == SOCK_STREAM) {
        ASSERT_EQ(0, listen(receiver.Descriptor(), 1));
    }
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        SocketFile socket;
        EXPECT_EQ(socket.Open(m_path, type),
                  m_path + ": another receiver is there already; stop it first");
    }
    EXPECT_TRUE(Exists());
}

TEST_P(SocketFileTest, LeavesAloneWhatIsNoSocket) {
    m_dir.Write("socket", "text");
    SocketFile socket;
    EXPECT_EQ(socket.Open(m_path, GetParam()),
              m_path + ": is there already and is no socket; move it away first");
    EXPECT_EQ("text", m_dir.Read("socket"));
}

TEST_P(SocketFileTest, DoesNotRemoveTheFileOfASuccessor) {
    auto socket = std::make_unique<SocketFile>();
    ASSERT_EQ("", socket->Open(m_path, GetParam()));
    ASSERT_EQ(0, rename(m_path.c_str(), m_dir.File("old").c_str()));
    LeaveBehind();
    socket.reset();
    EXPECT_TRUE(Exists());
}

TEST_P(SocketFileTest, TellsWhyItFailsAndWhatToDo) {
    SocketFile socket;
    EXPECT_EQ(socket.Open(m_dir.File("no/socket"), GetParam()),
              m_dir.File("no/socket") + ": No such file or directory; make the directory " +
                  m_dir.File("no") + " first");
    const std::string longPath = "/tmp/" + std::string(120, 'x');
    EXPECT_EQ(socket.Open(longPath, GetParam()), longPath + ": File name too long");
}

INSTANTIATE_TEST_SUITE_P(Types, SocketFileTest, testing::Values(SOCK_STREAM, SOCK_DGRAM));

}  // namespace
}  // namespace tarnctl
