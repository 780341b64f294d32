#pragma once

// The packet logging daemon's end of the control socket, and the instance that talks to it: both on
// a path of the test's own.
//
// Threads: the test's own; the instance may be used from any.

#include <gtest/gtest.h>
#include <sys/un.h>

#include <cstdint>
#include <string>
#include <vector>

#include "packet_log/packet_log_ctrl_if.h"
#include "support/bound_socket.h"
#include "support/temp_dir.h"
#include "support/word_at.h"

class PacketLogDaemon {
  public:
    using Datagram = BoundSocket::Bytes;

    explicit PacketLogDaemon(const std::string& path) : m_socket(SOCK_DGRAM, path) {}

    // The next datagram; empty when there is none.
    Datagram Take() const { return m_socket.Take(); }

    // Takes all that waits, and yields the types in order.
    std::vector<uint32_t> TakeTypes() const {
        std::vector<uint32_t> types;
        for (Datagram datagram = Take(); !datagram.empty(); datagram = Take()) {
            types.push_back(WordAt(datagram, 0));
        }
        return types;
    }

  private:
    const BoundSocket m_socket;
};

namespace PacketLogCtrl {

// Reaches what no operation shows.
class PacketLogCtrlIFPeer {
  public:
    static void SetDestination(PacketLogCtrlIF& control, const std::string& path) {
        control.SetDestination(path.c_str());
    }
    static int32_t& Socket(PacketLogCtrlIF& control) { return control.m_iSocket; }
    static const sockaddr_un& Address(const PacketLogCtrlIF& control) { return control.m_sockAddr; }
    static uint32_t AddressLength(const PacketLogCtrlIF& control) { return control.m_uSockAddrLen; }
    static int32_t RefCount() { return PacketLogCtrlIF::m_iRefCount; }
    static bool Exists() { return PacketLogCtrlIF::m_pInstance != nullptr; }
    static bool HasConnections() { return PacketLogCtrlIF::m_pConnHashMap != nullptr; }

    static uint32_t LastFailTime(const PacketLogCtrlIF& c) { return c.m_uLastFailTime; }
    static uint32_t LastFrameNotSent(const PacketLogCtrlIF& c) { return c.m_uLastFrameNotSent; }
    static uint32_t RepeatConnections(const PacketLogCtrlIF& c) { return c.m_uRepeatConnections; }
    static uint32_t InterfaceMask(const PacketLogCtrlIF& c) { return c.m_uLEInterfaceMask; }
    static std::atomic<int32_t>& InterfaceCount(PacketLogCtrlIF& c, size_t interface) {
        return c.m_aLEInterfaces.at(interface);
    }
    static std::atomic<uint16_t>& NextCaptureId(PacketLogCtrlIF& c) { return c.m_uNextCaptureId; }

    static LogControlMessage_CaptureSettings& RpcApplied(PacketLogCtrlIF& c) {
        return c.m_rpc.applied;
    }
    static LogControlMessage_CaptureSettings& RpcPending(PacketLogCtrlIF& c) {
        return c.m_rpc.pending;
    }
    static LogControlMessage_CaptureSettings& DpcApplied(PacketLogCtrlIF& c) {
        return c.m_dpc.applied;
    }
    static LogControlMessage_CaptureSettings& DpcPending(PacketLogCtrlIF& c) {
        return c.m_dpc.pending;
    }
    static int32_t RpcEnabledPending(const PacketLogCtrlIF& c) { return c.m_rpc.enabledPending; }
    static int32_t RpcEnabledApplied(const PacketLogCtrlIF& c) { return c.m_rpc.enabledApplied; }
    static int32_t DpcEnabledPending(const PacketLogCtrlIF& c) { return c.m_dpc.enabledPending; }
    static int32_t DpcEnabledApplied(const PacketLogCtrlIF& c) { return c.m_dpc.enabledApplied; }

    static uint32_t EvidenceFormat(const PacketLogCtrlIF& c) { return c.m_uEvidenceFormat; }
    static uint32_t EvidenceMaxFiles(const PacketLogCtrlIF& c) { return c.m_uEvidenceMaxFiles; }
    static uint32_t EvidenceMaxKBytes(const PacketLogCtrlIF& c) { return c.m_uEvidenceMaxKBytes; }
    static uint32_t EvidenceCount(const PacketLogCtrlIF& c) { return c.m_uEvidenceCount; }
    static uint32_t EvidenceTimeout(const PacketLogCtrlIF& c) { return c.m_uEvidenceTimeout; }
    static uint32_t BufferCtrlSize(const PacketLogCtrlIF& c) { return c.m_uBufferCtrlSize; }
    static void SetBufferCtrlSize(PacketLogCtrlIF& c, uint32_t bytes) {
        c.m_uBufferCtrlSize = bytes;
    }
    static uint32_t SuppressSeconds(const PacketLogCtrlIF& c) { return c.m_uSuppressSeconds; }
};

}  // namespace PacketLogCtrl

// An instance of the test's own whose messages go to Path().
class PacketLogFixture : public testing::Test {
  protected:
    using Control = PacketLogCtrl::PacketLogCtrlIF;
    using Peer = PacketLogCtrl::PacketLogCtrlIFPeer;
    using Datagram = PacketLogDaemon::Datagram;

    void SetUp() override {
        ASSERT_EQ(0, Peer::RefCount()) << "another test kept its instance";
        m_control = Control::GetInstance();
        Peer::SetDestination(*m_control, Path());
    }
    void TearDown() override {
        if (m_control != nullptr) {
            EXPECT_EQ(0, m_control->Release());
        }
    }

    std::string Path() const { return m_dir.File("packetLog"); }
    void Open() { ASSERT_EQ(0, m_control->OpenControlChannel()); }

    TempDir m_dir;
    Control* m_control = nullptr;
};
