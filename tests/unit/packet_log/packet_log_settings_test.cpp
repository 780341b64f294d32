// How settings reach the fields, and what goes out when they change.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "support/levelled_log.h"
#include "support/packet_log_daemon.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class PacketLogSettings : public PacketLogFixture {
  protected:
    void SetUp() override {
        PacketLogFixture::SetUp();
        Open();
    }
    int SetInt(const char* name, uint32_t value) { return m_control->SetIntParameter(name, value); }
    int SetString(const char* name, const char* value) {
        return m_control->SetStringParameter(name, value);
    }
};

TEST_F(PacketLogSettings, BeginAsTheyShould) {
    EXPECT_EQ(1U, Peer::EvidenceFormat(*m_control));
    EXPECT_EQ(1000U, Peer::EvidenceMaxFiles(*m_control));
    EXPECT_EQ(500U, Peer::EvidenceMaxKBytes(*m_control));
    EXPECT_EQ(100U, Peer::EvidenceCount(*m_control));
    EXPECT_EQ(60U, Peer::EvidenceTimeout(*m_control));
    EXPECT_EQ(262142U, Peer::BufferCtrlSize(*m_control));
    EXPECT_EQ(5U, Peer::SuppressSeconds(*m_control));
    const auto& rolling = Peer::RpcPending(*m_control);
    EXPECT_EQ(8U, rolling.head.uType);
    EXPECT_EQ(28U, rolling.head.uLength);
    EXPECT_EQ(1U, rolling.uFileFormat);
    EXPECT_EQ(0U, rolling.uMaxFiles + rolling.uMaxFileSize + rolling.uInterfaces);
    const auto& drop = Peer::DpcPending(*m_control);
    EXPECT_EQ(11U, drop.head.uType);
    EXPECT_EQ(28U, drop.head.uLength);
    EXPECT_EQ(0U, drop.uFileFormat);
    EXPECT_EQ(1000U, drop.uMaxFiles);
    EXPECT_EQ(500U, drop.uMaxFileSize);
    EXPECT_EQ(0U, drop.uInterfaces);
    for (const int state :
         {Peer::RpcEnabledApplied(*m_control), Peer::RpcEnabledPending(*m_control),
          Peer::DpcEnabledApplied(*m_control), Peer::DpcEnabledPending(*m_control)}) {
        EXPECT_EQ(2, state);
    }
}

TEST_F(PacketLogSettings, OfLogEvidenceReachTheirFields) {
    EXPECT_EQ(1, SetInt("engine.logevidence.maxfiles", 11));
    EXPECT_EQ(1, SetInt("engine.logevidence.maxkbytes", 12));
    EXPECT_EQ(1, SetInt("engine.logevidence.count", 13));
    EXPECT_EQ(1, SetInt("engine.logevidence.timeout", 14));
    EXPECT_EQ(1, SetString("engine.logevidence.format", "text"));
    EXPECT_EQ(1, SetInt("engine.logevidence.bufferctrlsize", 15));
    EXPECT_EQ(1, SetInt("engine.logevidence.suppress", 16));
    EXPECT_EQ(11U, Peer::EvidenceMaxFiles(*m_control));
    EXPECT_EQ(12U, Peer::EvidenceMaxKBytes(*m_control));
    EXPECT_EQ(13U, Peer::EvidenceCount(*m_control));
    EXPECT_EQ(14U, Peer::EvidenceTimeout(*m_control));
    EXPECT_EQ(0U, Peer::EvidenceFormat(*m_control));
    EXPECT_EQ(15U, Peer::BufferCtrlSize(*m_control));
    EXPECT_EQ(16U, Peer::SuppressSeconds(*m_control));
    for (const char* const pcap : {"pcap", "PCAP", "p"}) {
        EXPECT_EQ(1, SetString("engine.logevidence.format", "x"));
        EXPECT_EQ(1, SetString("ENGINE.LOGEVIDENCE.FORMAT", pcap));
        EXPECT_EQ(1U, Peer::EvidenceFormat(*m_control)) << pcap;
    }
    EXPECT_EQ(0, SetString("engine.logevidence.format", nullptr));
    EXPECT_EQ(1U, Peer::EvidenceFormat(*m_control));
}

TEST_F(PacketLogSettings, KeepsToAPrefixAndSingleLetters) {
    EXPECT_EQ(1, SetInt("engine.logevidence.cats", 21));
    EXPECT_EQ(21U, Peer::EvidenceCount(*m_control));
    EXPECT_EQ(1, SetInt("Engine.LogEvidence.Sleep", 22));
    EXPECT_EQ(22U, Peer::SuppressSeconds(*m_control));
    EXPECT_EQ(1, SetInt("engine.logevidence.m", 23));
    EXPECT_EQ(23U, Peer::EvidenceMaxKBytes(*m_control)) << "no fourth letter is no f";
    EXPECT_EQ(1, SetInt("engine.rollpktcap.M", 24));
    EXPECT_EQ(24U, Peer::RpcPending(*m_control).uMaxFileSize);
    EXPECT_EQ(1, SetInt("engine.droplog.M", 25));
    EXPECT_EQ(25U, Peer::DpcPending(*m_control).uMaxFiles) << "no fourth letter is no k";
}

TEST_F(PacketLogSettings, KeepsToALowerCaseFForFiles) {
    EXPECT_EQ(1, SetInt("engine.logevidence.maxFiles", 31));
    EXPECT_EQ(31U, Peer::EvidenceMaxKBytes(*m_control));
    EXPECT_EQ(1000U, Peer::EvidenceMaxFiles(*m_control));
    EXPECT_EQ(1, SetInt("engine.rollpktcap.maxFiles", 32));
    EXPECT_EQ(32U, Peer::RpcPending(*m_control).uMaxFileSize);
    EXPECT_EQ(0U, Peer::RpcPending(*m_control).uMaxFiles);
    EXPECT_EQ(1, SetInt("engine.droplog.maxKbytes", 33));
    EXPECT_EQ(33U, Peer::DpcPending(*m_control).uMaxFileSize) << "either case here";
}

TEST_F(PacketLogSettings, GoByLettersInEitherCase) {
    for (const char* const name : {"engine.logevidence.BUFFER", "ENGINE.LOGEVIDENCE.buffer"}) {
        Peer::SetBufferCtrlSize(*m_control, 0);
        EXPECT_EQ(1, SetInt(name, 41));
        EXPECT_EQ(41U, Peer::BufferCtrlSize(*m_control)) << name;
    }
    EXPECT_EQ(1, SetInt("engine.logevidence.Count", 42));
    EXPECT_EQ(42U, Peer::EvidenceCount(*m_control));
    EXPECT_EQ(1, SetInt("engine.logevidence.Maxfiles", 43));
    EXPECT_EQ(43U, Peer::EvidenceMaxFiles(*m_control));
    EXPECT_EQ(1, SetInt("engine.logevidence.Timeout", 44));
    EXPECT_EQ(44U, Peer::EvidenceTimeout(*m_control));
    EXPECT_EQ(1, SetString("engine.logevidence.Format", "text"));
    EXPECT_EQ(0U, Peer::EvidenceFormat(*m_control));

    EXPECT_EQ(1, SetInt("engine.droplog.MaxKbytes", 45));
    EXPECT_EQ(45U, Peer::DpcPending(*m_control).uMaxFileSize);
    EXPECT_EQ(1, SetInt("engine.droplog.maxKbytes", 46));
    EXPECT_EQ(46U, Peer::DpcPending(*m_control).uMaxFileSize);
    EXPECT_EQ(1, SetInt("engine.droplog.FLags", 47));
    EXPECT_EQ(47U, Peer::DpcPending(*m_control).uInterfaces);
    EXPECT_EQ(1, SetString("engine.droplog.FOrmat", "PCAP"));
    EXPECT_EQ(1U, Peer::DpcPending(*m_control).uFileFormat);
    EXPECT_EQ(1, SetString("engine.droplog.Enabled", "True"));
    EXPECT_EQ(1, Peer::DpcEnabledPending(*m_control));

    EXPECT_EQ(1, SetInt("engine.rollpktcap.Maxfiles", 48));
    EXPECT_EQ(48U, Peer::RpcPending(*m_control).uMaxFiles);
    EXPECT_EQ(1, SetString("engine.rollpktcap.Format", "text"));
    EXPECT_EQ(0U, Peer::RpcPending(*m_control).uFileFormat);
    EXPECT_EQ(1, SetString("engine.rollpktcap.Format", "Pcap"));
    EXPECT_EQ(1U, Peer::RpcPending(*m_control).uFileFormat);
    EXPECT_EQ(1, SetString("engine.rollpktcap.Enabled", "T"));
    EXPECT_EQ(1, Peer::RpcEnabledPending(*m_control));
    EXPECT_EQ(1, SetString("engine.rollpktcap.Interfaces", "ac"));
    EXPECT_EQ(5U, Peer::RpcPending(*m_control).uInterfaces);
}

TEST_F(PacketLogSettings, OfAnUnknownNameGiveZero) {
    for (const char* const name :
         {"", "engine.", "engine.logevidence", "engine.logevidence.", "engine.logevidence.x",
          "engine.droplog.x", "engine.droplog.f", "engine.droplog.fx", "engine.rollpktcap.x",
          "tarn.logevidence.count"}) {
        EXPECT_EQ(0, SetInt(name, 1)) << name;
        EXPECT_EQ(0, SetString(name[0] == 'e' && name[7] == 'r' ? "engine.rollpktcap.x" : "x", "p"))
            << name;
    }
    EXPECT_EQ(0, SetInt(nullptr, 1));
    EXPECT_EQ(0, SetString(nullptr, "p"));
    EXPECT_EQ(0, SetString("engine.droplog.flags", "p")) << "an integer setting";
    EXPECT_EQ(0, SetString("engine.droplog.f", "p"));
    EXPECT_EQ(0, SetString("engine.logevidence.count", "p"));
}

TEST_F(PacketLogSettings, KeepsADropLogSizeThatIsSetToZero) {
    EXPECT_EQ(1, SetInt("engine.droplog.maxfiles", 0));
    EXPECT_EQ(1, SetInt("engine.droplog.maxkbytes", 0));
    EXPECT_EQ(1000U, Peer::DpcPending(*m_control).uMaxFiles);
    EXPECT_EQ(500U, Peer::DpcPending(*m_control).uMaxFileSize);
    EXPECT_EQ(1, SetInt("engine.droplog.flags", 7));
    EXPECT_EQ(1, SetInt("engine.droplog.flags", 0)) << "not a size";
    EXPECT_EQ(0U, Peer::DpcPending(*m_control).uInterfaces);
}

TEST_F(PacketLogSettings, OfTextReachTheirFields) {
    EXPECT_EQ(1, SetString("engine.droplog.enabled", "TRUE"));
    EXPECT_EQ(1, Peer::DpcEnabledPending(*m_control));
    EXPECT_EQ(1, SetString("engine.droplog.enabled", nullptr));
    EXPECT_EQ(0, Peer::DpcEnabledPending(*m_control));
    EXPECT_EQ(1, SetString("engine.droplog.format", "Pcap"));
    EXPECT_EQ(1U, Peer::DpcPending(*m_control).uFileFormat);
    EXPECT_EQ(1, SetString("engine.droplog.format", "text"));
    EXPECT_EQ(0U, Peer::DpcPending(*m_control).uFileFormat);
    EXPECT_EQ(1, SetString("engine.rollpktcap.enabled", "t"));
    EXPECT_EQ(1, Peer::RpcEnabledPending(*m_control));
    EXPECT_EQ(1, SetString("engine.rollpktcap.enabled", "yes"));
    EXPECT_EQ(0, Peer::RpcEnabledPending(*m_control));
    EXPECT_EQ(1, SetString("engine.rollpktcap.format", "text"));
    EXPECT_EQ(0U, Peer::RpcPending(*m_control).uFileFormat);
}

TEST_F(PacketLogSettings, KeepsTheRollingFormatThatGetsNoValue) {
    EXPECT_EQ(1, SetString("engine.rollpktcap.format", nullptr));
    EXPECT_EQ(1U, Peer::RpcPending(*m_control).uFileFormat);
}

TEST_F(PacketLogSettings, TakeInterfacesAsLetters) {
    EXPECT_EQ(1, SetString("engine.rollpktcap.interfaces", "A and C"));
    EXPECT_EQ((1U << 0) | (1U << 13) | (1U << 3) | (1U << 2),
              Peer::RpcPending(*m_control).uInterfaces);
    EXPECT_EQ(1, SetString("engine.rollpktcap.interfaces", "a,C"));
    EXPECT_EQ(5U, Peer::RpcPending(*m_control).uInterfaces);
    EXPECT_EQ(1, SetString("engine.rollpktcap.interfaces", "Z9-"));
    EXPECT_EQ(1U << 25, Peer::RpcPending(*m_control).uInterfaces);
    EXPECT_EQ(1, SetString("engine.rollpktcap.interfaces", nullptr));
    EXPECT_EQ(0U, Peer::RpcPending(*m_control).uInterfaces);
}

TEST_F(PacketLogSettings, CanBeReadBack) {
    PacketLogCtrl::LogControlMessage_CaptureSettings settings;
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxfiles", 3));
    m_control->GetRpcSettings(&settings);
    EXPECT_EQ(8U, settings.head.uType);
    EXPECT_EQ(3U, settings.uMaxFiles);
    ASSERT_EQ(1, SetInt("engine.droplog.maxfiles", 4));
    m_control->GetDpcSettings(&settings);
    EXPECT_EQ(11U, settings.head.uType);
    EXPECT_EQ(4U, settings.uMaxFiles);
}

// --- apply ---------------------------------------------------------------------------------------

TEST_F(PacketLogSettings, ThatNobodyTouchedSendNothing) {
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(0, m_control->ApplyRpcSettings());
    EXPECT_EQ(0, m_control->ApplyDpcSettings());
    EXPECT_THAT(daemon.TakeTypes(), IsEmpty());
}

TEST_F(PacketLogSettings, AreSentOnceForEachChange) {
    const PacketLogDaemon daemon(Path());
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxfiles", 3));
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxkbytes", 4));
    ASSERT_EQ(1, SetString("engine.rollpktcap.enabled", "true"));
    ASSERT_EQ(1, SetInt("engine.droplog.flags", 1));
    ASSERT_EQ(1, SetString("engine.droplog.enabled", "true"));
    EXPECT_EQ(0, m_control->Initialize());
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(1, 11, 9, 8, 6));
    EXPECT_EQ(0, m_control->Initialize());
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(1)) << "each reload says that the engine starts";
    ASSERT_EQ(1, SetString("engine.rollpktcap.enabled", "false"));
    ASSERT_EQ(1, SetString("engine.droplog.enabled", "false"));
    EXPECT_EQ(0, m_control->Initialize());
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(1, 10, 7));
}

TEST_F(PacketLogSettings, OfSizeZeroHoldTheConfigurationBackAndNotTheState) {
    const PacketLogDaemon daemon(Path());
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxfiles", 3));
    ASSERT_EQ(1, SetString("engine.rollpktcap.interfaces", "B"));
    ASSERT_EQ(1, SetString("engine.rollpktcap.enabled", "true"));
    EXPECT_EQ(0, m_control->ApplyRpcSettings());
    const Datagram datagram = daemon.Take();
    EXPECT_EQ(6U, WordAt(datagram, 0));
    EXPECT_EQ(3U, WordAt(datagram, 12));
    EXPECT_EQ(0U, WordAt(datagram, 16));
    EXPECT_EQ(2U, WordAt(datagram, 24));
    EXPECT_THAT(daemon.TakeTypes(), IsEmpty());
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxkbytes", 4));
    EXPECT_EQ(0, m_control->ApplyRpcSettings());
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(8));
}

TEST_F(PacketLogSettings, AreTriedAgainUntilTheyGoOut) {
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxfiles", 3));
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxkbytes", 4));
    ASSERT_EQ(1, SetString("engine.rollpktcap.enabled", "true"));
    ASSERT_EQ(1, SetInt("engine.droplog.flags", 1));
    ASSERT_EQ(1, SetString("engine.droplog.enabled", "true"));
    EXPECT_EQ(-1, m_control->ApplyRpcSettings());
    EXPECT_EQ(-1, m_control->ApplyDpcSettings());
    EXPECT_EQ(1U, m_control->m_uFailConfigureRolling);
    EXPECT_EQ(0U, Peer::RpcApplied(*m_control).uMaxFiles);
    EXPECT_EQ(2, Peer::RpcEnabledApplied(*m_control));
    const PacketLogDaemon daemon(Path());
    EXPECT_EQ(0, m_control->ApplyRpcSettings());
    EXPECT_EQ(0, m_control->ApplyDpcSettings());
    EXPECT_THAT(daemon.TakeTypes(), ElementsAre(8, 6, 11, 9));
    EXPECT_EQ(3U, Peer::RpcApplied(*m_control).uMaxFiles);
    EXPECT_EQ(1, Peer::RpcEnabledApplied(*m_control));
    EXPECT_EQ(1U, Peer::DpcApplied(*m_control).uInterfaces);
    EXPECT_EQ(1, Peer::DpcEnabledApplied(*m_control));
}

TEST_F(PacketLogSettings, OfAStateThatDoesNotGoOutGiveTheNegatedErrno) {
    ASSERT_EQ(1, SetString("engine.rollpktcap.enabled", "true"));
    ASSERT_EQ(1, SetString("engine.droplog.enabled", "true"));
    EXPECT_EQ(-ENOENT, m_control->ApplyRpcSettings());
    EXPECT_EQ(-ENOENT, m_control->ApplyDpcSettings());
    EXPECT_EQ(1U, m_control->m_uFailStartDrop);
}

TEST_F(PacketLogSettings, OfTheRollingCaptureGiveInitializeItsResult) {
    ASSERT_EQ(1, SetString("engine.droplog.enabled", "true"));
    EXPECT_EQ(0, m_control->Initialize()) << "the drop log's failure does not count";
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxfiles", 3));
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxkbytes", 4));
    EXPECT_EQ(-1, m_control->Initialize());
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxfiles", 0));
    ASSERT_EQ(1, SetString("engine.rollpktcap.enabled", "true"));
    ASSERT_EQ(1, SetInt("engine.droplog.flags", 1));
    EXPECT_EQ(-ENOENT, m_control->Initialize());
    EXPECT_EQ(-1, m_control->ApplyDpcSettings()) << "and not this";
}

TEST_F(PacketLogSettings, AreSentForAChangeOfAnyOne) {
    const PacketLogDaemon daemon(Path());
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxfiles", 3));
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxkbytes", 4));
    ASSERT_EQ(0, m_control->ApplyRpcSettings());
    ASSERT_THAT(daemon.TakeTypes(), ElementsAre(8));
    const auto appliesOnce = [&](int32_t (Control::*apply)(), uint32_t type) {
        EXPECT_EQ(0, (m_control->*apply)());
        EXPECT_EQ(0, (m_control->*apply)());
        EXPECT_THAT(daemon.TakeTypes(), ElementsAre(type));
    };
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxfiles", 5));
    appliesOnce(&Control::ApplyRpcSettings, 8);
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxkbytes", 6));
    appliesOnce(&Control::ApplyRpcSettings, 8);
    ASSERT_EQ(1, SetString("engine.rollpktcap.format", "text"));
    appliesOnce(&Control::ApplyRpcSettings, 8);
    ASSERT_EQ(1, SetString("engine.rollpktcap.interfaces", "b"));
    appliesOnce(&Control::ApplyRpcSettings, 8);
    ASSERT_EQ(1, SetInt("engine.droplog.maxfiles", 5));
    appliesOnce(&Control::ApplyDpcSettings, 11);
    ASSERT_EQ(1, SetInt("engine.droplog.maxkbytes", 6));
    appliesOnce(&Control::ApplyDpcSettings, 11);
    ASSERT_EQ(1, SetString("engine.droplog.format", "pcap"));
    appliesOnce(&Control::ApplyDpcSettings, 11);
    ASSERT_EQ(1, SetInt("engine.droplog.flags", 1));
    appliesOnce(&Control::ApplyDpcSettings, 11);
}

TEST_F(PacketLogSettings, OfOneSizeMissingAreHeldBack) {
    const PacketLogDaemon daemon(Path());
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxkbytes", 4));
    EXPECT_EQ(0, m_control->ApplyRpcSettings());
    EXPECT_THAT(daemon.TakeTypes(), IsEmpty()) << "no number of files";
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxfiles", 3));
    ASSERT_EQ(1, SetInt("engine.rollpktcap.maxkbytes", 0));
    EXPECT_EQ(0, m_control->ApplyRpcSettings());
    EXPECT_THAT(daemon.TakeTypes(), IsEmpty()) << "no size of a file";
}

TEST_F(PacketLogSettings, ThatAreWantedGoOutWithTheDropLogsStart) {
    const PacketLogDaemon daemon(Path());
    Peer::DpcPending(*m_control).uMaxFiles = 0;  // no setter stores it, and it is held back
    ASSERT_EQ(1, SetInt("engine.droplog.flags", 9));
    ASSERT_EQ(1, SetString("engine.droplog.enabled", "true"));
    EXPECT_EQ(0, m_control->ApplyDpcSettings());
    const Datagram datagram = daemon.Take();
    EXPECT_EQ(9U, WordAt(datagram, 0));
    EXPECT_EQ(0U, WordAt(datagram, 12));
    EXPECT_EQ(9U, WordAt(datagram, 24));
}

TEST_F(PacketLogSettings, ThatFailAreLoggedAsWarnings) {
    const auto log = LevelledMessages([this] {
        SetString("engine.rollpktcap.enabled", "true");
        SetString("engine.droplog.enabled", "true");
        (void)m_control->ApplyRpcSettings();
        (void)m_control->ApplyDpcSettings();
        SetInt("engine.rollpktcap.maxfiles", 3);
        SetInt("engine.rollpktcap.maxkbytes", 4);
        SetInt("engine.droplog.flags", 1);
        (void)m_control->ApplyRpcSettings();
        (void)m_control->ApplyDpcSettings();
        Peer::RpcPending(*m_control).uMaxFiles = 0;  // for the second run
        Peer::DpcPending(*m_control).uInterfaces = 0;
    });
    std::vector<std::string> warnings;
    for (const std::string& line : log) {
        if (line.front() == '2') {
            warnings.push_back(line.substr(2));
        }
    }
    EXPECT_THAT(
        warnings,
        ElementsAre(
            "Failed sending the RPC Enabled state change message to the packet logging daemon.",
            "Failed sending the DPC Enabled state change message to the packet logging daemon.",
            "Failed to send the RPC config change message to packet logging daemon.",
            "Failed to send the DPC config change message to packet logging daemon."));
    EXPECT_THAT(
        log,
        Contains(
            "5 Error sending control message of type 6 to the packet logging daemon.  Message: No such file or directory")
            .Times(2));
}

TEST_F(PacketLogSettings, PutTheRollingInterfacesIntoTheMaskWhileTheyAreOn) {
    const PacketLogDaemon daemon(Path());
    ASSERT_EQ(1, SetString("engine.rollpktcap.interfaces", "AC"));
    EXPECT_EQ(0, m_control->Initialize());
    EXPECT_EQ(0U, Peer::InterfaceMask(*m_control));
    ASSERT_EQ(1, SetString("engine.rollpktcap.enabled", "true"));
    EXPECT_EQ(0, m_control->Initialize());
    EXPECT_EQ(5U, Peer::InterfaceMask(*m_control));
    ASSERT_EQ(1, SetString("engine.rollpktcap.enabled", "false"));
    EXPECT_EQ(0, m_control->Initialize());
    EXPECT_EQ(0U, Peer::InterfaceMask(*m_control));
}

}  // namespace
