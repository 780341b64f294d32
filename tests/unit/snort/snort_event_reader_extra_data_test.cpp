// Which alert a record of extra data finds: its position follows from the distance of the ids.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "unit/snort/event_reader_fixture.h"

namespace {

using u2test::ExtraData;

using SnortEventReaderExtraData = SnortEventReaderTest;

TEST_F(SnortEventReaderExtraData, AttachesToTheAlertBeforeTheNewest) {
    for (uint32_t id = 11; id <= 15; ++id) {
        SendAlert(id);
    }
    Send(ExtraData{.eventId = 14});
    EXPECT_EQ(1, Positions(14, 3));
    EXPECT_EQ(1, m_log.Count("Associate alert event 14 with extra data event"));
    QuietSecond();
    const auto lines = Lines();
    const auto extra = std::find(lines.begin(), lines.end(),
                                 "Type: Extra Data 14 -------------------------------------------");
    ASSERT_NE(extra, lines.end());
    EXPECT_EQ(4, std::count_if(lines.begin(), extra, [](const std::string& line) {
                  return line.starts_with("Type: Event");
              }));
}

TEST_F(SnortEventReaderExtraData, FindsItsAlertAcrossTheWrapOfTheIds) {
    for (const uint32_t id : {65535U, 0U, 1U, 2U}) {
        SendAlert(id);
    }
    Send(ExtraData{.eventId = 65535});
    EXPECT_EQ(1, Positions(65535, 0));
    EXPECT_EQ(1, m_log.Count("Associate alert event 65535 with extra data event"));
}

TEST_F(SnortEventReaderExtraData, FarLargerIdYieldsAPositionBehindTheEndOfTheList) {
    SendAlert(1);
    const uint32_t id = 1 + 65536 + 10;  // a distance of -10, a position of 10
    Send(ExtraData{.eventId = id});
    EXPECT_EQ(1, Positions(id, 10));
    EXPECT_EQ(0, m_log.Count("Out of the range of pending events"));
    EXPECT_EQ(1, FailedExtraData(id, 1));
}

TEST_F(SnortEventReaderExtraData, KeepsTheRangeLimitOfAFullListForAShorterOne) {
    SendAlert(1);
    const uint32_t last = 1 + 65536 + 127;
    Send(ExtraData{.eventId = last});
    EXPECT_EQ(1, Positions(last, 127));
    EXPECT_EQ(0, m_log.Count("Out of the range of pending events"));
    Send(ExtraData{.eventId = last + 1});
    EXPECT_EQ(
        1, m_log.CountAt(3, "Out of the range of pending events, position in pending events: 128"));
    EXPECT_EQ(1, FailedExtraData(last, 1));
    EXPECT_EQ(1, FailedExtraData(last + 1, 1));
}

TEST_F(SnortEventReaderExtraData, OfAForwardedAlertIsOutOfRange) {
    SendAlert(5);
    Send(ExtraData{.eventId = 4});
    EXPECT_EQ(
        1, m_log.CountAt(3, "Out of the range of pending events, position in pending events: -1"));
    EXPECT_EQ(1, FailedExtraData(4, 1));
}

TEST_F(SnortEventReaderExtraData, WithAnEmptyListFailsWithoutAPosition) {
    Send(ExtraData{.eventId = 4});
    EXPECT_EQ(1, FailedExtraData(4, 0));
    EXPECT_EQ(0, m_log.Count("Incoming event ID"));
}

TEST_F(SnortEventReaderExtraData, KeepsLookingOnlyAtThePositionOfTheId) {
    for (const uint32_t id : {1U, 2U, 4U}) {  // 3 is missing
        SendAlert(id);
    }
    Send(ExtraData{.eventId = 2});  // at position 1, but 4 - 2 makes it 0
    EXPECT_EQ(1, Positions(2, 0));
    EXPECT_EQ(1, FailedExtraData(2, 3));
    QuietSecond();
    EXPECT_EQ(0, m_log.Count("Type: Extra Data"));
}

TEST_F(SnortEventReaderExtraData, OfAnUnsupportedKindCountsAsAssociatedAndIsDropped) {
    SendAlert(1);
    Send(ExtraData{.eventId = 1, .type = 13});
    EXPECT_EQ(1, m_log.Count("Associate alert event 1 with extra data event"));
    EXPECT_EQ(1, m_log.CountAt(3, "Unsupported ExtraData type receive from Snort"));
    EXPECT_EQ(0, m_log.Count("Failed to associate"));
    QuietSecond();
    EXPECT_EQ(0, m_log.Count("Type: Extra Data"));
}

TEST_F(SnortEventReaderExtraData, IdsFarApartNeverLeaveTheList) {
    SendAlert(0x80000000);
    for (const uint32_t id : {0U, 1U, 0x7FFFFFFFU, 0xFFFFFFFFU, 0x80000001U}) {
        Send(ExtraData{.eventId = id});
        EXPECT_EQ(1, FailedExtraData(id, 1)) << id;
    }
}

TEST_F(SnortEventReaderExtraData, FindsItsAlertAfterTheListHasTurned) {
    for (uint32_t id = 1; id <= 200; ++id) {
        SendAlert(id);
    }
    Send(ExtraData{.eventId = 73});
    EXPECT_EQ(1, Positions(73, 0));
    EXPECT_EQ(1, m_log.Count("Associate alert event 73 with extra data event"));
    Send(ExtraData{.eventId = 72});
    EXPECT_EQ(1, FailedExtraData(72, 128));
}

}  // namespace
