#include "quarantine/dbt_comm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "support/golden_bytes.h"
#include "support/levelled_log.h"
#include "support/stream_peer.h"
#include "support/temp_dir.h"
#include "threads/cancellation.h"

namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using Bytes = StreamPeer::Bytes;
using Session = StreamPeer::Session;
using Script = StreamPeer::Script;

constexpr const char* kRule = "ip expires 2026-11-12T15:00:00Z";
constexpr uint32_t kFlags = 1;
constexpr uint32_t kIssueId = 0x01020304;
constexpr int32_t kLimit = 1;          // seconds, where the limit is meant to run out
constexpr int32_t kPlentyOfTime = 60;  // where it is not

// What AddQuarantineRules gave, what it logged, and the requests that came to the peer.
struct Outcome {
    int result = 0;
    std::vector<Bytes> requests;
    std::vector<std::string> log;
};

using Lines = std::vector<std::string>;

const std::string kTrying = "5 DbtComm is trying to add quarantine rule(s) after ";
const std::string kTextEnd = std::string(" failure(s): ") + kRule;
const Lines kFirstTry = {kTrying + "0" + kTextEnd, "5 issueIdRef=16909060"};
const Lines kSecondTry = {kTrying + "1" + kTextEnd, "5 issueIdRef=16909060"};
const Lines kOpens = {"4 DbtComm command channel is not opened. Open it before sending command.",
                      "5 DbtComm opened command channel."};
const Lines kSendFails = {"1 DbtComm failed to send command.",
                          "2 DbtComm failed to send add quarantine rule request."};
const Lines kReceiveFails = {"1 DbtComm failed to receive command response.",
                             "2 DbtComm failed to send add quarantine rule request."};
const Lines kWillRetry = {"4 DbtComm will reset command channel and retry operation."};
const Lines kReset = {"4 DbtComm will reset command channel and retry operation.",
                      "5 DbtComm closed command channel.", "5 DbtComm opened command channel."};
const Lines kAdded = {"5 DbtComm received response of size 8.",
                      "5 Quarantine rules are added successfully."};
const Lines kInvalid = {"2 Invalid response received by DbtComm for add quarantine rules request."};
const Lines kDestroyed = {"5 DbtComm closed command channel."};

Lines operator+(const Lines& front, const Lines& back) {
    Lines both = front;
    both.insert(both.end(), back.begin(), back.end());
    return both;
}

class DbtCommTest : public testing::Test {
  protected:
    // One rule, handed by a fresh channel to a peer with these scripts; none for no peer at all.
    Outcome AddOneRule(const std::vector<Script>& scripts, int32_t timeout = kPlentyOfTime) {
        Outcome outcome;
        outcome.log = LevelledMessages([&] {
            std::unique_ptr<StreamPeer> peer;
            if (!scripts.empty()) {
                peer = std::make_unique<StreamPeer>(m_path, Keeping(scripts, peer));
            }
            {
                DbtComm channel(m_path, timeout);
                outcome.result = channel.AddQuarantineRules(kFlags, kRule, kIssueId, 0);
            }
            if (peer != nullptr) {
                outcome.requests = peer->Requests();
            }
        });
        return outcome;
    }

    // The scripts with a request that is read and kept before each.
    static std::vector<Script> Keeping(const std::vector<Script>& scripts,
                                       std::unique_ptr<StreamPeer>& peer) {
        std::vector<Script> keeping;
        for (const Script& script : scripts) {
            keeping.push_back([script, &peer](Session& session) {
                peer->Keep(session.ReadRequest());
                script(session);
            });
        }
        return keeping;
    }

    static Script Answer(uint32_t status) {
        return [status](Session& session) {
            session.SendWords(status, 0);
            session.StaySilent();
        };
    }
    static void Close(Session&) {}
    static void Silence(Session& session) { session.StaySilent(); }
    static void TwelveBytes(Session& session) {
        session.Send({15, 0, 0, 0, 4, 0, 0, 0, 1, 2, 3, 4});
        session.StaySilent();
    }
    static void FiveBytes(Session& session) { session.Send({15, 0, 0, 0, 0}); }

    TempDir m_dir;
    const std::string m_path = m_dir.File("manager");
    const Bytes m_frame = GoldenBytes("security_manager_add_rules.txt");
};

using DbtCommAddQuarantineRules = DbtCommTest;
using DbtCommSendCommand = DbtCommTest;
using DbtCommOpen = DbtCommTest;

// ---- AddQuarantineRules ----

TEST_F(DbtCommAddQuarantineRules, GivesZeroAndSendsOneFrameWhenTheManagerAdds) {
    const Outcome outcome = AddOneRule({Answer(15)});
    EXPECT_EQ(0, outcome.result);
    EXPECT_THAT(outcome.requests, ElementsAre(m_frame));
    EXPECT_THAT(outcome.log, ElementsAreArray(kFirstTry + kOpens + kAdded + kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, DoesNotRetryARefusal) {
    const Outcome outcome = AddOneRule({Answer(3)});
    EXPECT_EQ(-2, outcome.result);
    EXPECT_THAT(outcome.requests, ElementsAre(m_frame));
    EXPECT_THAT(outcome.log, ElementsAreArray(kFirstTry + kOpens +
                                              Lines{"5 DbtComm received response of size 8.",
                                                    "2 Failed to add quarantine rules: 3"} +
                                              kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, GivesUpWhenTheManagerClosesAfterBothRequests) {
    const Outcome outcome = AddOneRule({Close});
    EXPECT_EQ(-2, outcome.result);
    EXPECT_THAT(outcome.requests, ElementsAre(m_frame, m_frame));
    const Lines closed = {"1 Unexpected response length: 0"};
    EXPECT_THAT(outcome.log, ElementsAreArray(kFirstTry + kOpens + closed + kReceiveFails + kReset +
                                              kSecondTry + closed + kReceiveFails + kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, SucceedsOnTheRetryWhenTheManagerComesBack) {
    const Outcome outcome = AddOneRule({Close, Answer(15)});
    EXPECT_EQ(0, outcome.result);
    EXPECT_THAT(outcome.requests, ElementsAre(m_frame, m_frame));
    EXPECT_THAT(outcome.log,
                ElementsAreArray(kFirstTry + kOpens + Lines{"1 Unexpected response length: 0"} +
                                 kReceiveFails + kReset + kSecondTry + kAdded + kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, DoesNotRetryARefusalOfTheRetry) {
    const Outcome outcome = AddOneRule({Close, Answer(0xFFFFFFFF)});
    EXPECT_EQ(-2, outcome.result);
    EXPECT_THAT(outcome.requests, ElementsAre(m_frame, m_frame));
    EXPECT_THAT(outcome.log,
                ElementsAreArray(kFirstTry + kOpens + Lines{"1 Unexpected response length: 0"} +
                                 kReceiveFails + kReset + kSecondTry +
                                 Lines{"5 DbtComm received response of size 8.",
                                       "2 Failed to add quarantine rules: 4294967295"} +
                                 kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, AbortsWhenTheManagerIsNotThere) {
    const Outcome outcome = AddOneRule({});
    EXPECT_EQ(-2, outcome.result);
    const Lines openFails = {"1 Unable to connect socket, reason: No such file or directory",
                             "1 DbtComm failed to open command channel."};
    EXPECT_THAT(
        outcome.log,
        ElementsAreArray(
            kFirstTry + Lines{kOpens[0]} + openFails +
            Lines{"1 DbtComm command channel cannot to opened.", kSendFails[1]} + kWillRetry +
            Lines{"3 DbtComm attempts to close command channel but it was not opened."} +
            openFails +
            Lines{"1 DbtComm aborts retry because command channel cannot to reopened."}));
}

TEST_F(DbtCommAddQuarantineRules, GivesUpWhenTheManagerStaysSilentTwice) {
    const Outcome outcome = AddOneRule({Silence}, kLimit);
    EXPECT_EQ(-2, outcome.result);
    EXPECT_THAT(outcome.requests, ElementsAre(m_frame, m_frame));
    const Lines silent = {"1 Timeout waiting for response."};
    EXPECT_THAT(outcome.log, ElementsAreArray(kFirstTry + kOpens + silent + kReceiveFails + kReset +
                                              kSecondTry + silent + kReceiveFails + kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, RetriesAResponseThatIsTooLong) {
    const Lines invalid = Lines{"5 DbtComm received response of size 12."} + kInvalid;
    const Outcome twice = AddOneRule({TwelveBytes});
    EXPECT_EQ(-2, twice.result);
    EXPECT_THAT(twice.requests, ElementsAre(m_frame, m_frame));
    EXPECT_THAT(twice.log, ElementsAreArray(kFirstTry + kOpens + invalid + kReset + kSecondTry +
                                            invalid + kDestroyed));
    const Outcome once = AddOneRule({TwelveBytes, Answer(15)});
    EXPECT_EQ(0, once.result);
    EXPECT_THAT(once.log, ElementsAreArray(kFirstTry + kOpens + invalid + kReset + kSecondTry +
                                           kAdded + kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, RetriesAResponseThatIsTooShort) {
    const Outcome outcome = AddOneRule({FiveBytes});
    EXPECT_EQ(-2, outcome.result);
    EXPECT_THAT(outcome.requests, ElementsAre(m_frame, m_frame));
    const Lines cut = {"1 Unexpected response length: 5"};
    EXPECT_THAT(outcome.log, ElementsAreArray(kFirstTry + kOpens + cut + kReceiveFails + kReset +
                                              kSecondTry + cut + kReceiveFails + kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, RetriesABodyThatIsCut) {
    const Outcome outcome = AddOneRule({[](Session& session) {
                                            session.SendWords(15, 100);
                                            session.Send(Bytes(40));
                                        },
                                        Answer(15)});
    EXPECT_EQ(0, outcome.result);
    EXPECT_THAT(outcome.requests, ElementsAre(m_frame, m_frame));
    EXPECT_THAT(
        outcome.log,
        ElementsAreArray(kFirstTry + kOpens + Lines{"5 DbtComm received response of size 48."} +
                         kInvalid + kReset + kSecondTry + kAdded + kDestroyed));
}

// The manager went away and came back between two rules, so the first send meets a dead socket.
TEST_F(DbtCommAddQuarantineRules, RetriesASendThatFails) {
    int result = -1;
    std::vector<Bytes> requests;
    const Lines log = LevelledMessages([&] {
        DbtComm channel(m_path, kPlentyOfTime);
        {
            StreamPeer gone(m_path, Close);
            ASSERT_EQ(0, channel.Open());
        }
        std::unique_ptr<StreamPeer> peer;
        peer = std::make_unique<StreamPeer>(m_path, Keeping({Answer(15)}, peer));
        result = channel.AddQuarantineRules(kFlags, kRule, kIssueId, 0);
        requests = peer->Requests();
        channel.Close();
    });
    EXPECT_EQ(0, result);
    EXPECT_THAT(requests, ElementsAre(m_frame));
    EXPECT_THAT(log, ElementsAreArray(Lines{"5 DbtComm opened command channel."} + kFirstTry +
                                      kSendFails + kReset + kSecondTry + kAdded + kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, GivesUpASendThatFailsAfterAFailure) {
    int result = 0;
    const Lines log = LevelledMessages([&] {
        DbtComm channel(m_path, kPlentyOfTime);
        {
            StreamPeer gone(m_path, Close);
            ASSERT_EQ(0, channel.Open());
        }
        result = channel.AddQuarantineRules(kFlags, kRule, kIssueId, 1);
    });
    EXPECT_EQ(-2, result);
    EXPECT_THAT(log, ElementsAreArray(Lines{"5 DbtComm opened command channel."} + kSecondTry +
                                      kSendFails + kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, KeepsAFailedChannelMarkedAsOpenForTheNextRule) {
    int first = 0;
    int second = -1;
    const Lines log = LevelledMessages([&] {
        std::unique_ptr<StreamPeer> peer;
        peer = std::make_unique<StreamPeer>(m_path, Keeping({Close, Close, Answer(15)}, peer));
        DbtComm channel(m_path, kPlentyOfTime);
        first = channel.AddQuarantineRules(kFlags, kRule, kIssueId, 0);
        second = channel.AddQuarantineRules(kFlags, kRule, kIssueId, 0);
    });
    EXPECT_EQ(-2, first);
    EXPECT_EQ(0, second);
    const Lines closed = Lines{"1 Unexpected response length: 0"} + kReceiveFails;
    EXPECT_THAT(
        log, ElementsAreArray(kFirstTry + kOpens + closed + kReset + kSecondTry + closed +
                              kFirstTry + kSendFails + kReset + kSecondTry + kAdded + kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, StaysConnectedBetweenRules) {
    std::vector<Bytes> requests;
    const Lines log = LevelledMessages([&] {
        std::unique_ptr<StreamPeer> peer;
        peer = std::make_unique<StreamPeer>(m_path, [&peer](Session& session) {
            for (int rule = 0; rule < 2; ++rule) {
                peer->Keep(session.ReadRequest());
                session.SendWords(15, 0);
            }
            session.StaySilent();
        });
        DbtComm channel(m_path, kPlentyOfTime);
        EXPECT_EQ(0, channel.AddQuarantineRules(kFlags, kRule, kIssueId, 0));
        EXPECT_EQ(0, channel.AddQuarantineRules(kFlags, kRule, kIssueId, 0));
        requests = peer->Requests();
    });
    EXPECT_THAT(requests, ElementsAre(m_frame, m_frame));
    EXPECT_THAT(log,
                ElementsAreArray(kFirstTry + kOpens + kAdded + kFirstTry + kAdded + kDestroyed));
}

TEST_F(DbtCommAddQuarantineRules, SendsNothingForANullOrEmptyText) {
    EXPECT_THAT(LevelledMessages([&] {
                    DbtComm channel(m_path, kPlentyOfTime);
                    EXPECT_EQ(-1, channel.AddQuarantineRules(kFlags, "", kIssueId, 0));
                    EXPECT_EQ(-1, channel.AddQuarantineRules(kFlags, nullptr, kIssueId, 0));
                }),
                IsEmpty());
}

// ---- SendCommand ----

TEST_F(DbtCommSendCommand, AwaitsNoResponseUnlessBothOutPointersAreGiven) {
    StreamPeer peer(m_path, Silence);
    DbtComm channel(m_path, kPlentyOfTime);
    uint8_t* response = nullptr;
    uint64_t length = 0;
    EXPECT_EQ(0, channel.SendCommand(12, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(0, channel.SendCommand(12, nullptr, 0, &response, nullptr));
    EXPECT_EQ(0, channel.SendCommand(12, nullptr, 0, nullptr, &length));
}

TEST_F(DbtCommSendCommand, GivesTheResponseToTheCaller) {
    StreamPeer peer(m_path, [](Session& session) {
        EXPECT_EQ((Bytes{12, 0, 0, 0, 3, 0, 0, 0, 'a', 'b', 'c'}), session.ReadRequest());
        TwelveBytes(session);
    });
    DbtComm channel(m_path, kPlentyOfTime);
    uint8_t* response = nullptr;
    uint64_t length = 0;
    ASSERT_EQ(0, channel.SendCommand(12, "abc", 3, &response, &length));
    EXPECT_EQ((Bytes{15, 0, 0, 0, 4, 0, 0, 0, 1, 2, 3, 4}), Bytes(response, response + length));
    RequestClient::FreeResponse(response);
}

TEST_F(DbtCommSendCommand, WaitsFiveSecondsUnlessToldOtherwise) {
    StreamPeer peer(m_path, Silence);
    DbtComm channel(m_path);
    uint8_t* response = nullptr;
    uint64_t length = 0;
    const auto start = steady_clock::now();
    EXPECT_EQ(-1, channel.SendCommand(11, nullptr, 0, &response, &length));
    const auto waited = steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::seconds(5));
    EXPECT_LT(waited, std::chrono::seconds(10));
    EXPECT_EQ(nullptr, response);
}

TEST_F(DbtCommSendCommand, LetsACancelLandWhileTheManagerIsSilent) {
    std::promise<void> asked;
    StreamPeer peer(m_path, [&asked](Session& session) {
        session.ReadRequest();
        asked.set_value();
        session.StaySilent();
    });
    const LogCapture log;
    pthread_t thread{};
    const auto run = [](void* path) -> void* {
        const CancellationOff outsideTheWaits;
        DbtComm channel(*static_cast<const std::string*>(path), kPlentyOfTime);
        (void)channel.AddQuarantineRules(kFlags, kRule, kIssueId, 0);
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, run, const_cast<std::string*>(&m_path)));
    asked.get_future().wait();
    ASSERT_EQ(0, pthread_cancel(thread));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EXPECT_EQ("DbtComm closed command channel.", log.Messages().back());
}

TEST_F(DbtCommSendCommand, KeepsTheLateAnswerOfACancelledRuleFromTheNextOne) {
    std::promise<void> asked;
    std::promise<void> cancelled;
    StreamPeer peer(m_path, std::vector<Script>{[&](Session& session) {
                                                    session.ReadRequest();
                                                    asked.set_value();
                                                    cancelled.get_future().wait();
                                                    session.SendWords(3, 0);
                                                },
                                                [](Session& session) {
                                                    session.ReadRequest();
                                                    session.SendWords(15, 0);
                                                }});
    DbtComm channel(m_path, kPlentyOfTime);
    pthread_t thread{};
    const auto run = [](void* target) -> void* {
        const CancellationOff outsideTheWaits;
        (void)static_cast<DbtComm*>(target)->AddQuarantineRules(kFlags, kRule, kIssueId, 0);
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, run, &channel));
    asked.get_future().wait();
    ASSERT_EQ(0, pthread_cancel(thread));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    cancelled.set_value();
    EXPECT_EQ(0, channel.AddQuarantineRules(kFlags, kRule, kIssueId, 0))
        << "the refusal was the cancelled rule's";
}

// ---- Open and Close ----

TEST_F(DbtCommOpen, TakesAnOpenChannelForASuccess) {
    EXPECT_THAT(
        LevelledMessages([&] {
            StreamPeer peer(m_path, Silence);
            DbtComm channel(m_path, kPlentyOfTime);
            EXPECT_EQ(0, channel.Open());
            EXPECT_EQ(0, channel.Open());
            channel.Close();
            channel.Close();
        }),
        ElementsAre("5 DbtComm opened command channel.",
                    "3 DbtComm attempts to open command channel but it has been opened already.",
                    "5 DbtComm closed command channel.",
                    "3 DbtComm attempts to close command channel but it was not opened."));
}

TEST_F(DbtCommOpen, FailsWithoutAManager) {
    EXPECT_THAT(LevelledMessages([&] {
                    DbtComm channel(m_path, kPlentyOfTime);
                    EXPECT_EQ(-1, channel.Open());
                }),
                ElementsAre("1 Unable to connect socket, reason: No such file or directory",
                            "1 DbtComm failed to open command channel."));
}

TEST_F(DbtCommOpen, PassesTheClientsReportsToTheLogUnchanged) {
    const Lines log = LevelledMessages([&] {
        StreamPeer peer(m_path, [](Session& session) {
            // Both sends are done then, and what is left unread makes the close a reset.
            session.Read(9);
            session.Send({1, 2, 3, 4});
        });
        DbtComm channel(m_path, kPlentyOfTime);
        uint8_t* response = nullptr;
        uint64_t length = 0;
        EXPECT_EQ(-1, channel.SendCommand(11, "abc", 3, &response, &length));
    });
    EXPECT_THAT(log, ElementsAreArray(kOpens +
                                      Lines{"1 recv returned -1: 104", "1 ",
                                            "1 Unexpected response length: 4", kReceiveFails[0]} +
                                      kDestroyed));
}

}  // namespace
