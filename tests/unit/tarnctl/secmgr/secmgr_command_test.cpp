#include "tarnctl/secmgr/secmgr_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "support/temp_dir.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/socket_file.h"
#include "unit/tarnctl/quarantine/quarantine_parts.h"
#include "unit/tarnctl/quarantine/scripted_engine.h"
#include "unit/tarnctl/secmgr/secmgr_requests.h"

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace tarnctl {
namespace {

constexpr const char* kPastRule = "ip intruder addr 203.0.113.1 expires 2020-01-01T00:00:00Z";
const std::string kAdded = Words({15, 0});
const std::string kRefused = Words({3, 0});

// A rule that is in force for an hour.
std::string LiveRule(const std::string& pieces = " intruder addr 203.0.113.1") {
    return "ip" + pieces + " expires " + UtcText(std::time(nullptr) + 3600);
}

class Client {
  public:
    explicit Client(const std::string& path)
        : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        // The manager is on its way up.
        while (connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            std::this_thread::yield();
        }
    }
    ~Client() { close(m_fd); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void Send(const std::string& bytes) const {
        ASSERT_EQ(send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Up to this many bytes; fewer when the manager closes.
    std::string Receive(size_t length) const {
        std::string bytes(length, '\0');
        const ssize_t got = recv(m_fd, bytes.data(), length, MSG_WAITALL);
        bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return bytes;
    }
    std::string Ask(const std::string& rule, uint32_t issueId = 1) const {
        Send(RequestFrame(rule, issueId));
        return Receive(8);
    }
    // Whether the manager has read all that was sent.
    bool IsTaken() const {
        int pending = 1;
        return ioctl(m_fd, SIOCOUTQ, &pending) == 0 && pending == 0;
    }
    // Whether the connection is open and without an answer.
    bool HasNothing() const {
        pollfd entry = {m_fd, POLLIN, 0};
        return poll(&entry, 1, 0) == 0;
    }

  private:
    const int m_fd;
};

// Runs the manager on a thread until a test's script is through.
class SecmgrCommandTest : public testing::Test {
  protected:
    SecmgrCommandTest() {
        m_options.socketPath = m_dir.File("socket");
        m_options.timeout = 20;  // a manager that waits for what never comes ends nevertheless
    }

    // The script must ask as often as the options' count says.
    template <typename Script>
    int Run(Script script) {
        int status = -1;
        std::thread manager([&] { status = RunSecmgr(m_options, m_out, m_err); });
        script();
        manager.join();
        return status;
    }

    TempDir m_dir;
    SecmgrOptions m_options;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(SecmgrCommandTest, AcceptsARuleAndShowsIt) {
    m_options.count = 1;
    const std::string rule = LiveRule();
    EXPECT_EQ(kExitFine,
              Run([&] { EXPECT_EQ(kAdded, Client(m_options.socketPath).Ask(rule, 77)); }));
    EXPECT_THAT(m_out.str(), EndsWith("  accepted  SID 77  flags 1  " + rule + "\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("serving at " + m_options.socketPath));
    EXPECT_THAT(m_err.str(), HasSubstr("tarnctl secmgr: 1 rule in force\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("s left  asked for 1 time  " + rule));
    EXPECT_THAT(m_err.str(), EndsWith("tarnctl secmgr: 1 rule, 1 accepted\n"));
}

TEST_F(SecmgrCommandTest, AcceptsARuleWhoseEndHasComeAndDoesNotKeepIt) {
    m_options.count = 1;
    EXPECT_EQ(kExitFine,
              Run([&] { EXPECT_EQ(kAdded, Client(m_options.socketPath).Ask(kPastRule)); }));
    EXPECT_THAT(m_out.str(), EndsWith("  (its end has come already)\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("0 rules in force\n"));
}

TEST_F(SecmgrCommandTest, ShowsTheRuleAndItsPartsAsJson) {
    m_options.count = 1;
    m_options.json = true;
    const std::string rule =
        "ipv6 victim addr 2001:db8::1 icmpv6 type 128 counter 100b expires 2026-11-12T15:00:00Z";
    EXPECT_EQ(kExitFine, Run([&] { (void)Client(m_options.socketPath).Ask(rule, 5); }));
    json shown = json::parse(m_out.str());
    EXPECT_LE(std::abs(shown["time"].get<time_t>() - std::time(nullptr)), 20);
    shown.erase("time");
    EXPECT_EQ(shown, json::parse(R"({
        "flags": 1, "issueId": 5, "accepted": true, "answer": "15", "reason": null,
        "rule": ")" + rule + R"(",
        "parts": {"ipVersion": 6, "intruder": null, "victim": "2001:db8::1", "protocol": 58,
                  "icmpType": 128, "icmpCode": null, "sourcePort": 0, "destinationPort": 0,
                  "counter": 100, "expirationTime": 1794495600}})"));
}

TEST_F(SecmgrCommandTest, RefusesATextThatIsNoRule) {
    m_options.count = 1;
    EXPECT_EQ(kExitFine,
              Run([&] { EXPECT_EQ(kRefused, Client(m_options.socketPath).Ask("ip\x1b")); }));
    EXPECT_THAT(m_out.str(), HasSubstr("  not accepted (the line begins with \"ip\\x1B\""));
    EXPECT_THAT(m_err.str(), EndsWith("1 rule, 0 accepted\n"));
}

TEST_F(SecmgrCommandTest, ServesASecondClientWhileTheFirstIsSilent) {
    m_options.count = 2;
    EXPECT_EQ(kExitFine, Run([&] {
                  const Client first(m_options.socketPath);
                  const std::string frame = RequestFrame(kPastRule, 1);
                  first.Send(frame.substr(0, 11));
                  EXPECT_EQ(kAdded, Client(m_options.socketPath).Ask(kPastRule));
                  first.Send(frame.substr(11));
                  EXPECT_EQ(kAdded, first.Receive(8));
              }));
}

TEST_F(SecmgrCommandTest, ClosesAConnectionForAMalformedRequestAndGoesOn) {
    m_options.count = 2;
    m_options.json = true;
    EXPECT_EQ(kExitFailure, Run([&] {
                  const Client other(m_options.socketPath);
                  EXPECT_EQ(kAdded, other.Ask(kPastRule));
                  const Client wrong(m_options.socketPath);
                  wrong.Send(Words({12, 4}));
                  EXPECT_EQ("", wrong.Receive(1)) << "closed";
                  EXPECT_EQ(kAdded, other.Ask(kPastRule));
              }));
    EXPECT_THAT(m_err.str(),
                HasSubstr("malformed request of 8 bytes skipped: command 12 is unknown; its "
                          "connection is closed\n"));
    EXPECT_THAT(m_err.str(), EndsWith("2 rules, 2 accepted, 1 malformed\n"));
    EXPECT_THAT(
        m_out.str(),
        HasSubstr("{\"malformed\":\"command 12 is unknown\",\"bytes\":\"DAAAAAQAAAA=\"}\n"));
}

TEST_F(SecmgrCommandTest, TellsOfARequestThatIsCutOff) {
    m_options.count = 1;
    EXPECT_EQ(kExitFailure, Run([&] {
                  { Client(m_options.socketPath).Send("abc"); }
                  EXPECT_EQ(kAdded, Client(m_options.socketPath).Ask(kPastRule));
              }));
    EXPECT_THAT(m_err.str(),
                HasSubstr("malformed request of 3 bytes skipped: the connection ended within it"));
}

TEST_F(SecmgrCommandTest, AnswersWronglyOnPurpose) {
    struct Wrong {
        std::string word;
        std::string bytes;
    };
    for (const Wrong& wrong : {Wrong{"3", kRefused},
                               {"close", ""},
                               {"short", Words({15})},
                               {"long", Words({15, 4, 0})}}) {
        m_options.count = 1;
        m_options.answer = wrong.word;
        EXPECT_EQ(kExitFine, Run([&] {
                      const Client client(m_options.socketPath);
                      client.Send(RequestFrame(LiveRule(), 1));
                      EXPECT_EQ(client.Receive(100), wrong.bytes) << wrong.word;
                  }));
        EXPECT_THAT(m_out.str(), HasSubstr("answered wrongly on purpose: " + wrong.word));
    }
    EXPECT_THAT(m_err.str(), Not(HasSubstr("1 rule in force")));
}

TEST_F(SecmgrCommandTest, StaysSilentAndKeepsTheConnection) {
    m_options.count = 3;
    m_options.answer = "silent";
    m_options.failFirst = 1;
    EXPECT_EQ(kExitFine, Run([&] {
                  const Client first(m_options.socketPath);
                  first.Send(RequestFrame(kPastRule, 1));
                  while (!first.IsTaken()) {
                      std::this_thread::yield();
                  }
                  const Client second(m_options.socketPath);
                  EXPECT_EQ(kAdded, second.Ask(kPastRule));
                  EXPECT_TRUE(first.HasNothing());
                  EXPECT_EQ(kAdded, first.Ask(kPastRule));
              }));
    EXPECT_THAT(m_err.str(), EndsWith("3 rules, 2 accepted\n"));
}

TEST_F(SecmgrCommandTest, BehavesAfterTheFirstFailures) {
    m_options.count = 3;
    m_options.failFirst = 2;
    EXPECT_EQ(kExitFine, Run([&] {
                  EXPECT_EQ("", Client(m_options.socketPath).Ask(kPastRule));
                  EXPECT_EQ("", Client(m_options.socketPath).Ask(kPastRule));
                  EXPECT_EQ(kAdded, Client(m_options.socketPath).Ask(kPastRule));
              }));
    EXPECT_THAT(m_err.str(), EndsWith("3 rules, 1 accepted\n"));
}

TEST_F(SecmgrCommandTest, ShowsTheTableAtItsSignal) {
    m_options.count = 2;
    const std::string rule = LiveRule();
    EXPECT_EQ(kExitFine, Run([&] {
                  const Client client(m_options.socketPath);
                  EXPECT_EQ(kAdded, client.Ask(rule));
                  kill(getpid(), SIGUSR1);
                  EXPECT_EQ(kAdded, client.Ask(rule));
              }));
    const std::string text = m_err.str();
    EXPECT_NE(text.find("1 rule in force"), text.rfind("1 rule in force"));
    EXPECT_THAT(text, HasSubstr("asked for 2 times"));
}

TEST_F(SecmgrCommandTest, EndsAfterItsQuietTimeAndRemovesItsSocket) {
    m_options.timeout = 0.01;
    EXPECT_EQ(kExitFine, RunSecmgr(m_options, m_out, m_err));
    struct stat file = {};
    EXPECT_NE(0, lstat(m_options.socketPath.c_str(), &file));
}

TEST_F(SecmgrCommandTest, IsRefusedWhereAnotherManagerServes) {
    SocketFile other;
    ASSERT_EQ("", other.Open(m_options.socketPath, SOCK_STREAM));
    ASSERT_EQ(0, listen(other.Descriptor(), 1));
    EXPECT_EQ(kExitFailure, RunSecmgr(m_options, m_out, m_err));
    EXPECT_THAT(m_err.str(), HasSubstr("another receiver is there already"));
    struct stat file = {};
    EXPECT_EQ(0, lstat(m_options.socketPath.c_str(), &file)) << "the other's socket stays";
}

class SecmgrNftTest : public SecmgrCommandTest {
  protected:
    SecmgrNftTest() {
        m_options.nft = true;
        m_options.count = 1;
        m_options.nftEngine = ScriptedEngine::Maker(m_dir.Path());
        m_options.objectionToNetwork = [] { return std::string(); };
    }
    std::string Script() const { return m_dir.Read("changes"); }
};

TEST_F(SecmgrNftTest, PutsAnAcceptedRuleIntoTheKernel) {
    EXPECT_EQ(kExitFine,
              Run([&] { EXPECT_EQ(kAdded, Client(m_options.socketPath).Ask(LiveRule())); }));
    EXPECT_THAT(Script(), HasSubstr("hook prerouting priority raw"));
    EXPECT_THAT(Script(), HasSubstr("add set inet tarn ip_saddr "));
    EXPECT_THAT(Script(), testing::ContainsRegex("203.0.113.1 timeout 0d(3600|3599)s"));
    EXPECT_THAT(Script(), EndsWith("s }\n")) << "the table stays";
}

TEST_F(SecmgrNftTest, RemovesTheTableAtTheEndIfTold) {
    m_options.flush = true;
    EXPECT_EQ(kExitFine,
              Run([&] { EXPECT_EQ(kAdded, Client(m_options.socketPath).Ask(LiveRule())); }));
    EXPECT_THAT(Script(), EndsWith("delete table inet tarn\n"));
}

TEST_F(SecmgrNftTest, RefusesWhatTheKernelDoesNotTake) {
    m_dir.Write("fail", "1");
    EXPECT_EQ(kExitFine,
              Run([&] { EXPECT_EQ(kRefused, Client(m_options.socketPath).Ask(LiveRule())); }));
    EXPECT_THAT(m_out.str(), HasSubstr("not accepted (nft: Error: no such thing)"));
    EXPECT_THAT(m_err.str(), HasSubstr("0 rules in force"));
}

TEST_F(SecmgrNftTest, FailsWhenTheTableCannotBeRemoved) {
    m_options.flush = true;
    m_dir.Write("fail", "2");
    EXPECT_EQ(kExitFailure,
              Run([&] { EXPECT_EQ(kAdded, Client(m_options.socketPath).Ask(LiveRule())); }));
    EXPECT_THAT(m_err.str(), HasSubstr("tarnctl secmgr: nft: Error: no such thing\n"));
}

TEST_F(SecmgrNftTest, ReadsItsListsAgainAtAHangup) {
    m_options.count = 3;
    m_options.neverFile = {m_dir.Write("never", "")};
    const std::string rule = LiveRule();
    EXPECT_EQ(kExitFine, Run([&] {
                  const Client client(m_options.socketPath);
                  EXPECT_EQ(kAdded, client.Ask(rule));
                  m_dir.Write("never", "203.0.113.0/24\n");
                  kill(getpid(), SIGHUP);
                  // The signal interrupts the manager's wait or comes before the next one.
                  EXPECT_EQ(kAdded, client.Ask(LiveRule(" intruder addr 198.51.100.1")));
                  EXPECT_EQ(kRefused, client.Ask(rule));
              }));
    EXPECT_THAT(m_err.str(), HasSubstr("the lists were read again\n"));
    EXPECT_THAT(m_err.str(),
                HasSubstr("no longer in force (203.0.113.1 is never quarantined, as part of "
                          "203.0.113.0/24): SID 1"));
    EXPECT_THAT(Script(), EndsWith(" }\n"));
}

TEST_F(SecmgrNftTest, DoesNotBeginWithoutNft) {
    m_options.nftEngine = {};
    EXPECT_EQ(kExitFailure, RunSecmgr(m_options, m_out, m_err));
    EXPECT_THAT(m_err.str(), HasSubstr("--nft: this tarnctl was built without libnftables"));
}

TEST_F(SecmgrNftTest, DoesNotBeginWithAListThatCannotBeRead) {
    m_options.neverFile = {m_dir.File("none")};
    EXPECT_EQ(kExitFailure, RunSecmgr(m_options, m_out, m_err));
    EXPECT_EQ("", Script()) << "nothing was done yet";
}

TEST_F(SecmgrCommandTest, RefusesMoreRulesThanItsLimit) {
    m_options.count = 4;
    m_options.maxRules = 1;
    EXPECT_EQ(kExitFine, Run([&] {
                  const Client client(m_options.socketPath);
                  EXPECT_EQ(kAdded, client.Ask(LiveRule()));
                  EXPECT_EQ(kRefused, client.Ask(LiveRule(" intruder addr 203.0.113.2")));
                  EXPECT_EQ(kAdded, client.Ask(LiveRule())) << "it is in force already";
                  EXPECT_EQ(kAdded, client.Ask(kPastRule)) << "it is not kept";
              }));
    EXPECT_THAT(m_out.str(),
                HasSubstr("not accepted (the limit of 1 rule in force is reached (--max-rules))"));
}

}  // namespace
}  // namespace tarnctl
