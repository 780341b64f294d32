#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include "tarnctl/health/parts.h"
#include "unit/tarnctl/health/made_up_machine.h"

namespace tarnctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class PeerHealthTest : public testing::Test {
  protected:
    ~PeerHealthTest() override {
        if (m_socket != -1) {
            close(m_socket);
        }
    }
    const std::string& Path() const { return machine.places.peers.front().path; }
    PeerHealth Look() {
        return LookAtPeer(machine.places, machine.places.peers.front(),
                          ProcessTable(machine.places.proc));
    }
    // A socket with the peer's name, open in a process, and the line that the kernel shows for it.
    void Bind(int process, const std::string& shownPath, const char* flags, const char* type) {
        m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        Path().copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(0, bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address));
        ASSERT_EQ(0, chmod(Path().c_str(), 0600));
        if (process != 0) {
            machine.AddDescriptor(process, 3, "/proc/self/fd/" + std::to_string(m_socket), O_RDWR);
        }
        struct stat status = {};
        ASSERT_EQ(0, fstat(m_socket, &status));
        machine.dir.Write("proc/net/unix",
                          "Num       RefCount Protocol Flags    Type St Inode Path\n"
                          "0000000000000000: 00000003 00000000 00000000 0001 03 1\n"
                          "0000000000000000: 00000002 00000000 " +
                              std::string(flags) + " " + type + " 01 " +
                              std::to_string(status.st_ino) + " " + shownPath + "\n");
    }

    static constexpr const char* kNoFlags = "00000000";
    static constexpr const char* kAccepts = "00010000";
    static constexpr const char* kStream = "0001";
    static constexpr const char* kDatagram = "0002";
    MadeUpMachine machine;
    int m_socket = -1;
};

TEST_F(PeerHealthTest, KnowsThatThereIsNoSocket) {
    machine.AddProcess(7, "crm");
    const PeerHealth health = Look();
    EXPECT_TRUE(health.isThere.Is(false));
    EXPECT_TRUE(health.isListening.Is(false));
    EXPECT_FALSE(health.owner.IsKnown());
}

TEST_F(PeerHealthTest, FindsWhoReceives) {
    machine.AddProcess(7, "crm");
    Bind(7, Path(), kNoFlags, kDatagram);
    const PeerHealth health = Look();
    EXPECT_TRUE(health.isThere.Is(true));
    EXPECT_TRUE(health.isListening.Is(true));
    EXPECT_THAT(*health.listeners.value, ElementsAre(Holder{7, 3, "crm"}));
    EXPECT_TRUE(health.owner.Is("user " + std::to_string(geteuid()) + ", mode 0600"));
}

TEST_F(PeerHealthTest, TellsAListeningStreamFromAConnection) {
    machine.AddProcess(7, "manager");
    Bind(7, Path(), kAccepts, kStream);
    EXPECT_TRUE(Look().isListening.Is(true));
    unlink(Path().c_str());
    close(m_socket);
    std::filesystem::remove(machine.dir.File("proc/7/fd/3"));
    Bind(7, Path(), kNoFlags, kStream);
    EXPECT_TRUE(Look().isListening.Is(false));
}

TEST_F(PeerHealthTest, KnowsAFolderByItsOtherName) {
    machine.AddProcess(7, "crm");
    std::filesystem::create_directory_symlink(machine.dir.File("run"), machine.dir.File("var"));
    Bind(7, machine.dir.File("var/messages"), kNoFlags, kDatagram);
    EXPECT_TRUE(Look().isListening.Is(true));
}

TEST_F(PeerHealthTest, LeavesOutASocketOfAnotherSandbox) {
    machine.AddProcess(7, "crm");
    Bind(0, Path(), kNoFlags, kDatagram);
    EXPECT_TRUE(Look().isThere.Is(true));
    EXPECT_TRUE(Look().isListening.Is(false));
}

TEST_F(PeerHealthTest, DoesNotCallAFileWithoutReceiverAPeer) {
    machine.AddProcess(7, "crm");
    Bind(7, machine.dir.File("run/elsewhere"), kNoFlags, kDatagram);
    EXPECT_TRUE(Look().isThere.Is(true));
    EXPECT_TRUE(Look().isListening.Is(false));
}

TEST_F(PeerHealthTest, DoesNotCallASocketWithoutItsFileAPeer) {
    machine.AddProcess(7, "crm");
    Bind(7, Path(), kNoFlags, kDatagram);
    unlink(Path().c_str());
    EXPECT_TRUE(Look().isListening.Is(false));
    machine.dir.Write("run/messages", "a plain file");
    EXPECT_TRUE(Look().isThere.Is(false));
    EXPECT_TRUE(Look().isListening.Is(false));
}

TEST_F(PeerHealthTest, SaysThatTheListCannotBeHad) {
    std::filesystem::remove(machine.dir.File("proc/net/unix"));
    EXPECT_FALSE(Look().isListening.IsKnown());
    EXPECT_THAT(Look().isListening.reason, HasSubstr("net/unix"));
}

TEST_F(PeerHealthTest, DoesNotTakeTheSameNameInAnotherFolder) {
    machine.AddProcess(7, "crm");
    Bind(7, machine.dir.File("etc/messages"), kNoFlags, kDatagram);
    EXPECT_TRUE(Look().isListening.Is(false));
}

TEST_F(PeerHealthTest, SaysThatItsReceiverIsHidden) {
    const AnotherUser user(machine);
    if (!user.IsThere()) {
        GTEST_SKIP() << "needs the superuser and another user";
    }
    machine.AddProcess(7, "crm");
    machine.HideDescriptors(7);
    Bind(0, Path(), kNoFlags, kDatagram);
    PeerHealth health = user.Does([this] { return Look(); });
    EXPECT_TRUE(health.isListening.Is(true));
    EXPECT_FALSE(health.listeners.IsKnown());
    EXPECT_EQ(HoldersHidden(), health.listeners.reason);
    machine.dir.Write("proc/net/unix", "Num       RefCount Protocol Flags    Type St Inode Path\n");
    health = user.Does([this] { return Look(); });
    EXPECT_TRUE(health.isListening.Is(false));
}

}  // namespace
}  // namespace tarnctl
