#include "quarantine/request_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "support/golden_bytes.h"
#include "support/request_client_fixture.h"

namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

using RequestClientReceiveResponse = RequestClientTest;
using RequestClientReceiveRecords = RequestClientTest;

TEST_F(RequestClientReceiveResponse, GivesAHeaderWithoutABody) {
    ConnectTo([](Session& session) {
        session.Send(GoldenBytes("security_manager_added.txt"));
        session.StaySilent();
    });
    EXPECT_TRUE(Receive());
    EXPECT_EQ(GoldenBytes("security_manager_added.txt"), Response());
}

TEST_F(RequestClientReceiveResponse, PutsABodyTogetherThatComesInPieces) {
    ConnectTo([](Session& session) {
        session.Send({9, 0, 0, 0, 5});
        session.AwaitTaken();
        session.Send({0, 0, 0});
        session.Send({'a', 'b'});
        session.AwaitTaken();
        session.Send({'c', 'd', 'e', 'f', 'g'});
        session.StaySilent();
    });
    EXPECT_TRUE(Receive());
    EXPECT_EQ((Bytes{9, 0, 0, 0, 5, 0, 0, 0, 'a', 'b', 'c', 'd', 'e'}), Response());
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(RequestClientReceiveResponse, KeepsABodyThatIsCutForASuccess) {
    ConnectTo([](Session& session) {
        session.SendWords(1, 100);
        session.Send(Iota(40));
    });
    EXPECT_TRUE(Receive());
    EXPECT_EQ(48U, m_size);
    const Bytes response = Response();
    EXPECT_EQ(Iota(40), Bytes(response.begin() + 8, response.end()));
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(RequestClientReceiveResponse, LivesWithAPromiseOf4GiB) {
    ConnectTo([](Session& session) {
        session.SendWords(1, 0xFFFFFFFF);
        session.Send(Iota(40));
    });
    EXPECT_TRUE(Receive());
    EXPECT_EQ(48U, m_size);
}

TEST_F(RequestClientReceiveResponse, ReportsAHeaderThatIsCut) {
    ConnectTo([](Session& session) { session.Send(Iota(5)); });
    EXPECT_FALSE(Receive());
    EXPECT_EQ(0U, m_size);
    EXPECT_EQ(nullptr, m_response);
    EXPECT_THAT(m_reports, ElementsAre("1 Unexpected response length: 5"));
}

TEST_F(RequestClientReceiveResponse, ReportsAPeerThatClosesWithoutAnAnswer) {
    ConnectTo([](Session& session) { session.ReadRequest(); });
    ASSERT_TRUE(m_client.SendRequest(7, "body", 4));
    EXPECT_FALSE(Receive());
    EXPECT_THAT(m_reports, ElementsAre("1 Unexpected response length: 0"));
}

TEST_F(RequestClientReceiveResponse, ReportsAPeerThatStaysSilent) {
    ConnectTo([](Session& session) { session.StaySilent(); });
    const auto start = steady_clock::now();
    EXPECT_FALSE(Receive(kLimit));
    EXPECT_GE(steady_clock::now() - start, std::chrono::seconds(kLimit));
    EXPECT_EQ(0U, m_size);
    EXPECT_THAT(m_reports, ElementsAre("1 Timeout waiting for response."));
    EXPECT_TRUE(m_client.SendRequest(7, nullptr, 0)) << "the socket stays as it is";
}

TEST_F(RequestClientReceiveResponse, FailsOnAClosedClientAndLeavesTheSize) {
    EXPECT_FALSE(Receive());
    EXPECT_EQ(77U, m_size);
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(RequestClientReceiveResponse, ReportsALimitThatIsNoTime) {
    ConnectTo([](Session& session) { session.StaySilent(); });
    EXPECT_FALSE(Receive(-1));
    EXPECT_THAT(m_reports, ElementsAre("1 Failed to wait for response, reason: Invalid argument"));
}

TEST_F(RequestClientReceiveResponse, ReportsASocketThatFails) {
    ConnectTo([](Session& session) {
        session.Read(9);  // both sends are done, and what is left unread makes the close a reset
        session.Send(Iota(4));
    });
    ASSERT_TRUE(m_client.SendRequest(7, "body", 4));
    EXPECT_FALSE(Receive());
    EXPECT_THAT(m_reports,
                ElementsAre("1 recv returned -1: 104\n", "1 Unexpected response length: 4"));
}

TEST_F(RequestClientReceiveResponse, RefusesADescriptorBeyondTheReachOfSelect) {
    rlimit former{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &former));
    if (former.rlim_max < FD_SETSIZE + 64) {
        GTEST_SKIP() << "this machine allows no more than " << former.rlim_max << " descriptors";
    }
    const rlimit many{FD_SETSIZE + 64, former.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &many));
    m_peer = std::make_unique<StreamPeer>(m_path, [](Session& session) { session.StaySilent(); });
    std::vector<int> taken;
    while (taken.empty() || taken.back() < FD_SETSIZE) {
        taken.push_back(dup(STDERR_FILENO));
        ASSERT_NE(-1, taken.back());
    }
    EXPECT_TRUE(m_client.Connect(m_path.c_str(), 1));
    EXPECT_FALSE(Receive());
    EXPECT_THAT(m_reports,
                ElementsAre("1 Failed to wait for response, reason: Too many open files"));
    m_client.Disconnect();
    for (const int fd : taken) {
        close(fd);
    }
    m_peer.reset();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &former));
}

TEST_F(RequestClientReceiveRecords, GivesTheHeaderAVectorAndTheRecords) {
    ConnectTo([](Session& session) {
        session.SendWords(9, 3);
        session.Send(Iota(12));
        session.StaySilent();
    });
    ASSERT_TRUE(ReceiveRecords(4));
    EXPECT_EQ(8U + 12U, m_size);
    EXPECT_EQ((Bytes{9, 0, 0, 0, 3, 0, 0, 0}), Bytes(m_response.get(), m_response.get() + 8));
    const auto* vector = reinterpret_cast<const iovec*>(m_response.get() + 8);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(m_response.get() + 8 + 3 * sizeof(iovec) + 4 * i, vector[i].iov_base);
        EXPECT_EQ(4U, vector[i].iov_len);
    }
    const auto* first = static_cast<const uint8_t*>(vector[0].iov_base);
    EXPECT_EQ(Iota(12), Bytes(first, first + 12));
}

TEST_F(RequestClientReceiveRecords, PutsRecordsTogetherThatComeInPieces) {
    constexpr size_t kCount = 5000;  // more than one readv takes entries
    const Bytes records = Iota(kCount * 3);
    ConnectTo([&](Session& session) {
        session.SendWords(0, kCount);
        session.AwaitTaken();
        session.Send(Bytes(records.begin(), records.begin() + 7));
        session.AwaitTaken();
        session.Send(Bytes(records.begin() + 7, records.end()));
        session.StaySilent();
    });
    ASSERT_TRUE(ReceiveRecords(3));
    EXPECT_EQ(8 + records.size(), m_size);
    const auto* vector = reinterpret_cast<const iovec*>(m_response.get() + 8);
    const auto* last = static_cast<const uint8_t*>(vector[kCount - 1].iov_base);
    EXPECT_EQ(Bytes(records.end() - 3, records.end()), Bytes(last, last + 3));
    EXPECT_EQ(3U, vector[kCount - 1].iov_len);
    const auto* first = static_cast<const uint8_t*>(vector[0].iov_base);
    EXPECT_EQ(records, Bytes(first, first + records.size()));
}

TEST_F(RequestClientReceiveRecords, GivesTheHeaderForNoRecords) {
    ConnectTo([](Session& session) {
        session.SendWords(9, 0);
        session.StaySilent();
    });
    EXPECT_TRUE(ReceiveRecords(4));
    EXPECT_EQ((Bytes{9, 0, 0, 0, 0, 0, 0, 0}), Response());
}

TEST_F(RequestClientReceiveRecords, EndsWithAReportWhenTheRecordsAreCut) {
    ConnectTo([](Session& session) {
        session.SendWords(9, 3);
        session.Send(Iota(5));
    });
    EXPECT_FALSE(ReceiveRecords(4));
    EXPECT_EQ(8U, m_size);
    EXPECT_EQ(nullptr, m_response);
    EXPECT_THAT(m_reports, ElementsAre("1 read 5 of 12 data bytes"));
}

TEST_F(RequestClientReceiveRecords, ReportsASocketThatFails) {
    ConnectTo([](Session& session) {
        session.Read(9);
        session.SendWords(9, 3);
        session.Send(Iota(5));
    });
    ASSERT_TRUE(m_client.SendRequest(7, "body", 4));
    EXPECT_FALSE(ReceiveRecords(4));
    EXPECT_THAT(m_reports, ElementsAre("1 readv error: Connection reset by peer"));
}

TEST_F(RequestClientReceiveRecords, RefusesACountThatNoLengthCanHold) {
    ConnectTo([](Session& session) {
        session.SendWords(9, 0x40000000);
        session.SendWords(9, 0xFFFFFFFF);
        session.StaySilent();
    });
    EXPECT_FALSE(ReceiveRecords(4));
    EXPECT_FALSE(ReceiveRecords(0xFFFFFFFFFFFFFFFF));
    EXPECT_THAT(m_reports, ElementsAre("1 read 0 of 4294967295 data bytes",
                                       "1 read 0 of 4294967295 data bytes"));
}

TEST_F(RequestClientReceiveRecords, SharesTheFailuresOfTheHeader) {
    EXPECT_FALSE(ReceiveRecords(4));
    EXPECT_EQ(77U, m_size);
    ConnectTo([](Session& session) { session.Send(Iota(5)); });
    EXPECT_FALSE(ReceiveRecords(4));
    EXPECT_EQ(0U, m_size);
    EXPECT_THAT(m_reports, ElementsAre("1 Unexpected response length: 5"));
}

std::atomic<int> s_interruptions;
std::atomic<int> s_answerAfter;  // the number of interruptions that brings the answer
std::atomic<int> s_answerTo;     // the descriptor to answer on

void Interrupt(int) {
    if (++s_interruptions == s_answerAfter) {
        const char header[8] = {};
        (void)!write(s_answerTo, header, sizeof(header));
    }
}

// Interrupts the calling thread every 20 ms for as long as it lives.
class Interruptions {
  public:
    Interruptions() {
        s_interruptions = 0;
        struct sigaction action {};
        action.sa_handler = &Interrupt;  // without SA_RESTART, so calls come back with EINTR
        sigaction(SIGUSR1, &action, &m_former);
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGUSR1;
        event._sigev_un._tid = gettid();
        timer_create(CLOCK_MONOTONIC, &event, &m_timer);
        const itimerspec every{{0, 20000000}, {0, 20000000}};
        timer_settime(m_timer, 0, &every, nullptr);
    }
    ~Interruptions() {
        timer_delete(m_timer);
        sigaction(SIGUSR1, &m_former, nullptr);
    }

  private:
    timer_t m_timer{};
    struct sigaction m_former {};
};

class RequestClientInterrupted : public RequestClientTest {
  protected:
    // A connected client whose peer sends an empty answer from the signal handler.
    void AnswerAfter(int interruptions) {
        ConnectTo([this](Session& session) {
            m_duplicate.set_value(dup(session.Descriptor()));
            session.StaySilent();
        });
        s_answerTo = m_duplicate.get_future().get();
        s_answerAfter = interruptions;
    }
    RequestClientInterrupted() {
        s_answerTo = -1;
        s_answerAfter = -1;
    }
    ~RequestClientInterrupted() override {
        if (s_answerTo >= 0) {
            close(s_answerTo);
        }
    }

    std::promise<int> m_duplicate;  // of the peer's end, for the handler
};

TEST_F(RequestClientInterrupted, SurvivesFourInterruptionsOfTheWait) {
    AnswerAfter(4);
    const Interruptions interruptions;
    EXPECT_TRUE(Receive());
    EXPECT_EQ(8U, m_size);
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(RequestClientInterrupted, FailsAtTheFifthInterruptionThoughItBringsTheAnswer) {
    AnswerAfter(5);
    const Interruptions interruptions;
    EXPECT_FALSE(Receive());
    EXPECT_EQ(0U, m_size);
    EXPECT_THAT(m_reports,
                ElementsAre("1 Failed to wait for response, reason: Interrupted system call"));
}

TEST_F(RequestClientInterrupted, ReadsOnAfterAnyNumberOfInterruptions) {
    for (const bool asRecords : {false, true}) {
        m_client.Disconnect();
        m_peer.reset();
        std::promise<void> headerSent;
        ConnectTo([&headerSent](Session& session) {
            session.SendWords(0, 4);
            headerSent.set_value();
            session.AwaitTaken();
            const int before = s_interruptions;
            while (s_interruptions < before + 8) {
                std::this_thread::yield();
            }
            session.Send({1, 2, 3, 4});
            session.StaySilent();
        });
        headerSent.get_future().wait();  // or five interruptions might end the wait for it
        const Interruptions interruptions;
        EXPECT_TRUE(asRecords ? ReceiveRecords(1) : Receive());
        EXPECT_EQ(12U, m_size);
        EXPECT_THAT(m_reports, IsEmpty());
    }
}

}  // namespace
