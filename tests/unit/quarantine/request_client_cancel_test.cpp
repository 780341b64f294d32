#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>

#include <functional>
#include <future>

#include "quarantine/request_client.h"
#include "support/bound_socket.h"
#include "support/request_client_fixture.h"
#include "threads/cancellation.h"

// A thread that waits for a peer is cancelled there, and nothing of it stays.

namespace {

using RequestClientCancel = RequestClientTest;

// Runs a call of a client of its own on a thread whose cancellation is off, and cancels it once
// isWaiting says so. True when the thread ended by the cancel.
bool IsCancelledIn(const std::function<void(RequestClient&)>& call,
                   const std::function<void()>& isWaiting) {
    pthread_t thread{};
    const auto run = [](void* argument) -> void* {
        const CancellationOff outsideTheWaits;
        RequestClient client;
        (*static_cast<const std::function<void(RequestClient&)>*>(argument))(client);
        return nullptr;
    };
    if (pthread_create(&thread, nullptr, run,
                       const_cast<std::function<void(RequestClient&)>*>(&call)) != 0) {
        return false;
    }
    isWaiting();
    void* result = nullptr;
    return pthread_cancel(thread) == 0 && pthread_join(thread, &result) == 0 &&
           result == PTHREAD_CANCELED;
}

TEST_F(RequestClientCancel, LandsInTheWaitForAnAnswer) {
    const size_t before = OpenDescriptors();
    {
        std::promise<void> asked;
        StreamPeer peer(m_path, [&](Session& session) {
            session.ReadRequest();
            asked.set_value();
            session.StaySilent();
        });
        EXPECT_TRUE(IsCancelledIn(
            [&](RequestClient& client) {
                uint8_t* buffer = nullptr;
                uint64_t size = 0;
                (void)client.Transact(m_path.c_str(), 1, nullptr, 0, &buffer, &size, kPlentyOfTime);
            },
            [&] { asked.get_future().wait(); }));
    }
    EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(RequestClientCancel, LandsInABodyThatNeverComes) {
    const size_t before = OpenDescriptors();
    for (const bool asRecords : {false, true}) {
        std::promise<void> headerTaken;
        StreamPeer peer(m_path, [&](Session& session) {
            session.SendWords(1, 1000);
            session.Send(Iota(40));
            session.AwaitTaken();
            headerTaken.set_value();
            session.StaySilent();
        });
        EXPECT_TRUE(IsCancelledIn(
            [&](RequestClient& client) {
                uint8_t* buffer = nullptr;
                uint64_t size = 0;
                if (asRecords) {
                    (void)client.TransactRecords(m_path.c_str(), 1, nullptr, 0, &buffer, &size, 1,
                                                 kPlentyOfTime);
                } else {
                    (void)client.Transact(m_path.c_str(), 1, nullptr, 0, &buffer, &size,
                                          kPlentyOfTime);
                }
            },
            [&] { headerTaken.get_future().wait(); }));
    }
    EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(RequestClientCancel, LandsInAConnectWithoutALimit) {
    const size_t before = OpenDescriptors();
    {
        const BoundSocket listener(SOCK_STREAM, m_path);
        ASSERT_EQ(0, listen(listener.Descriptor(), 0));
        ASSERT_TRUE(m_client.Connect(m_path.c_str(), 1));  // now the backlog is full
        EXPECT_TRUE(IsCancelledIn(
            [&](RequestClient& client) { (void)client.Connect(m_path.c_str(), 0); }, [] {}));
        m_client.Disconnect();
    }
    EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(RequestClientCancel, StaysPendingOutsideTheWaits) {
    StreamPeer peer(m_path, [](Session& session) { session.StaySilent(); });
    bool reachedTheEnd = false;
    EXPECT_FALSE(IsCancelledIn(
        [&](RequestClient& client) {
            pthread_cancel(pthread_self());
            EXPECT_TRUE(client.Connect(m_path.c_str(), kPlentyOfTime));
            EXPECT_TRUE(client.SendRequest(1, "body", 4));
            client.Disconnect();
            reachedTheEnd = true;
        },
        [] {}));
    EXPECT_TRUE(reachedTheEnd);
}

}  // namespace
