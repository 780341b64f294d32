// Against a server of Debian's package, which each test starts for itself.

#include "tarnctl/crm/redis_sink.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace tarnctl {
namespace {

constexpr std::string_view kTwo = "{\"timestamp\":1}\n{\"timestamp\":2}\n";
constexpr std::string_view kMore = "{\"timestamp\":1}\n{\"timestamp\":2}\n{\"timestamp\":3}\n";

bool WaitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// A port of the loopback that nobody has, of this family; 0 when there is none.
uint16_t FreePort(int family) {
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    address.ss_family = static_cast<sa_family_t>(family);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (family == AF_INET6) {
        reinterpret_cast<sockaddr_in6*>(any)->sin6_addr = in6addr_loopback;
    } else {
        reinterpret_cast<sockaddr_in*>(any)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool isBound = bind(fd, any, size) == 0 && getsockname(fd, any, &size) == 0;
    close(fd);
    return isBound ? ntohs(reinterpret_cast<sockaddr_in*>(any)->sin_port) : uint16_t{0};
}

class RedisSinkTest : public testing::Test {
  protected:
    RedisSinkTest() { std::signal(SIGPIPE, SIG_IGN); }
    ~RedisSinkTest() override { Kill(); }

    void Start(const std::string& address = "127.0.0.1", uint16_t port = 0) {
        const std::string portText = std::to_string(port);
        m_process = fork();
        if (m_process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execlp("redis-server", "redis-server", "--port", portText.c_str(), "--bind",
                   address.c_str(), "--unixsocket", m_path.c_str(), "--save", "", "--dir",
                   m_folder.Path().c_str(), "--logfile", "/dev/null", nullptr);
            _exit(127);
        }
        ASSERT_LT(0, m_process);
        ASSERT_TRUE(WaitFor([this] { return Ask({"PING"}) == "PONG"; }));
    }
    void Kill() {
        if (m_process > 0) {
            kill(m_process, SIGKILL);
            waitpid(m_process, nullptr, 0);
            unlink(m_path.c_str());
        }
        m_process = -1;
    }
    // The answer to a command: a text, a number, or a text for each line of a stream.
    std::string Ask(const std::vector<const char*>& words,
                    std::vector<std::string>* lines = nullptr) {
        const std::unique_ptr<redisContext, void (*)(redisContext*)> context(
            redisConnectUnix(m_path.c_str()), redisFree);
        if (context == nullptr || context->err != 0) {
            return "";
        }
        auto* const reply = static_cast<redisReply*>(
            redisCommandArgv(context.get(), static_cast<int>(words.size()),
                             const_cast<const char**>(words.data()), nullptr));
        if (reply == nullptr) {
            return "";
        }
        for (size_t i = 0; i < reply->elements && lines != nullptr; ++i) {
            const redisReply* const pairs = reply->element[i]->element[1];
            lines->push_back(std::string(pairs->element[0]->str) + ' ' + pairs->element[1]->str);
        }
        std::string text = reply->type == REDIS_REPLY_INTEGER ? std::to_string(reply->integer)
                           : reply->str != nullptr            ? reply->str
                                                              : "";
        freeReplyObject(reply);
        return text;
    }
    std::vector<std::string> Entries() {
        std::vector<std::string> lines;
        (void)Ask({"XRANGE", "alerts", "-", "+"}, &lines);
        return lines;
    }
    // Offers until so many bytes are taken.
    static size_t TakeLater(RedisSink& sink, std::string_view lines) {
        size_t taken = 0;
        (void)WaitFor([&] {
            taken += sink.Take(lines.substr(taken));
            return taken == lines.size();
        });
        return taken;
    }
    // Offers until there is a failure.
    static std::string Failure(RedisSink& sink, std::string_view lines) {
        EXPECT_TRUE(WaitFor([&] {
            EXPECT_EQ(0U, sink.Take(lines));
            return !sink.Error().empty();
        }));
        return sink.Error();
    }

    const TempDir m_folder;
    const std::string m_path = m_folder.File("redis");
    pid_t m_process = -1;
    RedisSink m_sink{"unix:" + m_path, "alerts", 1'000'000};
};

TEST_F(RedisSinkTest, HasTakenWhatTheServerHas) {
    Start();
    ASSERT_EQ("", m_sink.Open());
    EXPECT_EQ("", m_sink.Error());
    EXPECT_EQ(kTwo.size(), TakeLater(m_sink, kTwo));
    EXPECT_THAT(Entries(), ElementsAre("eve {\"timestamp\":1}", "eve {\"timestamp\":2}"));
    EXPECT_EQ("redis", m_sink.Kind());
    EXPECT_EQ("unix:" + m_path + " alerts", m_sink.Target());
}

TEST_F(RedisSinkTest, TakesManyLinesInTheirOrder) {
    Start();
    ASSERT_EQ("", m_sink.Open());
    std::string lines;
    std::vector<std::string> expected;
    for (int i = 0; i < 5000; ++i) {
        const std::string line = std::string(1000, 'x') + std::to_string(i);
        lines += line + '\n';
        expected.push_back("eve " + line);
    }
    EXPECT_EQ(lines.size(), TakeLater(m_sink, lines));
    EXPECT_EQ(expected, Entries());
}

TEST_F(RedisSinkTest, KeepsAStreamAtAboutItsLimit) {
    Start();
    RedisSink sink("unix:" + m_path, "alerts", 10);
    ASSERT_EQ("", sink.Open());
    std::string lines;
    for (int i = 0; i < 5000; ++i) {
        lines += kTwo;
    }
    EXPECT_EQ(lines.size(), TakeLater(sink, lines));
    EXPECT_GT(500, std::stoi(Ask({"XLEN", "alerts"})));
}

TEST_F(RedisSinkTest, WaitsForAServerThatIsAway) {
    ASSERT_EQ("", m_sink.Open());
    EXPECT_EQ("unix:" + m_path + " alerts: nobody listens", Failure(m_sink, kTwo));
    Start();
    EXPECT_EQ(kTwo.size(), TakeLater(m_sink, kTwo));
    EXPECT_EQ("", m_sink.Error());
}

TEST_F(RedisSinkTest, SaysThatTheServerHasGoneAndGoesOnWithTheNextOne) {
    Start();
    ASSERT_EQ("", m_sink.Open());
    EXPECT_EQ(kTwo.size(), TakeLater(m_sink, kTwo));
    Kill();
    EXPECT_THAT(Failure(m_sink, kTwo), EndsWith(": the other end has closed"));
    Start();
    EXPECT_EQ(kTwo.size(), TakeLater(m_sink, kTwo));
    EXPECT_EQ(2U, Entries().size());
}

TEST_F(RedisSinkTest, NamesWhatTheServerRefuses) {
    Start();
    ASSERT_EQ("OK", Ask({"SET", "alerts", "a text"}));
    ASSERT_EQ("", m_sink.Open());
    EXPECT_THAT(Failure(m_sink, kTwo), HasSubstr("alerts: WRONGTYPE "));
    ASSERT_EQ("1", Ask({"DEL", "alerts"}));
    EXPECT_EQ(kTwo.size(), TakeLater(m_sink, kTwo));
    EXPECT_EQ("", m_sink.Error());
    EXPECT_EQ(2U, Entries().size());
}

TEST_F(RedisSinkTest, SendsOnceWhatIsOfferedAgainWhileItIsUnderWay) {
    Start();
    ASSERT_EQ("", m_sink.Open());
    const std::string_view first = kTwo.substr(0, kTwo.size() / 2);
    EXPECT_EQ(first.size(), TakeLater(m_sink, first));
    kill(m_process, SIGSTOP);
    EXPECT_EQ(0U, m_sink.Take(kTwo));
    EXPECT_EQ("", m_sink.Error());
    EXPECT_EQ(0U, m_sink.Take(kMore));
    kill(m_process, SIGCONT);
    EXPECT_EQ(kMore.size(), TakeLater(m_sink, kMore));
    EXPECT_EQ(4U, Entries().size());
}

TEST_F(RedisSinkTest, SendsAgainWhatHadNoAnswer) {
    Start();
    ASSERT_EQ("", m_sink.Open());
    EXPECT_EQ(kTwo.size(), TakeLater(m_sink, kTwo));
    kill(m_process, SIGSTOP);
    EXPECT_EQ(0U, m_sink.Take(kTwo));
    Kill();
    Start();
    EXPECT_EQ(kTwo.size(), TakeLater(m_sink, kTwo));
    EXPECT_EQ(2U, Entries().size());
}

TEST_F(RedisSinkTest, ForgetsWhatIsUnderWay) {
    Start();
    ASSERT_EQ("", m_sink.Open());
    kill(m_process, SIGSTOP);
    EXPECT_EQ(0U, m_sink.Take(kMore));
    m_sink.Forget();
    EXPECT_EQ(0U, m_sink.Take(kTwo));
    kill(m_process, SIGCONT);
    EXPECT_EQ(kTwo.size(), TakeLater(m_sink, kTwo));
}

TEST_F(RedisSinkTest, GivesUpAServerThatIsSilent) {
    Start();
    ASSERT_EQ("", m_sink.Open());
    EXPECT_EQ(kTwo.size(), TakeLater(m_sink, kTwo));
    kill(m_process, SIGSTOP);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(Failure(m_sink, kTwo), EndsWith("alerts: no answer for 5 seconds"));
    EXPECT_LE(std::chrono::seconds(5), std::chrono::steady_clock::now() - start);
}

TEST_F(RedisSinkTest, TriesAgainAtOnceWhenItBeginsAnew) {
    ASSERT_EQ("", m_sink.Open());
    EXPECT_NE("", Failure(m_sink, kTwo));
    m_sink.Reopen();
    EXPECT_EQ("", m_sink.Error());
}

TEST_F(RedisSinkTest, GoesToAPort) {
    const uint16_t port = FreePort(AF_INET);
    RedisSink sink("127.0.0.1:" + std::to_string(port), "alerts", 10);
    ASSERT_EQ("", sink.Open());
    EXPECT_THAT(Failure(sink, kTwo), EndsWith("alerts: nobody listens"));
    Start("127.0.0.1", port);
    EXPECT_EQ(kTwo.size(), TakeLater(sink, kTwo));
    EXPECT_EQ(2U, Entries().size());
}

TEST_F(RedisSinkTest, GoesToAnIpv6Address) {
    const uint16_t port = FreePort(AF_INET6);
    if (port == 0) {
        GTEST_SKIP() << "this machine has no IPv6";
    }
    Start("::1", port);
    RedisSink sink("[::1]:" + std::to_string(port), "alerts", 10);
    ASSERT_EQ("", sink.Open());
    EXPECT_EQ(kTwo.size(), TakeLater(sink, kTwo));
    EXPECT_EQ(2U, Entries().size());
}

TEST_F(RedisSinkTest, NamesAServerThatHasNoAddress) {
    RedisSink sink("no such host:6379", "alerts", 10);
    ASSERT_EQ("", sink.Open());
    EXPECT_THAT(sink.Error(), testing::StartsWith("no such host:6379 alerts: "));
    EXPECT_THAT(sink.Error(), testing::Not(HasSubstr("nobody")));
}

TEST_F(RedisSinkTest, WantsAServerWithItsPort) {
    for (const char* const server : {"", "host", "host:", ":6379", "host:0", "host:65536",
                                     "host:1x", "::1:6379", "[]:6379", "unix:", "host:-1"}) {
        RedisSink sink(server, "alerts", 10);
        EXPECT_EQ("--redis " + std::string(server) +
                      ": name the server as HOST:PORT, [ADDRESS]:PORT or unix:PATH",
                  sink.Open());
    }
}

}  // namespace
}  // namespace tarnctl
