#include "quarantine/request_client.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/allocation_count.h"
#include "support/bound_socket.h"
#include "support/golden_bytes.h"
#include "support/request_client_fixture.h"

namespace {

// What the next connect() of this thread does in place of the real one.
thread_local std::function<int(int fd)> t_connectInstead;

// The seconds that the last select() of this thread was given; -1 before any.
thread_local time_t t_selectSeconds = -1;

}  // namespace

// A local stream socket never connects in the background, so that road is shown by a connect()
// that says it does. Every other caller gets the real one. A cancel may unwind through this frame,
// whose red zones the address sanitizer would then take for those of a later one.
extern "C" __attribute__((no_sanitize("address"))) int connect(int fd, const sockaddr* address,
                                                               socklen_t length) {
    if (t_connectInstead) {
        return std::exchange(t_connectInstead, nullptr)(fd);
    }
    static const auto real =
        reinterpret_cast<int (*)(int, const sockaddr*, socklen_t)>(dlsym(RTLD_NEXT, "connect"));
    return real(fd, address, length);
}

// Notes the limit and waits as usual.
extern "C" __attribute__((no_sanitize("address"))) int select(int count, fd_set* toRead,
                                                              fd_set* toWrite, fd_set* failed,
                                                              timeval* limit) {
    t_selectSeconds = limit->tv_sec;
    static const auto real = reinterpret_cast<int (*)(int, fd_set*, fd_set*, fd_set*, timeval*)>(
        dlsym(RTLD_NEXT, "select"));
    return real(count, toRead, toWrite, failed, limit);
}

namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

using RequestClientConnect = RequestClientTest;
using RequestClientSendRequest = RequestClientTest;
using RequestClientTransact = RequestClientTest;

// Tells one open descriptor from another under the same number: the peer is a thread of this
// process and may be given a number as soon as it is free. 0 when nothing is open there.
ino_t InodeAt(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

__attribute__((format(printf, 3, 4))) void ThrowReport(uint64_t, uint32_t, const char*, ...) {
    throw std::runtime_error("the owner's log is full");
}

TEST_F(RequestClientConnect, GivesABlockingSocketThatNoChildInherits) {
    for (const int32_t timeout : {-1, 0, 1}) {
        // A peer for each, since one that ends a session closes a descriptor when it likes.
        const std::string path = m_path + std::to_string(timeout);
        StreamPeer peer(path, [](Session& session) { session.StaySilent(); });
        const int fd = NextDescriptor();
        ASSERT_TRUE(m_client.Connect(path.c_str(), timeout));
        EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
        const ino_t socket = InodeAt(fd);
        EXPECT_NE(0U, socket);
        m_client.Disconnect();
        EXPECT_NE(socket, InodeAt(fd));
    }
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(RequestClientConnect, ReportsAPathWithNoSocket) {
    const size_t before = OpenDescriptors();
    EXPECT_FALSE(m_client.Connect(m_path.c_str(), 1));
    EXPECT_FALSE(m_client.Connect(m_path.c_str(), 0));
    EXPECT_THAT(m_reports,
                ElementsAre("1 Unable to connect socket, reason: No such file or directory",
                            "1 Unable to connect socket, reason: No such file or directory"));
    EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(RequestClientConnect, ReportsAPeerThatRefuses) {
    const BoundSocket bound(SOCK_STREAM, m_path);
    EXPECT_FALSE(m_client.Connect(m_path.c_str(), 1));
    EXPECT_THAT(m_reports, ElementsAre("1 Unable to connect socket, reason: Connection refused"));
}

TEST_F(RequestClientConnect, ReportsWhenThereIsNoDescriptorLeft) {
    rlimit former{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &former));
    const rlimit none{static_cast<rlim_t>(NextDescriptor()), former.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    const bool connected = m_client.Connect(m_path.c_str(), 1);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &former));
    EXPECT_FALSE(connected);
    EXPECT_THAT(m_reports, ElementsAre("1 Unable to create socket, reason: Too many open files"));
    EXPECT_FALSE(m_client.SendRequest(1, nullptr, 0));
}

TEST_F(RequestClientConnect, KeepsAWritableSocketForConnected) {
    StreamPeer peer(m_path, [](Session& session) { session.StaySilent(); });
    t_connectInstead = [](int) {
        errno = EINPROGRESS;
        return -1;
    };
    const int fd = NextDescriptor();
    EXPECT_TRUE(m_client.Connect(m_path.c_str(), kPlentyOfTime));
    EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(m_client.SendRequest(1, nullptr, 0)) << "the socket never was connected";
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(RequestClientConnect, KeepsAPendingErrorOfAWritableSocketUnread) {
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    ASSERT_EQ(1, send(pair[0], "x", 1, 0));
    close(pair[1]);  // with a byte that nobody has read, which leaves an error at the other end
    int connected = -1;
    t_connectInstead = [&](int fd) {
        connected = fd;
        dup2(pair[0], fd);
        errno = EINPROGRESS;
        return -1;
    };
    EXPECT_TRUE(m_client.Connect(m_path.c_str(), kPlentyOfTime));
    int error = 0;
    socklen_t length = sizeof(error);
    EXPECT_EQ(0, getsockopt(connected, SOL_SOCKET, SO_ERROR, &error, &length));
    EXPECT_EQ(ECONNRESET, error);
    close(pair[0]);
}

TEST_F(RequestClientConnect, WaitsForTheLimitInSeconds) {
    StreamPeer peer(m_path, [](Session& session) {
        session.SendWords(0, 0);
        session.StaySilent();
    });
    t_connectInstead = [](int) {
        errno = EINPROGRESS;
        return -1;
    };
    EXPECT_TRUE(m_client.Connect(m_path.c_str(), 7));
    EXPECT_EQ(7, t_selectSeconds);
    m_client.Disconnect();
    ASSERT_TRUE(m_client.Connect(m_path.c_str(), kPlentyOfTime));
    EXPECT_TRUE(Receive(9));
    EXPECT_EQ(9, t_selectSeconds);
}

TEST_F(RequestClientConnect, GivesUpWhenTheLimitRunsOut) {
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair));
    const char piece[4096] = {};
    while (send(pair[0], piece, sizeof(piece), 0) > 0) {
    }
    t_connectInstead = [&pair](int fd) {
        dup2(pair[0], fd);  // a socket that does not get writable
        errno = EINPROGRESS;
        return -1;
    };
    const size_t before = OpenDescriptors();
    const auto start = steady_clock::now();
    EXPECT_FALSE(m_client.Connect(m_path.c_str(), kLimit));
    EXPECT_GE(steady_clock::now() - start, std::chrono::seconds(kLimit));
    EXPECT_THAT(m_reports,
                ElementsAre("1 Unable to connect socket, reason: Operation now in progress"));
    EXPECT_EQ(before, OpenDescriptors());
    close(pair[0]);
    close(pair[1]);
}

TEST_F(RequestClientConnect, TakesAConnectionInProgressForAFailureWithoutALimit) {
    t_connectInstead = [](int) {
        errno = EINPROGRESS;
        return -1;
    };
    EXPECT_FALSE(m_client.Connect(m_path.c_str(), 0));
    EXPECT_THAT(m_reports,
                ElementsAre("1 Unable to connect socket, reason: Operation now in progress"));
}

TEST_F(RequestClientConnect, FailsInSilenceWhenTheSocketCannotBeMadeToBlockAgain) {
    t_connectInstead = [](int fd) { return close(fd); };
    EXPECT_FALSE(m_client.Connect(m_path.c_str(), 1));
    EXPECT_THAT(m_reports, IsEmpty());
    EXPECT_FALSE(m_client.SendRequest(1, nullptr, 0));
}

TEST_F(RequestClientConnect, KeepsNoHoldOnADescriptorOfAnEarlierConnect) {
    StreamPeer peer(m_path, [](Session& session) { session.StaySilent(); });
    const int first = NextDescriptor();
    ASSERT_TRUE(m_client.Connect(m_path.c_str(), 1));
    ASSERT_TRUE(m_client.Connect(m_path.c_str(), 1));
    m_client.Disconnect();
    EXPECT_NE(-1, fcntl(first, F_GETFD));
    close(first);
}

TEST_F(RequestClientConnect, DisconnectsInTheDestructor) {
    StreamPeer peer(m_path, [](Session& session) { session.StaySilent(); });
    const int fd = NextDescriptor();
    ino_t socket = 0;
    {
        RequestClient client;
        ASSERT_TRUE(client.Connect(m_path.c_str(), 1));
        socket = InodeAt(fd);
    }
    EXPECT_NE(0U, socket);
    EXPECT_NE(socket, InodeAt(fd));
}

TEST_F(RequestClientConnect, ReportsNothingWithoutACallback) {
    m_client.SetLog(nullptr, 0);
    EXPECT_FALSE(m_client.Connect(m_path.c_str(), 1));
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(RequestClientSendRequest, SendsTheHeaderAndTheBody) {
    std::promise<Bytes> request;
    ConnectTo([&](Session& session) { request.set_value(session.ReadRequest()); });
    const Bytes golden = GoldenBytes("security_manager_add_rules.txt");
    EXPECT_TRUE(m_client.SendRequest(11, golden.data() + 8, golden.size() - 8));
    EXPECT_EQ(golden, request.get_future().get());
}

TEST_F(RequestClientSendRequest, SendsTheHeaderAloneWithoutABodyOrALength) {
    std::promise<Bytes> requests;
    ConnectTo([&](Session& session) { requests.set_value(session.Read(1000)); });
    EXPECT_TRUE(m_client.SendRequest(7, "body", 0));
    EXPECT_TRUE(m_client.SendRequest(8, nullptr, 4));
    m_client.Disconnect();
    EXPECT_EQ((Bytes{7, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0}), requests.get_future().get());
}

TEST_F(RequestClientSendRequest, FailsOnAClosedClient) {
    EXPECT_FALSE(m_client.SendRequest(7, "body", 4));
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(RequestClientSendRequest, FailsWithoutASignalWhenThePeerClosed) {
    ConnectTo([](Session&) {});
    EXPECT_FALSE(Receive());  // comes back when the peer has closed
    m_reports.clear();
    EXPECT_FALSE(m_client.SendRequest(7, "body", 4));
    EXPECT_FALSE(m_client.SendRequest(7, nullptr, 0));
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(RequestClientSendRequest, KeepsAShortSendForASuccess) {
    std::promise<void> sent;
    std::promise<size_t> arrived;
    ConnectTo([&](Session& session) {
        sent.get_future().wait();
        arrived.set_value(session.Read(size_t{64} << 20).size());
    });
    const Bytes body(size_t{32} << 20);
    EXPECT_TRUE(m_client.SendRequest(7, body.data(), body.size()));
    sent.set_value();
    m_client.Disconnect();
    const size_t count = arrived.get_future().get();
    EXPECT_GT(count, 8U);
    EXPECT_LT(count, body.size());
}

TEST_F(RequestClientTransact, ConnectsSendsReceivesAndDisconnects) {
    std::promise<Bytes> rest;
    StreamPeer peer(m_path, [&](Session& session) {
        EXPECT_EQ((Bytes{7, 0, 0, 0, 2, 0, 0, 0, 'h', 'i'}), session.ReadRequest());
        session.SendWords(1, 3);
        session.Send({'y', 'o', 'u'});
        rest.set_value(session.Read(1));
    });
    uint8_t* buffer = nullptr;
    EXPECT_TRUE(m_client.Transact(m_path.c_str(), 7, "hi", 2, &buffer, &m_size, kPlentyOfTime));
    m_response.reset(buffer);
    EXPECT_EQ((Bytes{1, 0, 0, 0, 3, 0, 0, 0, 'y', 'o', 'u'}), Response());
    EXPECT_THAT(rest.get_future().get(), IsEmpty());
    EXPECT_FALSE(m_client.SendRequest(1, nullptr, 0));
}

TEST_F(RequestClientTransact, AwaitsNoAnswerWithoutBothOutArguments) {
    StreamPeer peer(m_path, [](Session& session) { session.StaySilent(); });
    uint8_t* buffer = nullptr;
    EXPECT_TRUE(m_client.Transact(m_path.c_str(), 7, "hi", 2, nullptr, nullptr, kPlentyOfTime));
    EXPECT_TRUE(m_client.Transact(m_path.c_str(), 7, "hi", 2, &buffer, nullptr, kPlentyOfTime));
    EXPECT_TRUE(m_client.Transact(m_path.c_str(), 7, "hi", 2, nullptr, &m_size, kPlentyOfTime));
    EXPECT_TRUE(
        m_client.TransactRecords(m_path.c_str(), 7, "hi", 2, &buffer, nullptr, 4, kPlentyOfTime));
    EXPECT_TRUE(
        m_client.TransactRecords(m_path.c_str(), 7, "hi", 2, nullptr, &m_size, 4, kPlentyOfTime));
    EXPECT_EQ(77U, m_size);
    EXPECT_FALSE(m_client.SendRequest(1, nullptr, 0));
}

TEST_F(RequestClientTransact, FailsWithTheStepThatFailsAndDisconnects) {
    uint8_t* buffer = nullptr;
    EXPECT_FALSE(m_client.Transact(m_path.c_str(), 7, "hi", 2, &buffer, &m_size, 1));
    StreamPeer peer(m_path, [](Session& session) { session.ReadRequest(); });
    EXPECT_FALSE(m_client.Transact(m_path.c_str(), 7, "hi", 2, &buffer, &m_size, kPlentyOfTime));
    EXPECT_EQ(nullptr, buffer);
    EXPECT_THAT(m_reports,
                ElementsAre("1 Unable to connect socket, reason: No such file or directory",
                            "1 Unexpected response length: 0"));
    EXPECT_FALSE(m_client.SendRequest(1, nullptr, 0));
}

TEST_F(RequestClientTransact, DisconnectsWhenAnAnswerFindsNoMemory) {
    if (!FailNextAllocation()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    EXPECT_THROW(::operator delete(::operator new(1)), std::bad_alloc) << "takes the failure";
    const size_t before = OpenDescriptors();
    for (const bool asRecords : {false, true}) {
        const std::string path = m_path + (asRecords ? "records" : "response");
        StreamPeer peer(path, [&](Session& session) {
            session.ReadRequest();
            session.SendWords(0, 3);
            session.Send(Iota(3));
            session.StaySilent();
        });
        uint8_t* buffer = nullptr;
        const auto exchange = [&] {
            EXPECT_TRUE(FailNextAllocation());
            return asRecords ? m_client.TransactRecords(path.c_str(), 7, nullptr, 0, &buffer,
                                                        &m_size, 1, kPlentyOfTime)
                             : m_client.Transact(path.c_str(), 7, nullptr, 0, &buffer, &m_size,
                                                 kPlentyOfTime);
        };
        EXPECT_THROW(exchange(), std::bad_alloc);
        EXPECT_EQ(nullptr, buffer);
        EXPECT_FALSE(m_client.SendRequest(1, nullptr, 0));
    }
    EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(RequestClientTransact, DisconnectsWhenAReportThrows) {
    m_client.SetLog(&ThrowReport, 0);
    StreamPeer peer(m_path, [](Session& session) { session.ReadRequest(); });
    uint8_t* buffer = nullptr;
    EXPECT_THROW(
        (void)m_client.Transact(m_path.c_str(), 7, nullptr, 0, &buffer, &m_size, kPlentyOfTime),
        std::runtime_error);
    EXPECT_FALSE(m_client.SendRequest(1, nullptr, 0));
}

TEST_F(RequestClientTransact, ReceivesRecords) {
    StreamPeer peer(m_path, [](Session& session) {
        session.ReadRequest();
        session.SendWords(0, 2);
        session.Send(Iota(6));
        session.StaySilent();
    });
    uint8_t* buffer = nullptr;
    EXPECT_TRUE(m_client.TransactRecords(m_path.c_str(), 7, nullptr, 0, &buffer, &m_size, 3,
                                         kPlentyOfTime));
    m_response.reset(buffer);
    EXPECT_EQ(14U, m_size);
    EXPECT_FALSE(m_client.SendRequest(1, nullptr, 0));
}

}  // namespace
