#pragma once

// A reader on a FIFO of its own, with the test as the sensor at the other end.
//
// Threads: the test's own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "config/config.h"
#include "snort/snort_event_reader.h"
#include "support/temp_dir.h"
#include "support/unified2_records.h"
#include "unit/snort/log_questions.h"

using Ids = std::vector<uint32_t>;

// The bridge of these tests is not initialised, so it refuses every event, and the dump that
// precedes the hand-over shows what was to be handed over.
class SnortEventReaderTest : public testing::Test {
  protected:
    SnortEventReaderTest() {
        Config::s_logLevel = 5;
        m_reader = std::make_unique<SnortEventReader>(m_path.c_str());
        EXPECT_TRUE(m_reader->CreateFifo());
    }
    ~SnortEventReaderTest() override {
        StopSensor();
        Config::s_logLevel = 3;
    }

    // A sensor that can write before the reader has opened its end.
    void StartSensor() { m_sensor = open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC); }
    void StopSensor() {
        if (m_sensor != -1) {
            close(m_sensor);
            m_sensor = -1;
        }
    }

    void Write(const u2test::Bytes& bytes) {
        if (m_sensor == -1) {
            StartSensor();
        }
        ASSERT_EQ(write(m_sensor, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    // Writes one record and has it read.
    template <typename Record>
    void Send(const Record& record) {
        Write(u2test::Framed(record));
        EXPECT_TRUE(m_reader->ReadEvent(10));
    }
    void SendAlert(uint32_t eventId) { Send(u2test::Alert{.eventId = eventId}); }

    // A wait that ends without data.
    void QuietSecond() {
        if (m_sensor == -1) {
            StartSensor();
        }
        EXPECT_FALSE(m_reader->ReadEvent(0));
    }

    // The ids of the alerts handed over so far, in order.
    [[nodiscard]] Ids HandedOver() const {
        Ids ids;
        const std::string title = "Type: Event ";
        for (const std::string& line : m_log.Lines()) {
            if (line.starts_with(title)) {
                ids.push_back(static_cast<uint32_t>(std::stoul(line.substr(title.size()))));
            }
        }
        return ids;
    }

    [[nodiscard]] std::vector<std::string> Lines() const { return m_log.Lines(); }

    // Asks for a writer's end, which there is only with a reader. The sensor must be stopped, since
    // its end is one of both.
    [[nodiscard]] bool ReaderHasTheFifoOpen() const {
        const int probe = open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (probe == -1) {
            return false;
        }
        close(probe);
        return true;
    }

    [[nodiscard]] long FailedPackets(uint32_t eventId) const {
        return m_log.CountAt(
            3, "Failed to associate alert event " + std::to_string(eventId) +
                   " with packet event. Packet event reported from Snort doesn't match "
                   "previous alert event");
    }
    [[nodiscard]] long FailedExtraData(uint32_t eventId, size_t pending) const {
        return m_log.CountAt(
            3, "Failed to associate alert event " + std::to_string(eventId) +
                   " with extra data event. Number of pending events: " + std::to_string(pending));
    }
    [[nodiscard]] long Positions(uint32_t eventId, int position) const {
        return m_log.Count(
            "Incoming event ID: " + std::to_string(eventId) +
            ", assocated to position in pending events: " + std::to_string(position));
    }

    TempDir m_folder;
    QuestionedLog m_log;
    std::string m_path = m_folder.File("alerts.fifo");
    std::unique_ptr<SnortEventReader> m_reader;
    int m_sensor = -1;
};
