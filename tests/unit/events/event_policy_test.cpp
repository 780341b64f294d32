#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "crm/event_report_format.h"
#include "support/levelled_log.h"
#include "support/packet_log_daemon.h"
#include "support/word_at.h"
#include "unit/events/bridge_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<unsigned char>;

std::string TextAt(const Bytes& bytes, size_t offsetField) {
    return reinterpret_cast<const char*>(&bytes.at(32 + WordAt(bytes, offsetField)));
}

bool Holds(const Bytes& bytes, const std::string& text) {
    return std::string(bytes.begin(), bytes.end()).find(text) != std::string::npos;
}

class EventPolicy : public EventBridgeFixture {
  protected:
    void SetUp() override {
        EventBridgeFixture::SetUp();
        InitializeForOneThread();
    }
};

TEST_F(EventPolicy, FillsTheReportFromTheEntry) {
    ASSERT_EQ(0, m_bridge->ProcessEvent(new TestAlert(kKnown)));
    const auto reports = Reports();
    ASSERT_EQ(1u, reports.size());
    EXPECT_EQ("Known:high", TextAt(reports[0], 16));
    EXPECT_EQ("DISPLAY:WithoutRaw", TextAt(reports[0], 12));
    EXPECT_EQ(0u, WordAt(reports[0], 24)) << "nothing was blocked";
    EXPECT_EQ(kKnown, WordAt(reports[0], 32 + 28));
    using namespace std::string_literals;
    EXPECT_TRUE(Holds(reports[0], "Rule\0alert tcp\0\0"s));
}

TEST_F(EventPolicy, SendsThePacketOnlyWhereTheEntryAsksForIt) {
    ASSERT_EQ(0, m_bridge->ProcessEvent(new TestAlert(kKnown)));
    ASSERT_EQ(0, m_bridge->ProcessEvent(new TestAlert(kKnownWithRaw)));
    const auto reports = Reports();
    ASSERT_EQ(2u, reports.size());
    EXPECT_FALSE(Holds(reports[0], "\xde\xad\xbf"));
    EXPECT_TRUE(Holds(reports[1], "\xde\xad\xbf"));
    EXPECT_EQ(kChunkPacket, WordAt(reports[1], WordAt(reports[1], 4)));
}

TEST_F(EventPolicy, AsksTheAlertForItsPacket) {
    TestAlert event(kKnown);
    event.m_refusesReport = true;
    EXPECT_EQ(-2, m_bridge->SendEvent(&event));
    EXPECT_TRUE(event.m_askedForPacket);
}

TEST_F(EventPolicy, EntryWithoutSeverityIsSentAsLow) {
    Set("se.1002.msg", "No severity");
    ASSERT_TRUE(Config::s_eventTable.Commit());
    const LogCapture log(2);
    ASSERT_EQ(0, m_bridge->ProcessEvent(new TestAlert(1002)));
    EXPECT_EQ("No severity:low", TextAt(Reports().at(0), 16));
    EXPECT_THAT(log.Messages(), ElementsAre("Unknown event severity, send as low."));
}

TEST_F(EventPolicy, EventWithoutAReportIsGivenUp) {
    TestAlert event(kKnown);
    event.m_refusesReport = true;
    const LogCapture log(2);
    EXPECT_EQ(-2, m_bridge->SendEvent(&event));
    EXPECT_THAT(
        log.Messages(),
        ElementsAre("EventBridge failed to create CrmEventSource instance from U2AlertEvent.",
                    "EventBridge failed to process event."));
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(EventPolicy, ReportThatFindsNoRoomIsLost) {
    {
        IndependentRing ring(m_channel.RingBase() + "-0");
        // Word 0 is the read index. A read index shortly after the write index means a full ring.
        ring.Poke(0, 64);
    }
    TestAlert event(kKnown);
    const auto lines = LevelledMessages([&] { EXPECT_EQ(-2, m_bridge->SendEvent(&event)); });
    ASSERT_LE(2u, lines.size());
    EXPECT_EQ("2 Unable to dispatch CRM events.", lines[lines.size() - 2]);
    EXPECT_EQ("2 EventBridge failed to process event.", lines.back());
}

// --- a signature that is not in the table -----------------------------------------------------

void DefaultFaults() {
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    signal(SIGSEGV, SIG_DFL);
}

TEST_F(EventPolicy, KeepsFaultingOnAnUnknownSignatureAfterTwoLogLines) {
    const LogCapture log(2);
    EXPECT_EXIT(
        {
            DefaultFaults();
            (void)m_bridge->ProcessEvent(new TestAlert(kUnknown));
        },
        testing::KilledBySignal(SIGSEGV), testing::Not(testing::HasSubstr("runtime error")));
    EXPECT_THAT(log.Messages(),
                ElementsAre("Cannot get response setting for issue '4711'",
                            "Fail to look up Snort event 4711 from TaRN rule configuration."));
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(EventPolicy, TellsOfAnUnknownSignatureAtTheWarningLevel) {
    const LogCapture log(vald::Log::kError);
    EXPECT_EXIT(
        {
            DefaultFaults();
            (void)m_bridge->ProcessEvent(new TestAlert(kUnknown));
        },
        testing::KilledBySignal(SIGSEGV), testing::Not(testing::HasSubstr("runtime error")));
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(EventPolicy, KeepsFaultingOnAnUnknownSignatureFromTheRing) {
    m_bridge->Finalize();
    InitializeForThreads();
    EXPECT_EXIT(
        {
            DefaultFaults();
            (void)m_bridge->ProcessEvent(new TestAlert(kUnknown));
            (void)m_bridge->ProcessEventQueue(1, 1);
        },
        testing::KilledBySignal(SIGSEGV), testing::Not(testing::HasSubstr("runtime error")));
    EXPECT_THAT(Reports(), IsEmpty());
}

// The address of the fault shows that it was the entry that was read.
void OnFault(int, siginfo_t* info, void*) {
    const bool nearNull = reinterpret_cast<uintptr_t>(info->si_addr) < 4096;
    _exit(nearNull ? 77 : 78);
}

TEST_F(EventPolicy, FaultOfAnUnknownSignatureReachesTheDaemonsHandler) {
    EXPECT_EXIT(
        {
            struct sigaction action {};
            action.sa_flags = SA_SIGINFO;
            action.sa_sigaction = &OnFault;
            sigaction(SIGSEGV, &action, nullptr);
            (void)m_bridge->ProcessEvent(new TestAlert(kUnknown));
        },
        testing::ExitedWithCode(77), testing::Not(testing::HasSubstr("runtime error")));
}

// --- packets for the packet logging daemon ----------------------------------------------------

class EventPolicyPacketLog : public EventBridgeFixture {
  protected:
    static constexpr uint32_t kLogged = 1002;
    static constexpr uint32_t kLoggedByConnection = 1003;

    void SetUp() override {
        EventBridgeFixture::SetUp();
        Set("se.1002.msg", "Logged");
        Set("se.1002.user.response", "LOGEVIDENCE");
        Set("se.1003.msg", "Logged by connection");
        Set("se.1003.user.response", "LOGEVIDENCE Connection");
        ASSERT_TRUE(Config::s_eventTable.Commit());
        InitializeForOneThread();
        PacketLogCtrl::PacketLogCtrlIFPeer::SetDestination(PacketLog(), m_dir.File("packetLog"));
        ASSERT_EQ(0, PacketLog().OpenControlChannel());
    }
    PacketLogCtrl::PacketLogCtrlIF& PacketLog() { return *EventBridgePeer::PacketLog(*m_bridge); }

    TempDir m_dir;
};

TEST_F(EventPolicyPacketLog, AsksForThePacketOfAnEntryThatNamesNoScope) {
    const PacketLogDaemon daemon(m_dir.File("packetLog"));
    for (const uint32_t signature : {kKnown, kLogged, kKnownWithRaw, kLoggedByConnection}) {
        ASSERT_EQ(0, m_bridge->ProcessEvent(new TestAlert(signature)));
    }
    const Bytes datagram = daemon.Take();
    ASSERT_LT(128u, datagram.size());
    EXPECT_EQ(4u, WordAt(datagram, 0));
    EXPECT_EQ(0u, WordAt(datagram, 24)) << "the packet hash";
    EXPECT_EQ(kLogged, WordAt(datagram, 28));
    EXPECT_STREQ("SNORT", reinterpret_cast<const char*>(&datagram[32]));
    EXPECT_EQ(datagram.size() - 128, WordAt(datagram, 92));
    EXPECT_TRUE(Holds(Bytes(datagram.begin() + 128, datagram.end()), "\xde\xad\xbf"));
    EXPECT_THAT(daemon.Take(), IsEmpty());
    EXPECT_EQ(4u, Reports().size()) << "with or without, the report goes out";
}

TEST_F(EventPolicyPacketLog, SendsTheReportThoughNobodyTakesThePacket) {
    ASSERT_EQ(0, m_bridge->ProcessEvent(new TestAlert(kLogged)));
    EXPECT_EQ(1u, PacketLog().m_uFailOffendingPacket);
    const auto reports = Reports();
    ASSERT_EQ(1u, reports.size());
    EXPECT_EQ(Bytes(8, 0), Bytes(reports[0].begin() + 32 + 224, reports[0].begin() + 32 + 232))
        << "the user string is the copy's";
}

TEST_F(EventPolicyPacketLog, IsNotAskedForASignatureWithoutAnEntry) {
    const PacketLogDaemon daemon(m_dir.File("packetLog"));
    EXPECT_EXIT(
        {
            DefaultFaults();
            (void)m_bridge->ProcessEvent(new TestAlert(kUnknown));
        },
        testing::KilledBySignal(SIGSEGV), "");
    EXPECT_THAT(daemon.Take(), IsEmpty());
}

TEST_F(EventPolicyPacketLog, KeepsFaultingWithoutTheInterface) {
    EventBridgePeer::DropPacketLog(*m_bridge);
    EXPECT_EQ(0, m_bridge->ProcessEvent(new TestAlert(kKnown))) << "where it is not needed";
    EXPECT_EXIT(
        {
            DefaultFaults();
            (void)m_bridge->ProcessEvent(new TestAlert(kLogged));
        },
        testing::KilledBySignal(SIGSEGV), testing::Not(testing::HasSubstr("runtime error")));
    EXPECT_EQ(1u, Reports().size()) << "no report of the second one";
}

TEST_F(EventPolicyPacketLog, HoldsOneReferenceBetweenInitializeAndFinalize) {
    EXPECT_EQ(1, PacketLogCtrl::PacketLogCtrlIFPeer::RefCount());
    EXPECT_EQ(0, m_bridge->Initialize());
    EXPECT_EQ(1, PacketLogCtrl::PacketLogCtrlIFPeer::RefCount());
    m_bridge->Finalize();
    EXPECT_EQ(0, PacketLogCtrl::PacketLogCtrlIFPeer::RefCount());
    EXPECT_EQ(nullptr, EventBridgePeer::PacketLog(*m_bridge));
}

}  // namespace
