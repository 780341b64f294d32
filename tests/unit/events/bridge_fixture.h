#pragma once

// A bridge on a CRM channel of the test's own, with a rule table of two signatures.
//
// Threads: the test's main thread, unless a test says otherwise.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "config/config.h"
#include "config/event_rule_table.h"
#include "events/event_bridge.h"
#include "packet_log/packet_log_ctrl_if.h"
#include "support/independent_ring.h"
#include "support/log_capture.h"
#include "support/private_channel.h"
#include "unit/events/test_alert.h"

// Reaches what no operation shows.
class EventBridgePeer {
  public:
    static void WakeUpForNothing(EventBridge& bridge) { pthread_cond_signal(&bridge.m_notEmpty); }
    static PacketLogCtrl::PacketLogCtrlIF* PacketLog(EventBridge& bridge) {
        return bridge.m_packetLog;
    }
    // Gives the reference back, as if Initialize had not got one.
    static void DropPacketLog(EventBridge& bridge) {
        bridge.m_packetLog->Release();
        bridge.m_packetLog = nullptr;
    }
    // Speaks to a stand-in for the security manager from here on.
    static void SetSecurityManager(EventBridge& bridge, const std::string& socketPath,
                                   int32_t timeoutSeconds) {
        std::destroy_at(&bridge.m_dbtComm);
        std::construct_at(&bridge.m_dbtComm, socketPath, timeoutSeconds);
    }
    static int ApplyQuarantinePolicy(EventBridge& bridge, const CrmEventSource& source,
                                     uint32_t responseFlags,
                                     const std::list<BlockRule>& blockRules) {
        return bridge.ApplyQuarantinePolicy(&source, responseFlags, blockRules);
    }
    static int QuarantineByRule(EventBridge& bridge, const CrmEventSource& source,
                                const BlockRule& blockRule) {
        return bridge.QuarantineByRule(&source, &blockRule);
    }
    static uint32_t References(EventBridge& bridge) { return bridge.m_refCount.load(); }
    static int32_t Count(EventBridge& bridge) { return bridge.m_count.load(); }
    // True once the consumer is asleep for want of an event, and until it is woken or gives up.
    static bool ConsumerSleeps(EventBridge& bridge) {
        if (!bridge.m_waits.load()) {
            return false;
        }
        const Lock lock(bridge);  // free once the wait has begun
        return bridge.m_waits.load();
    }
    static bool LockIsFree(EventBridge& bridge) {
        if (pthread_mutex_trylock(&bridge.m_mutex) != 0) {
            return false;
        }
        pthread_mutex_unlock(&bridge.m_mutex);
        return true;
    }
    // Holds the ring's lock while it lives.
    class Lock {
      public:
        explicit Lock(EventBridge& bridge) : m_bridge(bridge) {
            pthread_mutex_lock(&m_bridge.m_mutex);
        }
        ~Lock() { pthread_mutex_unlock(&m_bridge.m_mutex); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

      private:
        EventBridge& m_bridge;
    };
};

class EventBridgeFixture : public testing::Test {
  protected:
    static constexpr uint32_t kKnown = 1000;
    static constexpr uint32_t kKnownWithRaw = 1001;
    static constexpr uint32_t kUnknown = 4711;

    static void SetUpTestSuite() {
        static const bool once = (Config::Initialize(), true);
        (void)once;
    }

    void SetUp() override {
        TestAlert::ResetCounts();
        Set("se.1000.msg", "Known");
        Set("se.1000.severity", "high");
        Set("se.1000.rule", "alert tcp");
        Set("se.1000.user.response", "DISPLAY:WithoutRaw");
        Set("se.1001.msg", "With raw packet");
        Set("se.1001.severity", "low");
        Set("se.1001.user.response", "WithRaw");
        Set("se.1001.rule", "alert udp");
        ASSERT_TRUE(Config::s_eventTable.Commit());
        m_bridge = EventBridge::GetInstance();
    }

    void TearDown() override {
        if (m_bridge != nullptr) {
            m_bridge->Release();
        }
        Config::s_eventTable.Clear();
        Config::s_debugSingle = 0;
        EXPECT_EQ(0, TestAlert::s_alive) << "every event has found its end";
    }

    static void Set(const char* name, const char* value) {
        ASSERT_TRUE(Config::ApplyEventSetting(name, value)) << name;
    }

    void InitializeForThreads() {
        Config::s_debugSingle = 0;
        ASSERT_EQ(0, m_bridge->Initialize());
    }

    void InitializeForOneThread() {
        Config::s_debugSingle = 1;
        ASSERT_EQ(0, m_bridge->Initialize());
    }

    // The messages in the channel's first ring, oldest first.
    std::vector<std::vector<unsigned char>> Reports() {
        IndependentRing ring(m_channel.RingBase() + "-0");
        std::vector<std::vector<unsigned char>> reports;
        for (std::vector<unsigned char> message; ring.Take(message);) {
            reports.push_back(message);
        }
        return reports;
    }

    PrivateChannel m_channel;
    EventBridge* m_bridge = nullptr;
};
