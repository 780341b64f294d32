#include "tarnctl/feed/control_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

namespace tarnctl {
namespace {

// One connection to the server.
class Client {
  public:
    explicit Client(const std::string& path)
        : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(0, connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    }
    ~Client() { Close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void Close() {
        if (m_fd != -1) {
            close(std::exchange(m_fd, -1));
        }
    }
    void Say(const std::string& text) const {
        ASSERT_EQ(static_cast<ssize_t>(text.size()),
                  send(m_fd, text.data(), text.size(), MSG_NOSIGNAL));
    }
    // What has come; "gone" when the server has closed the connection.
    std::string Heard() const {
        std::array<char, 4096> buffer = {};
        const ssize_t count = recv(m_fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        return count == 0 || (count == -1 && errno == ECONNRESET)
                   ? "gone"
                   : std::string(buffer.data(), count > 0 ? static_cast<size_t>(count) : 0);
    }

  private:
    int m_fd;
};

class ControlServerTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ("", m_server.Open(m_path)); }
    void Serve() {
        m_server.Serve([this](const std::string& word) {
            m_words.push_back(word);
            return "<" + word + ">";
        });
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.File("feed.sock");
    ControlServer m_server;
    std::vector<std::string> m_words;
};

TEST_F(ControlServerTest, AnswersEachWordWithALine) {
    const Client client(m_path);
    client.Say("counters\nother\n");
    Serve();
    EXPECT_EQ((std::vector<std::string>{"counters", "other"}), m_words);
    EXPECT_EQ("<counters>\n<other>\n", client.Heard());
}

TEST_F(ControlServerTest, AWordMayComeInPieces) {
    const Client client(m_path);
    client.Say("coun");
    Serve();
    EXPECT_TRUE(m_words.empty());
    client.Say("ters\n");
    Serve();
    EXPECT_EQ("<counters>\n", client.Heard());
}

TEST_F(ControlServerTest, AHoldLastsUntilItIsReleased) {
    const Client client(m_path);
    EXPECT_FALSE(m_server.IsHeld());
    client.Say("hold\n");
    Serve();
    EXPECT_TRUE(m_server.IsHeld());
    client.Say("counters\n");
    Serve();
    EXPECT_TRUE(m_server.IsHeld());
    client.Say("release\n");
    Serve();
    EXPECT_FALSE(m_server.IsHeld());
}

TEST_F(ControlServerTest, AReloadEndsTheHoldBeforeItIsAnswered) {
    const Client client(m_path);
    client.Say("hold\n");
    Serve();
    client.Say("reloaded\n");
    m_server.Serve([this](const std::string&) {
        EXPECT_FALSE(m_server.IsHeld());
        return "changes";
    });
    EXPECT_EQ("<hold>\nchanges\n", client.Heard());
}

TEST_F(ControlServerTest, AHoldEndsWithItsConnection) {
    Client client(m_path);
    client.Say("hold\n");
    Serve();
    client.Close();
    EXPECT_TRUE(m_server.IsHeld());
    Serve();
    EXPECT_FALSE(m_server.IsHeld());
}

TEST_F(ControlServerTest, NobodyElseEndsOrTakesOverAHold) {
    const Client holder(m_path);
    Client other(m_path);
    holder.Say("hold\n");
    Serve();
    other.Say("hold\nrelease\nreloaded\n");
    Serve();
    EXPECT_TRUE(m_server.IsHeld());
    other.Close();
    Serve();
    EXPECT_TRUE(m_server.IsHeld());
}

TEST_F(ControlServerTest, ARequestWithoutAnEndIsRefused) {
    const Client patient(m_path);
    const Client client(m_path);
    patient.Say(std::string(256, 'x'));
    client.Say(std::string(257, 'x'));
    Serve();
    EXPECT_EQ("", patient.Heard());
    EXPECT_EQ("gone", client.Heard());
}

TEST_F(ControlServerTest, MoreThanSixteenConnectionsAreRefused) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int count = 0; count < 17; ++count) {
        clients.push_back(std::make_unique<Client>(m_path));
        Serve();
    }
    EXPECT_EQ("", clients[15]->Heard());
    EXPECT_EQ("gone", clients[16]->Heard());
    clients[0]->Close();
    Serve();
    const Client next(m_path);
    next.Say("counters\n");
    Serve();
    EXPECT_EQ("<counters>\n", next.Heard());
}

TEST_F(ControlServerTest, PollLooksAtTheSocketAndAtEachConnection) {
    std::vector<pollfd> entries;
    m_server.AddTo(entries);
    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ(0, poll(entries.data(), 1, 0));
    const Client client(m_path);
    EXPECT_EQ(1, poll(entries.data(), 1, 0));
    Serve();
    entries.clear();
    m_server.AddTo(entries);
    ASSERT_EQ(2U, entries.size());
    EXPECT_EQ(0, poll(entries.data(), 2, 0));
    client.Say("counters\n");
    EXPECT_EQ(1, poll(entries.data(), 2, 0));
    EXPECT_EQ(POLLIN, entries[1].revents);
}

TEST_F(ControlServerTest, TheConnectionsAreNotInheritedAndDoNotWait) {
    const Client client(m_path);
    Serve();
    std::vector<pollfd> entries;
    m_server.AddTo(entries);
    ASSERT_EQ(2U, entries.size());
    EXPECT_EQ(FD_CLOEXEC, fcntl(entries[1].fd, F_GETFD));
    EXPECT_NE(0, fcntl(entries[1].fd, F_GETFL) & O_NONBLOCK);
}

TEST_F(ControlServerTest, TheSocketKeepsASecondFeederOut) {
    ControlServer second;
    EXPECT_NE("", second.Open(m_path));
}

}  // namespace
}  // namespace tarnctl
