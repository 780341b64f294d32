// The instance, the channel, and the sending of one message whatever it says.

#include "packet_log/packet_log_ctrl_if.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/levelled_log.h"
#include "support/packet_log_daemon.h"

namespace {

// What the next usleep() of this thread does before it waits, and who collects the waits, if
// anybody.
thread_local std::function<void()> t_beforeWait;
thread_local std::vector<useconds_t>* t_waits = nullptr;  // borrowed

}  // namespace

// Between the two tries of a message the world may change, and tests change it here.
extern "C" int usleep(useconds_t microseconds) {
    if (t_waits != nullptr) {
        t_waits->push_back(microseconds);
    }
    if (t_beforeWait) {
        std::exchange(t_beforeWait, nullptr)();
    }
    const timespec time{0, static_cast<long>(microseconds) * 1000};
    return nanosleep(&time, nullptr);
}

namespace {

using PacketLogCtrl::LogControlMessage;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

// A message of any type and length, with room for all that a length may claim.
struct Raw {
    LogControlMessage head;
    uint8_t body[240] = {};
};

class PacketLogCtrlIF : public PacketLogFixture {
  protected:
    int Send(uint32_t type, uint32_t now, uint32_t length = 8) {
        const Raw raw{{type, length}};
        return m_control->SendControlMessage(&raw.head, nullptr, now);
    }
    void FailAt(uint32_t now) {
        ASSERT_EQ(ENOENT, Send(4, now)) << "nobody is there yet";
        ASSERT_EQ(now, Peer::LastFailTime(*m_control));
    }
};

// --- instance ------------------------------------------------------------------------------------

TEST_F(PacketLogCtrlIF, IsOneAndCounted) {
    EXPECT_EQ(m_control, Control::GetInstance());
    EXPECT_EQ(2, Peer::RefCount());
    EXPECT_EQ(1, m_control->Release());
    EXPECT_TRUE(Peer::HasConnections());
    EXPECT_EQ(0, m_control->Release());
    EXPECT_FALSE(Peer::Exists());
    EXPECT_FALSE(Peer::HasConnections()) << "the map goes with the instance";
    EXPECT_EQ(0U, Control::ConnectionCount());
    m_control = Control::GetInstance();
    EXPECT_EQ(1, Peer::RefCount()) << "and a new one comes after it";
}

TEST_F(PacketLogCtrlIF, LogsTheCountThatWasThereBefore) {
    EXPECT_THAT(LevelledMessages([] { Control::GetInstance()->Release(); }),
                ElementsAre("5 PacketLogCtrlIF::GetInstance(). count=1"));
}

TEST_F(PacketLogCtrlIF, IsCountedRightByEightThreads) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 500; ++i) {
                Control::GetInstance()->Release();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1, Peer::RefCount());
}

TEST_F(PacketLogCtrlIF, SpeaksToTheFixedSocket) {
    EXPECT_EQ(0, m_control->Release());
    m_control = Control::GetInstance();
    EXPECT_STREQ("/var/run/packetLog", Peer::Address(*m_control).sun_path);
    EXPECT_EQ(20U, Peer::AddressLength(*m_control)) << "the NUL is not counted";
}

TEST_F(PacketLogCtrlIF, SaysGoodByeWithTheLastRelease) {
    Open();
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(0, m_control->Release());
    m_control = nullptr;
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(12));
}

// --- channel -------------------------------------------------------------------------------------

TEST_F(PacketLogCtrlIF, OpensOneSocketThatAChildDoesNotInherit) {
    Open();
    const int fd = Peer::Socket(*m_control);
    EXPECT_GT(fd, 0);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    Open();
    EXPECT_EQ(fd, Peer::Socket(*m_control));
    m_control->Shutdown();
    EXPECT_EQ(0, Peer::Socket(*m_control));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    m_control->Shutdown();
}

TEST_F(PacketLogCtrlIF, DoesNotLoseASocketThatCameAsDescriptorZero) {
    const PacketLogDaemon daemon(Path());
    const int standardInput = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    EXPECT_EQ(0, m_control->OpenControlChannel());
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD)) << "descriptor 0 is free again";
    dup2(standardInput, STDIN_FILENO);
    close(standardInput);
    EXPECT_GT(Peer::Socket(*m_control), 0);
    EXPECT_EQ(FD_CLOEXEC, fcntl(Peer::Socket(*m_control), F_GETFD));
    EXPECT_EQ(0, m_control->SendType15());
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(15));
}

TEST_F(PacketLogCtrlIF, ReportsThatThereIsNoSocketToHave) {
    EXPECT_THAT(
        LevelledMessages([this] {
            rlimit former{};
            ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &former));
            const int next = dup(STDERR_FILENO);
            close(next);
            const rlimit none{static_cast<rlim_t>(next), former.rlim_max};
            ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
            const int opened = m_control->OpenControlChannel();
            const int initialized = m_control->Initialize();
            ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &former));
            EXPECT_EQ(-1, opened);
            EXPECT_EQ(-1, initialized);
            EXPECT_EQ(0, Peer::Socket(*m_control));
        }),
        ElementsAre(
            "1 socket() failed trying to initialize the control channel to the daemon..  errno=24",
            "1 socket() error: Too many open files",
            "1 socket() failed trying to initialize the control channel to the daemon..  errno=24",
            "1 socket() error: Too many open files"));
}

TEST_F(PacketLogCtrlIF, WithoutASocketFailsAndLeavesDescriptorZeroAlone) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, ends));
    const int standardInput = dup(STDIN_FILENO);
    dup2(ends[0], STDIN_FILENO);
    EXPECT_EQ(ENOTSOCK, Send(4, 0));
    char byte = 0;
    EXPECT_EQ(-1, recv(ends[1], &byte, 1, MSG_DONTWAIT));
    dup2(standardInput, STDIN_FILENO);
    for (const int fd : {standardInput, ends[0], ends[1]}) {
        close(fd);
    }
    EXPECT_EQ(1U, m_control->m_uFailOffendingPacket);
}

TEST_F(PacketLogCtrlIF, InitializeOpensSizesAndGreets) {
    const PacketLogDaemon daemon(Path());
    int adjusted = 0;
    const auto log = LevelledMessages([&] {
        EXPECT_EQ(0, m_control->Initialize());
        socklen_t bytes = sizeof(adjusted);
        ASSERT_EQ(0,
                  getsockopt(Peer::Socket(*m_control), SOL_SOCKET, SO_SNDBUF, &adjusted, &bytes));
    });
    EXPECT_THAT(
        log, ElementsAre("5 Log evidence throttling set to to 5 seconds.",
                         "5 After adjustment, the log evidnece control channel size was set to " +
                             std::to_string(adjusted) + "."));
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(1, 1)) << "each run greets, on the one socket";
}

TEST_F(PacketLogCtrlIF, InitializeGivesTheSocketTheConfiguredSendBuffer) {
    const auto sendBuffer = [](int fd) {
        int bytes = 0;
        socklen_t length = sizeof(bytes);
        EXPECT_EQ(0, getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, &length));
        return bytes;
    };
    const int other = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int untouched = sendBuffer(other);
    const int wanted = 12000;
    ASSERT_EQ(0, setsockopt(other, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof(wanted)));
    ASSERT_NE(untouched, sendBuffer(other));
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.bufferctrlsize", 12000));
    EXPECT_EQ(0, m_control->Initialize());
    EXPECT_EQ(sendBuffer(other), sendBuffer(Peer::Socket(*m_control)));
    close(other);
}

TEST_F(PacketLogCtrlIF, InitializeAgainKeepsTheSocketAndGreetsAgain) {
    const PacketLogDaemon daemon(Path());
    ASSERT_EQ(0, m_control->Initialize());
    const int fd = Peer::Socket(*m_control);
    for (int reload = 0; reload < 3; ++reload) {
        const int next = dup(STDERR_FILENO);
        close(next);
        EXPECT_EQ(0, m_control->Initialize());
        EXPECT_EQ(fd, Peer::Socket(*m_control));
        const int nextAfter = dup(STDERR_FILENO);
        close(nextAfter);
        EXPECT_EQ(next, nextAfter) << "no descriptor was taken";
    }
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(1, 1, 1, 1));
}

TEST_F(PacketLogCtrlIF, InitializeGoesOnWithABufferThatCannotBeSized) {
    const int plain = memfd_create("no socket", MFD_CLOEXEC);
    Peer::Socket(*m_control) = plain;
    const auto log = LevelledMessages([this] { EXPECT_EQ(0, m_control->Initialize()); });
    ASSERT_GE(log.size(), 2U);
    EXPECT_EQ(
        "5 Failed setting log evidence control channel size to 262142.  System will operate normally.",
        log[1]);
}

TEST_F(PacketLogCtrlIF, InitializeThatIsDisabledLeavesDescriptorZeroAlone) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends));
    const auto size = [&ends] {
        int bytes = 0;
        socklen_t length = sizeof(bytes);
        EXPECT_EQ(0, getsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &bytes, &length));
        return bytes;
    };
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.bufferctrlsize", 6000));
    m_control->m_bEnabled = false;
    const int before = size();
    const int standardInput = dup(STDIN_FILENO);
    dup2(ends[0], STDIN_FILENO);
    EXPECT_THAT(
        LevelledMessages([this] { EXPECT_EQ(0, m_control->Initialize()); }),
        ElementsAre(
            "3 Protection is disabled, so not initializing the control channel to the packet logging daemon.",
            "5 Log evidence throttling set to to 5 seconds.",
            "5 Failed setting log evidence control channel size to 6000.  System will operate normally."));
    dup2(standardInput, STDIN_FILENO);
    EXPECT_EQ(before, size());
    for (const int fd : {standardInput, ends[0], ends[1]}) {
        close(fd);
    }
}

TEST_F(PacketLogCtrlIF, ThatIsDisabledSendsAndOpensNothing) {
    const PacketLogDaemon daemon(Path());
    m_control->m_bEnabled = false;
    EXPECT_THAT(
        LevelledMessages([this] { EXPECT_EQ(0, m_control->OpenControlChannel()); }),
        ElementsAre(
            "3 Protection is disabled, so not initializing the control channel to the packet logging daemon."));
    EXPECT_EQ(0, Peer::Socket(*m_control));
    m_control->m_bEnabled = true;
    Open();
    m_control->m_bEnabled = false;
    EXPECT_EQ(0, Send(4, 1));
    EXPECT_EQ(0, Send(4, 1, 129));
    EXPECT_EQ(0, m_control->SendType15());
    EXPECT_EQ(0, m_control->SendType16());
    EXPECT_EQ(0, m_control->SendReloadEventsMessage());
    EXPECT_EQ(0, m_control->SendText("x"));
    EXPECT_EQ(0, m_control->SendConnectionCaptureNotice(1, 1));
    EXPECT_EQ(0, m_control->SendInterfaceCaptureSettings(0, 1, 1));
    EXPECT_EQ(0, m_control->SendInterfaceCapture(1, 1, 1, "x"));
    m_control->SendOffendingPacketCapture(nullptr, nullptr, 0);
    EXPECT_EQ(0, m_control->Initialize());
    EXPECT_EQ(0U, m_control->m_uAttempted);
    EXPECT_THAT(daemon.TakeTypes(), IsEmpty());
}

// --- length --------------------------------------------------------------------------------------

TEST_F(PacketLogCtrlIF, SendsALengthOf128WithoutAnyZeros) {
    Open();
    const PacketLogDaemon daemon(Path());
    Raw raw{{14, 128}};
    std::memset(raw.body, 0xAB, sizeof(raw.body));
    EXPECT_EQ(0, m_control->SendControlMessage(&raw.head, nullptr, 0));
    const Datagram datagram = daemon.Take();
    ASSERT_EQ(128U, datagram.size());
    EXPECT_THAT(Datagram(datagram.begin() + 8, datagram.end()), Each(0xAB));
}

TEST_F(PacketLogCtrlIF, RefusesALengthOf129AndDoesNotCountIt) {
    Open();
    const PacketLogDaemon daemon(Path());
    EXPECT_THAT(
        LevelledMessages([this] { EXPECT_EQ(-1, Send(14, 0, 129)); }),
        ElementsAre(
            "1 Message type 14 not being sent.  It exceeds the allowable length of 128 by 1 bytes."));
    EXPECT_EQ(0U, m_control->m_uAttempted);
    EXPECT_THAT(daemon.TakeTypes(), IsEmpty());
}

TEST_F(PacketLogCtrlIF, SendsAPayloadWithType4Alone) {
    Open();
    const PacketLogDaemon daemon(Path());
    const uint8_t payload[] = {1, 2, 3};
    PacketLogCtrl::LogControlMessage_OffendingPacketCapture message;
    message.iCapturedSize = 3;
    for (uint32_t type = 0; type <= 18; ++type) {
        message.head.uType = type;
        EXPECT_EQ(0, m_control->SendControlMessage(&message.head, payload, 0));
        EXPECT_EQ(type == 4 ? 131U : 128U, daemon.Take().size()) << "type " << type;
    }
    message.head = {4, 92};
    EXPECT_EQ(0, m_control->SendControlMessage(&message.head, payload, 0));
    EXPECT_EQ(128U, daemon.Take().size()) << "too short to hold a captured size";
}

TEST_F(PacketLogCtrlIF, SendsZerosForThePartOfAPayloadThatDoesNotExist) {
    Open();
    const PacketLogDaemon daemon(Path());
    const uint8_t payload[] = {1, 2, 3};
    PacketInfo packet;
    packet.uPacketLength = 65542;
    packet.iCapturedSize = 65542;
    packet.pData = payload;
    m_control->SendOffendingPacketCapture(nullptr, &packet, 0, 2);
    const Datagram datagram = daemon.Take();
    ASSERT_EQ(128U + 65542, datagram.size());
    Datagram expected = {1, 2};
    expected.resize(65542);
    EXPECT_EQ(expected, Datagram(datagram.begin() + 128, datagram.end()));
}

TEST_F(PacketLogCtrlIF, FailsToSendAPayloadThatNoDatagramHolds) {
    Open();
    const PacketLogDaemon daemon(Path());
    const uint8_t payload[] = {1};
    PacketLogCtrl::LogControlMessage_OffendingPacketCapture message;
    for (const int32_t captured : {9'000'000, std::numeric_limits<int32_t>::max()}) {
        message.iCapturedSize = captured;
        EXPECT_EQ(EMSGSIZE, m_control->SendControlMessage(&message.head, payload, 0, 1));
    }
    EXPECT_THAT(daemon.TakeTypes(), IsEmpty());
}

// --- failures ------------------------------------------------------------------------------------

TEST_F(PacketLogCtrlIF, TriesEachMessageTwice) {
    Open();
    EXPECT_THAT(
        LevelledMessages([this] { EXPECT_EQ(ENOENT, Send(2, 0)); }),
        ElementsAre(
            "5 Error sending control message of type 2 to the packet logging daemon.  Message: No such file or directory",
            "5 Error sending control message of type 2 to the packet logging daemon.  Message: No such file or directory"));
    EXPECT_EQ(2U, m_control->m_uAttempted) << "one for each of two runs";
    EXPECT_EQ(2U, m_control->m_uFailNewConnection);
}

TEST_F(PacketLogCtrlIF, CountsFailuresByType) {
    Open();
    for (uint32_t type = 0; type <= 18; ++type) {
        EXPECT_EQ(ENOENT, Send(type, 0));
    }
    EXPECT_EQ(1U, m_control->m_uFailNewConnection);
    EXPECT_EQ(1U, m_control->m_uFailInterfaceCapture);
    EXPECT_EQ(1U, m_control->m_uFailOffendingPacket);
    EXPECT_EQ(1U, m_control->m_uFailConfigureRolling);
    EXPECT_EQ(1U, m_control->m_uFailStartDrop);
    EXPECT_EQ(1U, m_control->m_uFailConnectionNotice);
    EXPECT_EQ(19U, m_control->m_uAttempted);
    EXPECT_EQ(0U, m_control->m_uThrottled);
}

TEST_F(PacketLogCtrlIF, StartsNoQuietPeriodForAMessageWithoutATime) {
    Open();
    FailAt(1000);
    EXPECT_EQ(ENOENT, Send(4, 0));
    EXPECT_EQ(1000U, Peer::LastFailTime(*m_control)) << "the quiet of the timed one goes on";
    EXPECT_EQ(-2, Send(4, 1004));
}

TEST_F(PacketLogCtrlIF, WaitsAMillisecondBetweenTheTwoTries) {
    Open();
    std::vector<useconds_t> waits;
    t_waits = &waits;
    EXPECT_EQ(ENOENT, Send(4, 0));
    EXPECT_THAT(waits, ElementsAre(1000));
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(0, Send(4, 0));
    EXPECT_EQ(1U, waits.size()) << "none after a success";
    t_waits = nullptr;
}

TEST_F(PacketLogCtrlIF, SucceedsAtTheSecondTry) {
    Open();
    std::unique_ptr<PacketLogDaemon> daemon;
    t_beforeWait = [&] { daemon = std::make_unique<PacketLogDaemon>(Path()); };
    EXPECT_EQ(0, Send(4, 1000));
    EXPECT_THAT(daemon->TakeTypes(), ElementsAre(4));
    EXPECT_EQ(0U, m_control->m_uFailOffendingPacket);
    EXPECT_EQ(0U, Peer::LastFailTime(*m_control));
}

TEST_F(PacketLogCtrlIF, GivesTheErrnoOfTheSecondTry) {
    Open();
    t_beforeWait = [this] {
        const int dead = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = Peer::Address(*m_control);
        EXPECT_EQ(0, bind(dead, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        close(dead);
    };
    EXPECT_EQ(ECONNREFUSED, Send(4, 0)) << "the first try found no file";
    unlink(Path().c_str());
}

TEST_F(PacketLogCtrlIF, ReachesADaemonThatCameBack) {
    Open();
    {
        const PacketLogDaemon daemon(Path());
        EXPECT_EQ(0, Send(15, 0));
    }
    EXPECT_EQ(ENOENT, Send(15, 0));
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(0, Send(15, 0));
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(15));
}

TEST_F(PacketLogCtrlIF, OfADaemonThatDiedWithItsSocketLeftGivesRefused) {
    Open();
    const int dead = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address = Peer::Address(*m_control);
    ASSERT_EQ(0, bind(dead, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    close(dead);
    EXPECT_EQ(ECONNREFUSED, Send(15, 0));
    unlink(Path().c_str());
}

TEST_F(PacketLogCtrlIF, DoesNotWaitForAFullSocket) {
    Open();
    const PacketLogDaemon daemon(Path());
    uint32_t sent = 0;
    while (Send(15, 0) == 0) {
        ASSERT_LT(++sent, 100000U);
    }
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(EAGAIN, Send(4, 1000));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
    EXPECT_EQ(1U, m_control->m_uFailOffendingPacket);
    EXPECT_EQ(sent, daemon.TakeTypes().size()) << "what went in stays in";
    EXPECT_EQ(0, Send(15, 0)) << "there is room again";
}

// --- throttling ----------------------------------------------------------------------------------

TEST_F(PacketLogCtrlIF, IsQuietUntilTheIntervalHasPassedInPacketTime) {
    Open();
    FailAt(1000);
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(-2, Send(4, 1000));
    EXPECT_EQ(-2, Send(2, 1004));
    EXPECT_EQ(2U, m_control->m_uThrottled);
    EXPECT_EQ(0, Send(4, 1005)) << "exactly the interval";
    EXPECT_EQ(-2, Send(4, 1004)) << "the clock is the packets', and nothing ends the quiet";
    EXPECT_EQ(0, Send(4, 1006));
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(4, 4));
    EXPECT_EQ(6U, m_control->m_uAttempted) << "skipped messages are attempts, too";
    EXPECT_EQ(1U, m_control->m_uFailOffendingPacket);
}

TEST_F(PacketLogCtrlIF, IsNotQuietForAPacketFromBeforeTheFailure) {
    Open();
    FailAt(1000);
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(0, Send(4, 999)) << "the unsigned distance is huge";
}

TEST_F(PacketLogCtrlIF, KeepsTheFirstSecondsOfTimeQuiet) {
    Open();
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(-2, Send(4, 4)) << "no failure yet counts as one at 0";
    EXPECT_EQ(0, Send(4, 5));
}

TEST_F(PacketLogCtrlIF, IsNeverQuietForAMessageWithoutATime) {
    Open();
    FailAt(1000);
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(0, Send(4, 0));
    EXPECT_EQ(0U, m_control->m_uThrottled);
}

TEST_F(PacketLogCtrlIF, KeepsSendingNoticesInTheQuietPeriod) {
    Open();
    FailAt(1000);
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(0, m_control->SendConnectionCaptureNotice(7, 1001));
    EXPECT_EQ(2U, m_control->m_uAttempted);
    EXPECT_EQ(0U, m_control->m_uThrottled);
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(13));
}

TEST_F(PacketLogCtrlIF, WithAnIntervalOfZeroIsNeverQuiet) {
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.suppress", 0));
    Open();
    FailAt(1000);
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(0, Send(4, 1000));
    EXPECT_EQ(0U, m_control->m_uThrottled);
}

TEST_F(PacketLogCtrlIF, SkipsAPacketWithoutTouchingTheSocket) {
    Open();
    FailAt(1000);
    PacketInfo packet;
    packet.uSeconds = 1001;
    m_control->SendOffendingPacketCapture(nullptr, &packet, 0);
    EXPECT_EQ(1U, m_control->m_uThrottled);
    EXPECT_EQ(1U, m_control->m_uFailOffendingPacket) << "it would have failed again";
}

}  // namespace
