#include "tarnctl/crm/eve_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "support/temp_dir.h"

namespace tarnctl {
namespace {

constexpr std::string_view kTwo = "{\"timestamp\":1}\n{\"timestamp\":2}\n";

class EveSocketTest : public testing::Test {
  protected:
    ~EveSocketTest() override {
        close(m_connection);
        close(m_listener);
    }

    void Listen(int type = SOCK_STREAM) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, m_path.c_str());
        std::filesystem::remove(m_path);
        m_listener = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        ASSERT_EQ(0, bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
        ASSERT_TRUE(type == SOCK_DGRAM || listen(m_listener, 4) == 0);
    }
    void Accept() {
        m_connection = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_NE(-1, m_connection);
    }
    void CloseAll() {
        close(m_connection);
        close(m_listener);
        m_connection = m_listener = -1;
    }
    std::string Read() const {
        std::string text(1 << 20, '\0');
        text.resize(static_cast<size_t>(
            std::max<ssize_t>(0, recv(m_connection, text.data(), text.size(), MSG_DONTWAIT))));
        return text;
    }
    // Offers until the sink tries again after a failure.
    static size_t TakeLater(EveSocket& sink, std::string_view lines) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        size_t taken = 0;
        while ((taken = sink.Take(lines)) == 0 && !sink.Error().empty() &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return taken;
    }

    const TempDir m_folder;
    const std::string m_path = m_folder.File("collector");
    int m_listener = -1;
    int m_connection = -1;
};

TEST_F(EveSocketTest, HasTakenWhatTheOtherEndHasRead) {
    Listen();
    EveSocket sink(m_path);
    ASSERT_EQ("", sink.Open());
    Accept();
    EXPECT_EQ(0U, sink.Take(kTwo));
    EXPECT_EQ("", sink.Error());
    EXPECT_EQ(kTwo, Read());
    EXPECT_EQ(kTwo.size(), sink.Take(kTwo));
    EXPECT_EQ("", Read());
}

TEST_F(EveSocketTest, TakesWhatIsReadMeanwhile) {
    Listen();
    EveSocket sink(m_path);
    ASSERT_EQ("", sink.Open());
    Accept();
    std::string lines;
    for (int i = 0; i < 30000; ++i) {
        lines += "{\"timestamp\":" + std::to_string(i) + "}\n";
    }
    std::string text;
    std::jthread reader([this, &text, size = lines.size()] {
        std::string part(4096, '\0');
        while (text.size() < size) {
            const ssize_t count = recv(m_connection, part.data(), part.size(), 0);
            text.append(part.data(), static_cast<size_t>(std::max<ssize_t>(0, count)));
        }
    });
    size_t taken = 0;
    while (taken < lines.size() && sink.Error().empty()) {
        taken += sink.Take(std::string_view(lines).substr(taken));
        ASSERT_TRUE(taken == 0 || lines[taken - 1] == '\n');
    }
    reader.join();
    EXPECT_EQ(lines, text);
}

TEST_F(EveSocketTest, SendsWhatWasNotReadToTheNextThatListens) {
    Listen();
    EveSocket sink(m_path);
    ASSERT_EQ("", sink.Open());
    Accept();
    EXPECT_EQ(0U, sink.Take(kTwo));
    CloseAll();
    EXPECT_EQ(0U, sink.Take(kTwo));
    EXPECT_EQ("unix:" + m_path + ": the other end has closed", sink.Error());
    Listen();
    EXPECT_EQ(0U, TakeLater(sink, kTwo));
    Accept();
    EXPECT_EQ(kTwo, Read());
    EXPECT_EQ(kTwo.size(), sink.Take(kTwo));
}

TEST_F(EveSocketTest, StartsWithoutAnyoneAndSaysSo) {
    EveSocket sink(m_path);
    EXPECT_EQ("", sink.Open());
    EXPECT_EQ("unix:" + m_path + ": nobody listens", sink.Error());
    EXPECT_EQ(0U, sink.Take(kTwo));
    Listen();
    EXPECT_EQ(0U, TakeLater(sink, kTwo));
    EXPECT_EQ("", sink.Error());
    Accept();
    EXPECT_EQ(kTwo, Read());
}

TEST_F(EveSocketTest, SaysThatASocketOfDatagramsIsNone) {
    Listen(SOCK_DGRAM);
    EveSocket sink(m_path);
    EXPECT_EQ("", sink.Open());
    EXPECT_EQ("unix:" + m_path + ": it is no stream socket", sink.Error());
}

TEST_F(EveSocketTest, RefusesANameThatNoSocketHas) {
    EXPECT_NE("", EveSocket("").Open());
    EXPECT_NE("", EveSocket(std::string(108, 'x')).Open());
    EXPECT_EQ("", EveSocket(std::string(107, 'x')).Open());
}

TEST_F(EveSocketTest, DoesNotGoOnWithinWhatIsForgotten) {
    Listen();
    EveSocket sink(m_path);
    ASSERT_EQ("", sink.Open());
    Accept();
    EXPECT_EQ(0U, sink.Take(kTwo));
    sink.Forget();
    EXPECT_EQ(0U, sink.Take("other\n"));
    Accept();
    EXPECT_EQ("other\n", Read());
}

}  // namespace
}  // namespace tarnctl
