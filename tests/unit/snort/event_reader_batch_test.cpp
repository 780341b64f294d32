// When the reader wakes the thread that processes what it hands over: as soon as it has nothing
// more to read, and not with each alert.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "unit/events/bridge_fixture.h"
#include "unit/snort/event_reader_fixture.h"
#include "unit/snort/recorded_waits.h"

namespace {

using std::chrono::milliseconds;

class SnortEventReaderBatch : public SnortEventReaderTest {
  protected:
    SnortEventReaderBatch() {
        vald::Log::SetLevel(0);  // this log is for one thread only
        Config::s_logLevel = 0;
        Config::s_debugSingle = 0;
        EXPECT_TRUE(Config::ApplyEventSetting("se.1000001.msg", "A rule"));
        EXPECT_TRUE(Config::ApplyEventSetting("se.1000001.severity", "low"));
        EXPECT_TRUE(Config::s_eventTable.Commit());
        m_bridge = EventBridge::GetInstance();
        EXPECT_EQ(0, m_bridge->Initialize());
    }
    ~SnortEventReaderBatch() override {
        m_reader.reset();
        m_bridge->Release();
        Config::s_eventTable.Clear();
    }

    // Alerts in one write, and a pass for each.
    void ReadAlerts(uint32_t count) {
        u2test::Bytes stream;
        for (uint32_t id = 0; id < count; ++id) {
            u2test::Append(stream, u2test::Framed(u2test::Alert{.eventId = id}));
        }
        Write(stream);
        for (uint32_t id = 0; id < count; ++id) {
            ASSERT_TRUE(m_reader->ReadEvent(10));
        }
    }

    // A consumer that takes so many events and is asleep for want of one.
    class Sleeper {
      public:
        Sleeper(EventBridge& bridge, int events)
            : m_thread([this, &bridge, events] {
                  constexpr uint32_t kLong = 20;  // seconds, far longer than a wake-up takes
                  m_taken = bridge.ProcessEventQueue(events, kLong);
                  m_isDone = true;
              }) {
            while (!EventBridgePeer::ConsumerSleeps(bridge)) {
                std::this_thread::yield();
            }
        }
        ~Sleeper() { m_thread.join(); }
        Sleeper(const Sleeper&) = delete;
        Sleeper& operator=(const Sleeper&) = delete;

        [[nodiscard]] bool IsDone() const { return m_isDone; }
        // The events that it has taken, once it has them all or has waited for long.
        [[nodiscard]] int Taken() const {
            while (!m_isDone) {
                std::this_thread::yield();
            }
            return m_taken;
        }

      private:
        int m_taken = -1;
        std::atomic<bool> m_isDone{false};
        std::thread m_thread;
    };

    PrivateChannel m_channel;
    EventBridge* m_bridge = nullptr;
};

TEST_F(SnortEventReaderBatch, LastsAsLongAsThereIsMoreToRead) {
    Sleeper consumer(*m_bridge, 1);
    ReadAlerts(140);  // of which twelve push others out
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_FALSE(consumer.IsDone());
    BeforeTheNextSelect([&consumer] { EXPECT_EQ(1, consumer.Taken()); });
    EXPECT_FALSE(m_reader->ReadEvent(0)) << "nothing is there, and the batch ends before the wait";
}

TEST_F(SnortEventReaderBatch, EndsWithTheFlush) {
    ReadAlerts(40);
    const Sleeper consumer(*m_bridge, 40);
    EXPECT_FALSE(m_reader->ReadEvent(0));
    EXPECT_EQ(40, consumer.Taken());
}

TEST_F(SnortEventReaderBatch, EndsWithTheReader) {
    const Sleeper consumer(*m_bridge, 12);
    ReadAlerts(140);
    m_reader.reset();
    EXPECT_EQ(12, consumer.Taken());
}

TEST_F(SnortEventReaderBatch, EndsBeforeAnOpenThatFails) {
    const Sleeper consumer(*m_bridge, 12);
    ReadAlerts(140);
    Write(u2test::Bytes{0, 0});
    StopSensor();
    EXPECT_FALSE(m_reader->ReadEvent(0)) << "the end of the writer within a header";
    unlink(m_path.c_str());
    EXPECT_FALSE(m_reader->ReadEvent(0));
    EXPECT_EQ(12, consumer.Taken());
}

}  // namespace
