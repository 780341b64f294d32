// What PacketLogCtrlIF counts: messages, frames and the packets of an interface, from any thread.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "logging/log.h"
#include "packet_log/packet_log_ctrl_if.h"
#include "support/allocation_count.h"
#include "support/packet_log_daemon.h"

namespace {

using PacketLogCtrl::kAllInterfaces;
using PacketLogCounts = PacketLogFixture;

TEST_F(PacketLogCounts, CountsOfEightThreadsAddUp) {
    Open();
    constexpr uint32_t kThreads = 8;
    constexpr uint32_t kEach = 40;
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            for (uint32_t i = 0; i < kEach; ++i) {
                m_control->SendOffendingPacketCapture(nullptr, nullptr, 0);
                (void)m_control->SendConnectionCaptureNotice(i, 0);
                (void)m_control->CountFrameNotSent(t * kEach + i);
                (void)m_control->ConsumeInterfaceCount(t);
                EventReport report;
                report.ipProtocol = 6;
                bool isNew = false;
                uint16_t captureId = 0;
                uint64_t connection = 0;
                EXPECT_EQ(1, m_control->SendNewConnectionCapture(&report, nullptr, isNew, captureId,
                                                                 connection));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(3 * kThreads * kEach, m_control->m_uAttempted);
    EXPECT_EQ(kThreads * kEach, m_control->m_uFailOffendingPacket);
    EXPECT_EQ(kThreads * kEach, m_control->m_uFailConnectionNotice);
    EXPECT_EQ(kThreads * kEach, m_control->m_uFailNewConnection);
    EXPECT_EQ(kThreads * kEach, m_control->m_uFramesNotSent);
    EXPECT_EQ(kThreads * kEach + 1, Peer::NextCaptureId(*m_control));
}

TEST_F(PacketLogCounts, EightThreadsReachTheDaemonWithWholeDatagrams) {
    Open();
    const PacketLogDaemon daemon(Path());
    std::atomic<bool> done{false};
    uint32_t received = 0;
    std::thread reader([&] {
        for (;;) {
            const bool last = done.load();
            const Datagram datagram = daemon.Take();
            if (!datagram.empty()) {
                ++received;
                ASSERT_EQ(128U + WordAt(datagram, 92), datagram.size());
                for (size_t at = 128; at < datagram.size(); ++at) {
                    ASSERT_EQ(datagram[96], datagram[at]);  // the thread's own byte
                }
            } else if (last) {
                return;
            }
        }
    });
    std::vector<std::thread> threads;
    for (uint8_t t = 101; t <= 108; ++t) {
        threads.emplace_back([this, t] {
            const std::vector<uint8_t> data(t * 10U, t);
            PacketInfo packet;
            packet.iCapturedSize = static_cast<int32_t>(data.size());
            packet.uSeconds = t;
            packet.pData = data.data();
            for (int i = 0; i < 100; ++i) {
                m_control->SendOffendingPacketCapture(nullptr, &packet, 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    done = true;
    reader.join();
    EXPECT_EQ(800U,
              received + m_control->m_uFailOffendingPacket.load() + m_control->m_uThrottled.load());
    EXPECT_GT(received, 0U);
}

TEST_F(PacketLogCounts, CountsFramesThatWereNotSent) {
    EXPECT_EQ(1U, m_control->CountFrameNotSent(17));
    EXPECT_EQ(2U, m_control->CountFrameNotSent(18));
    EXPECT_EQ(18U, Peer::LastFrameNotSent(*m_control));
    EXPECT_EQ(2U, m_control->m_uFramesNotSent);
}

TEST_F(PacketLogCounts, RaisesAnInterfaceToTheCountAndNotBeyond) {
    Open();
    const PacketLogDaemon daemon(Path());
    Peer::InterfaceCount(*m_control, 4) = 250;
    EXPECT_EQ(0, m_control->SendInterfaceCapture(3, 1, 1000, nullptr));
    EXPECT_EQ(100, Peer::InterfaceCount(*m_control, 3));
    EXPECT_EQ(0, Peer::InterfaceCount(*m_control, 2));
    EXPECT_EQ(0, m_control->SendInterfaceCapture(kAllInterfaces, 1, 1000, nullptr));
    for (size_t interface = 0; interface < 16; ++interface) {
        EXPECT_EQ(interface == 4 ? 250 : 100, Peer::InterfaceCount(*m_control, interface));
    }
    EXPECT_EQ(0, m_control->SendInterfaceCapture(16, 1, 1000, nullptr)) << "beyond the counts";
}

TEST_F(PacketLogCounts, RaisesAnInterfaceToTheConfiguredCount) {
    Open();
    const PacketLogDaemon daemon(Path());
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.count", 7));
    Peer::InterfaceCount(*m_control, 15) = 5;
    for (const uint32_t interface : {0U, 15U}) {
        EXPECT_EQ(0, m_control->SendInterfaceCapture(interface, 1, 1000, nullptr));
        EXPECT_EQ(7, Peer::InterfaceCount(*m_control, interface));
    }
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.count", 9));
    EXPECT_EQ(0, m_control->SendInterfaceCapture(kAllInterfaces, 1, 1000, nullptr));
    for (size_t interface = 0; interface < 16; ++interface) {
        EXPECT_EQ(9, Peer::InterfaceCount(*m_control, interface));
    }
}

TEST_F(PacketLogCounts, RaisesNothingWhenTheCaptureDidNotGoOut) {
    Open();
    EXPECT_EQ(ENOENT, m_control->SendInterfaceCapture(3, 1, 1000, nullptr));
    EXPECT_EQ(0, Peer::InterfaceCount(*m_control, 3));
    EXPECT_EQ(-2, m_control->SendInterfaceCapture(3, 1, 1000, nullptr));
    EXPECT_EQ(0, Peer::InterfaceCount(*m_control, 3)) << "skipped is not sent";
    EXPECT_EQ(1U, m_control->m_uFailInterfaceCapture);
}

TEST_F(PacketLogCounts, ConsumesAnInterfaceDownToZeroAndRestsThere) {
    Peer::InterfaceCount(*m_control, 0) = 2;
    EXPECT_EQ(1, m_control->ConsumeInterfaceCount(0));
    EXPECT_EQ(0, m_control->ConsumeInterfaceCount(0));
    EXPECT_EQ(0, m_control->ConsumeInterfaceCount(0));
    EXPECT_EQ(0, Peer::InterfaceCount(*m_control, 0));
    EXPECT_EQ(0, m_control->ConsumeInterfaceCount(16));
}

TEST_F(PacketLogCounts, GivesEachPacketOfAnInterfaceToOneOfEightThreads) {
    constexpr int32_t kPackets = 1000;
    std::atomic<int32_t>& count = Peer::InterfaceCount(*m_control, 5);
    for (int round = 0; round < 20; ++round) {
        count = kPackets;
        std::atomic<int32_t> taken{0};
        std::atomic<int32_t> lowest{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&] {
                for (int32_t i = 0; i < kPackets; ++i) {
                    taken += m_control->ConsumeInterfaceCount(5) > 0 ? 1 : 0;
                    const int32_t seen = count;
                    if (seen < 0) {
                        lowest = seen;
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(kPackets - 1, taken) << "the last packet leaves 0";
        ASSERT_EQ(0, lowest) << "nobody ever saw it below";
        ASSERT_EQ(0, count) << "and there it rests";
    }
}

TEST_F(PacketLogCounts, AllocatesNothingForAPacket) {
    Open();
    const PacketLogDaemon daemon(Path());
    const std::vector<uint8_t> data(1514, 0x5A);
    EventReport report;
    report.userString = "SNORT";
    PacketInfo packet;
    packet.iCapturedSize = 1514;
    packet.uSeconds = 1000;
    packet.pData = data.data();
    (void)vald::Log::GetInstance();  // its first call makes the log
    const uint64_t before = AllocationCount();
    m_control->SendOffendingPacketCapture(&report, &packet, 0);
    const uint64_t sent = AllocationCount();
    Peer::SetDestination(*m_control, m_dir.File("nobody"));
    const uint64_t between = AllocationCount();
    m_control->SendOffendingPacketCapture(&report, &packet, 0);
    m_control->SendOffendingPacketCapture(&report, &packet, 0);
    EXPECT_EQ(before, sent);
    EXPECT_EQ(between, AllocationCount()) << "nor for one that fails or is skipped";
    EXPECT_EQ(1642U, daemon.Take().size());
    EXPECT_EQ(1U, m_control->m_uThrottled);
}

}  // namespace
