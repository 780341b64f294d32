#include "tarnctl/common/line_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace tarnctl {
namespace {

class LineServerTest : public testing::Test {
  protected:
    static constexpr size_t kLongest = 20;

    ~LineServerTest() override {
        if (m_fd != -1) {
            close(m_fd);
        }
    }
    void Open(mode_t mode = SocketFile::kForItsUserOnly) {
        ASSERT_EQ("", m_server.Open(m_path, mode));
        m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        ASSERT_EQ(0, connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    }
    void Say(const std::string& text) const {
        ASSERT_EQ(static_cast<ssize_t>(text.size()), send(m_fd, text.data(), text.size(), 0));
    }
    void Serve() {
        m_server.Serve(
            [this](const LineClient& client, const std::string& line) {
                m_users.push_back(client.user);
                m_lines.push_back(line);
                return m_answer.empty() ? "<" + line + ">" : m_answer;
            },
            [this](const LineClient& client) { m_gone.push_back(client.id); });
    }
    // What has come so far; "gone" when the server has closed the connection.
    std::string Heard() const {
        std::string text;
        std::array<char, 65536> buffer = {};
        ssize_t count = 0;
        while ((count = recv(m_fd, buffer.data(), buffer.size(), 0)) > 0) {
            text.append(buffer.data(), static_cast<size_t>(count));
        }
        return count == 0 || errno == ECONNRESET ? text + "gone" : text;
    }
    short WaitedFor() {
        std::vector<pollfd> entries;
        m_server.AddTo(entries);
        return entries.back().events;
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.File("sock");
    LineServer m_server{kLongest};
    int m_fd = -1;
    std::string m_answer;
    std::vector<std::string> m_lines;
    std::vector<uid_t> m_users;
    std::vector<uint64_t> m_gone;
};

TEST_F(LineServerTest, KnowsTheUserOfEachClient) {
    Open();
    Say("a\nb\n");
    Serve();
    EXPECT_EQ((std::vector<uid_t>{getuid(), getuid()}), m_users);
    EXPECT_EQ("<a>\n<b>\n", Heard());
}

TEST_F(LineServerTest, KeepsAnAnswerUntilTheClientHasReadIt) {
    Open();
    m_answer.assign(3000000, 'x');
    Say("a\nb\n");
    Serve();
    EXPECT_EQ(1U, m_lines.size()) << "the next is not heard until then";
    EXPECT_EQ(POLLOUT, WaitedFor());
    Say("c\n");
    Serve();
    EXPECT_EQ(1U, m_lines.size());
    std::string text = Heard();
    while (text.size() < 3 * (m_answer.size() + 1)) {
        Serve();
        text += Heard();
    }
    EXPECT_EQ(m_answer + "\n" + m_answer + "\n" + m_answer + "\n", text);
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), m_lines);
    EXPECT_EQ(POLLIN, WaitedFor());
}

TEST_F(LineServerTest, TellsOfAConnectionThatHasEnded) {
    Open();
    Say("a\n");
    Serve();
    EXPECT_TRUE(m_gone.empty());
    close(m_fd);
    m_fd = -1;
    Serve();
    EXPECT_EQ((std::vector<uint64_t>{1}), m_gone);
}

TEST_F(LineServerTest, RefusesALineThatIsTooLong) {
    Open();
    Say(std::string(kLongest, 'x') + "\n");
    Serve();
    EXPECT_EQ("<" + std::string(kLongest, 'x') + ">\n", Heard());
    Say(std::string(kLongest + 1, 'x') + "\n");
    Serve();
    EXPECT_EQ("gone", Heard());
    EXPECT_EQ(1U, m_lines.size());
}

TEST_F(LineServerTest, GivesTheSocketTheModeWhateverTheUmask) {
    const mode_t before = umask(0077);
    Open(0660);
    umask(before);
    struct stat file = {};
    ASSERT_EQ(0, stat(m_path.c_str(), &file));
    EXPECT_EQ(0660U, file.st_mode & 0777U);
}

}  // namespace
}  // namespace tarnctl
