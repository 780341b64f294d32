#include "snort/snort_event_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "config/config.h"
#include "events/event_bridge.h"
#include "support/allocation_count.h"
#include "support/private_channel.h"
#include "support/unified2_records.h"
#include "unit/snort/event_reader_fixture.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARN_TEST_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARN_TEST_SANITIZED
#endif
#endif

namespace {

using u2test::Alert;
using u2test::Bytes;
using u2test::ExtraData;
using u2test::Framed;
using u2test::Packet;

using SnortEventReaderOpening = SnortEventReaderTest;
using SnortEventReaderFraming = SnortEventReaderTest;
using SnortEventReaderPending = SnortEventReaderTest;
using SnortEventReaderPackets = SnortEventReaderTest;
using SnortEventReaderHandOver = SnortEventReaderTest;

// ---- Opening ----

TEST_F(SnortEventReaderOpening, OpensTheFifoWithoutWaitingForAWriter) {
    EXPECT_FALSE(m_reader->ReadEvent(0));
    EXPECT_EQ(1, m_log.Count("Opening file: " + m_path));
    EXPECT_EQ(1, m_log.Count("File is opened, waiting for Snort events"));
    EXPECT_FALSE(m_reader->ReadEvent(0));
    EXPECT_EQ(1, m_log.Count("Opening file: " + m_path));
}

TEST_F(SnortEventReaderOpening, TriesAgainAfterAFailedOpen) {
    ASSERT_EQ(0, unlink(m_path.c_str()));
    EXPECT_FALSE(m_reader->ReadEvent(0));
    EXPECT_FALSE(m_reader->ReadEvent(0));
    EXPECT_EQ(
        2, m_log.CountAt(1, "Open file error: " + m_path + ", reason: No such file or directory"));
    ASSERT_TRUE(m_reader->CreateFifo());
    SendAlert(1);
}

TEST_F(SnortEventReaderOpening, FailedOpenKeepsThePendingAlerts) {
    SendAlert(1);
    StopSensor();
    EXPECT_FALSE(m_reader->ReadEvent(10));  // end of file
    ASSERT_EQ(0, unlink(m_path.c_str()));
    EXPECT_FALSE(m_reader->ReadEvent(0));
    EXPECT_TRUE(HandedOver().empty());
    ASSERT_TRUE(m_reader->CreateFifo());
    QuietSecond();
    EXPECT_EQ(Ids{1}, HandedOver());
}

TEST_F(SnortEventReaderOpening, ReopensForANewWriterAfterTheEndOfFile) {
    SendAlert(1);
    QuietSecond();
    StopSensor();
    EXPECT_FALSE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.Count("Read EOF in SNORT event"));
    EXPECT_FALSE(ReaderHasTheFifoOpen());

    SendAlert(2);
    QuietSecond();
    EXPECT_EQ((Ids{1, 2}), HandedOver());
    EXPECT_EQ(2, m_log.Count("Opening file: "));
}

TEST_F(SnortEventReaderOpening, DescriptorIsNotInheritedByOtherPrograms) {
    StartSensor();
    const int next = dup(m_sensor);
    ASSERT_NE(-1, next);
    close(next);
    EXPECT_FALSE(m_reader->ReadEvent(0));  // opens at the number that is free now
    EXPECT_NE(0, fcntl(next, F_GETFD) & FD_CLOEXEC);
}

// ---- Framing ----

TEST_F(SnortEventReaderFraming, HandlesOneRecordACall) {
    Bytes two = Framed(Alert{.eventId = 1});
    u2test::Append(two, Framed(Alert{.eventId = 2}));
    Write(two);
    EXPECT_TRUE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.Count("Got Snort event, Header: Type = 104, Length = 60"));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    EXPECT_EQ(2, m_log.Count("Got Snort event, Header: Type = 104, Length = 60"));
    EXPECT_EQ(0, m_log.Count("Partial event read"));
}

TEST_F(SnortEventReaderFraming, TakesTheIpv6Alert) {
    Alert alert = u2test::AlertIpv6();
    alert.eventId = 9;
    Send(alert);
    QuietSecond();
    EXPECT_EQ(Ids{9}, HandedOver());
    EXPECT_EQ(1, m_log.Count("  ip_source          = 2001:db8::1"));
}

TEST_F(SnortEventReaderFraming, IgnoresWhatARecordHasBeyondItsType) {
    Bytes payload = Alert{.eventId = 3}.Payload();
    payload.resize(124, 0x55);
    Write(Framed(104, payload));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    QuietSecond();
    EXPECT_EQ(Ids{3}, HandedOver());
}

TEST_F(SnortEventReaderFraming, ReadsOnInStepAfterARecordOfAnotherType) {
    Write(Framed(7, Bytes(52, 0xFF)));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.Count("Unsupported event type: 7"));
    Write(Framed(0xFFFFFFFF, Bytes{}));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.Count("Unsupported event type: 4294967295"));
    SendAlert(1);
    QuietSecond();
    EXPECT_EQ(Ids{1}, HandedOver());
}

TEST_F(SnortEventReaderFraming, KeepsTheLineFeedOfTheUnsupportedTypeMessage) {
    Write(Framed(72, Bytes(4)));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    const std::vector<std::string> lines = Lines();
    const auto message = std::find(lines.begin(), lines.end(), "Unsupported event type: 72");
    ASSERT_NE(message, lines.end());
    ASSERT_NE(message + 1, lines.end());
    EXPECT_EQ("", message[1]);
}

TEST_F(SnortEventReaderFraming, TellsAnUnsupportedTypeAtNoticeLevel) {
    vald::Log::SetLevel(vald::Log::kInfo);
    Write(Framed(72, Bytes(4)));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    EXPECT_EQ(0, m_log.Count("Unsupported event type"));
    vald::Log::SetLevel(vald::Log::kNotice);
    Write(Framed(72, Bytes(4)));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.Count("Unsupported event type"));
}

TEST_F(SnortEventReaderFraming, ZeroLengthAlertIsAnAlertOfZeros) {
    Write(Framed(104, Bytes{}));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    QuietSecond();
    EXPECT_EQ(Ids{0}, HandedOver());
    EXPECT_EQ(1, m_log.Count("  ip_source          = 0.0.0.0"));
}

TEST_F(SnortEventReaderFraming, ZeroLengthIpv6AlertIsAnAlertOfZeros) {
    Write(Framed(105, Bytes{}));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    QuietSecond();
    EXPECT_EQ(1, m_log.Count("  ip_source          = ::"));
}

TEST_F(SnortEventReaderFraming, ZeroLengthPacketIsAPacketOfZeros) {
    SendAlert(0);
    Write(Framed(2, Bytes{}));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.CountAt(2, "Packet length doesn't match to the receive payload"));
    QuietSecond();
    EXPECT_EQ(1, m_log.Count("Type: Packet 0 ---"));
}

TEST_F(SnortEventReaderFraming, ShortAlertReadsAsZerosBeyondItsEnd) {
    Bytes payload = Alert{.eventId = 5, .vlanId = 300}.Payload();
    payload.resize(50);
    Write(Framed(104, payload));
    EXPECT_TRUE(m_reader->ReadEvent(10));
    QuietSecond();
    EXPECT_EQ(Ids{5}, HandedOver());
    EXPECT_EQ(1, m_log.Count("  ip_protocol        = 6"));
    EXPECT_EQ(1, m_log.Count("  vlanId             = 0"));
}

TEST_F(SnortEventReaderFraming, KeepsThrowingOnExtraDataThatCannotCountItself) {
    SendAlert(1);
    Write(Framed(ExtraData{.claimedLength = 7}));
    EXPECT_THROW(m_reader->ReadEvent(10), std::length_error);
    Write(Framed(110, Bytes{}));
    EXPECT_THROW(m_reader->ReadEvent(10), std::length_error);
}

TEST_F(SnortEventReaderFraming, KeepsLosingARecordWhoseTailIsNotThereYet) {
    Bytes record = Framed(Alert{.eventId = 1});
    const Bytes tail(record.begin() + 40, record.end());
    record.resize(40);
    Write(record);
    EXPECT_FALSE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.CountAt(2, "Partial event read: 32"));
    EXPECT_EQ(1, m_log.CountAt(1, "Read event error, reason: Resource temporarily unavailable"));

    // The tail that comes later is taken for a header: a priority of 0 and the address 10.1.2.3.
    Write(tail);
    EXPECT_FALSE(m_reader->ReadEvent(10));
    EXPECT_EQ(2, m_log.Count("Opening file: "));
    EXPECT_EQ(1, m_log.Count("Got Snort event, Header: Type = 0, Length = 167838211"));
}

TEST_F(SnortEventReaderFraming, EndOfFileInAPayloadKeepsThePendingAlerts) {
    SendAlert(1);
    Bytes record = Framed(Alert{.eventId = 2});
    record.resize(20);
    Write(record);
    StopSensor();
    EXPECT_FALSE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.CountAt(2, "Partial event read: 12"));
    EXPECT_EQ(1, m_log.Count("Read EOF in SNORT event"));
    EXPECT_TRUE(HandedOver().empty());
    QuietSecond();
    EXPECT_EQ(Ids{1}, HandedOver());
}

TEST_F(SnortEventReaderFraming, EndOfFileInAHeaderKeepsThePendingAlerts) {
    SendAlert(1);
    Write(Bytes{0, 0, 0});
    StopSensor();
    EXPECT_FALSE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.CountAt(2, "Partial event read: 3"));
    EXPECT_TRUE(HandedOver().empty());
}

TEST_F(SnortEventReaderFraming, KeepsLoggingTheLastPieceOfASplitRecordToo) {
    StartSensor();
    // Each write is then one packet of the pipe, and each read takes one.
    if (fcntl(m_sensor, F_SETFL, O_NONBLOCK | O_DIRECT) == -1) {
        GTEST_SKIP() << "this kernel has no packets in a FIFO";
    }
    const Bytes record = Framed(Alert{.eventId = 1});
    Write({record.begin(), record.begin() + 8});
    Write({record.begin() + 8, record.begin() + 40});
    Write({record.begin() + 40, record.end()});
    EXPECT_TRUE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.CountAt(2, "Partial event read: 32"));
    EXPECT_EQ(1, m_log.CountAt(2, "Partial event read: 28"));
    QuietSecond();
    EXPECT_EQ(Ids{1}, HandedOver());
}

TEST_F(SnortEventReaderFraming, AbsurdLengthCostsOnlyTheBytesThatArrive) {
    Bytes record;
    u2test::Put32(record, 2);
    u2test::Put32(record, 0x40000000);
    record.resize(100);
    Write(record);
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_FALSE(m_reader->ReadEvent(10));
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
#ifndef TARN_TEST_SANITIZED
    constexpr long kKilobytes = 64 * 1024;
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, kKilobytes);
#endif
    SendAlert(1);
    QuietSecond();
    EXPECT_EQ(Ids{1}, HandedOver());
}

#ifndef TARN_TEST_SANITIZED
// The sanitizers' own memory has no place under such a limit.
TEST_F(SnortEventReaderFraming, KeepsThePayloadUnreadWhenThereIsNoMemoryForIt) {
    Bytes record;
    u2test::Put32(record, 2);
    u2test::Put32(record, 0xFFFFFFFF);
    u2test::Put32(record, 7);
    u2test::Put32(record, 0);
    Write(record);
    rlimit former{};
    ASSERT_EQ(0, getrlimit(RLIMIT_AS, &former));
    rlimit tight = former;
    tight.rlim_cur = rlim_t{2} << 30;
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &tight));
    EXPECT_FALSE(m_reader->ReadEvent(10));
    setrlimit(RLIMIT_AS, &former);
    EXPECT_EQ(1, m_log.CountAt(1, "Unable to allocate memory: 4294967295 bytes"));

    EXPECT_TRUE(m_reader->ReadEvent(10));
    EXPECT_EQ(1, m_log.Count("Opening file: "));
    EXPECT_EQ(1, m_log.Count("Got Snort event, Header: Type = 7, Length = 0"));
}
#endif

// ---- The pending list ----

TEST_F(SnortEventReaderPending, HundredAndTwentyNinthAlertPushesTheFirstOut) {
    for (uint32_t id = 1; id <= 128; ++id) {
        SendAlert(id);
    }
    EXPECT_TRUE(HandedOver().empty());
    SendAlert(129);
    EXPECT_EQ(Ids{1}, HandedOver());
    QuietSecond();
    Ids all;
    for (uint32_t id = 1; id <= 129; ++id) {
        all.push_back(id);
    }
    EXPECT_EQ(HandedOver(), all);
}

TEST_F(SnortEventReaderPending, AlertThatPushesAnotherOutAllocatesItsOwnObjectOnly) {
    for (uint32_t id = 1; id <= 128; ++id) {
        SendAlert(id);
    }
    vald::Log::SetLevel(0);
    Config::s_logLevel = 0;
    for (uint32_t id = 129; id <= 160; ++id) {
        Write(Framed(Alert{.eventId = id}));
        const uint64_t before = AllocationCount();
        EXPECT_TRUE(m_reader->ReadEvent(10));
        EXPECT_LE(AllocationCount() - before, 1U);
    }
}

TEST_F(SnortEventReaderPending, QuietSecondForwardsAllInOrderOfArrival) {
    for (const uint32_t id : {5U, 3U, 9U}) {
        SendAlert(id);
    }
    QuietSecond();
    EXPECT_EQ((Ids{5, 3, 9}), HandedOver());
    QuietSecond();
    EXPECT_EQ(3U, HandedOver().size());
}

TEST_F(SnortEventReaderPending, FailedWaitForwardsAll) {
    SendAlert(1);
    EXPECT_FALSE(m_reader->ReadEvent(-1));
    EXPECT_EQ(1, m_log.CountAt(1, "Select FDs error, reason: Invalid argument"));
    EXPECT_EQ(Ids{1}, HandedOver());
}

TEST_F(SnortEventReaderPending, KeepsNothingOfAPendingAlertWhenDestroyed) {
    SendAlert(1);
    m_reader.reset();
    StopSensor();
    EXPECT_TRUE(HandedOver().empty());
    EXPECT_FALSE(ReaderHasTheFifoOpen());
}

// ---- Packets ----

TEST_F(SnortEventReaderPackets, AttachToTheNewestAlert) {
    SendAlert(1);
    SendAlert(2);
    Send(Packet{.eventId = 2});
    EXPECT_EQ(1, m_log.Count("Associate alert event 2 with packet event"));
    QuietSecond();
    const auto lines = Lines();
    const auto second = std::find(lines.begin(), lines.end(),
                                  "Type: Event 2 -------------------------------------------");
    EXPECT_NE(std::find(second, lines.end(),
                        "Type: Packet 2 -------------------------------------------"),
              lines.end());
}

TEST_F(SnortEventReaderPackets, WithoutAPendingAlertAreRefused) {
    Send(Packet{.eventId = 1});
    EXPECT_EQ(1, FailedPackets(1));
}

TEST_F(SnortEventReaderPackets, OfAnOlderAlertAreRefusedAndChangeNoAlert) {
    SendAlert(1);
    SendAlert(2);
    Send(Packet{.eventId = 1});
    EXPECT_EQ(1, FailedPackets(1));
    QuietSecond();
    EXPECT_EQ(0, m_log.Count("Type: Packet"));
}

TEST_F(SnortEventReaderPackets, LaterPacketTakesThePlaceOfTheEarlier) {
    SendAlert(1);
    Send(Packet{.eventId = 1, .data = {0x11}});
    Send(Packet{.eventId = 1, .data = {0x22}});
    QuietSecond();
    EXPECT_EQ(1, m_log.Count("Type: Packet 1 ---"));
    EXPECT_EQ(1, m_log.Count("    0: 22 "));
}

TEST_F(SnortEventReaderPackets, ArriveTooLateForAForwardedAlert) {
    SendAlert(1);
    QuietSecond();
    Send(Packet{.eventId = 1});
    EXPECT_EQ(1, FailedPackets(1));
}

// ---- Handing over ----

TEST_F(SnortEventReaderHandOver, RefusedAlertIsDroppedAndTheFlushGoesOn) {
    SendAlert(1);
    SendAlert(2);
    QuietSecond();
    EXPECT_EQ(2, m_log.Count("Sending event to event bridge"));
    EXPECT_EQ(2, m_log.CountAt(2, "Unable to process event."));
    QuietSecond();
    EXPECT_EQ(2, m_log.Count("Sending event to event bridge"));
}

TEST_F(SnortEventReaderHandOver, DumpsTheAlertBeforeAtTheDebugLevelOnly) {
    SendAlert(1);
    Config::s_logLevel = 4;
    QuietSecond();
    EXPECT_TRUE(HandedOver().empty());
    EXPECT_EQ(1, m_log.Count("Sending event to event bridge"));
}

TEST_F(SnortEventReaderHandOver, SaysOnlyTheRefusalBelowTheDebugLevel) {
    vald::Log::SetLevel(vald::Log::kNotice);
    Config::s_logLevel = vald::Log::kNotice;
    SendAlert(1);
    Send(Packet{.eventId = 1});
    Send(ExtraData{.eventId = 1});
    QuietSecond();
    StopSensor();
    EXPECT_FALSE(m_reader->ReadEvent(10));  // end of file
    const std::vector<std::string> lines = {
        "Creating FIFO: " + m_path,  // before the level was set
        "EventBridge::ProcessEvent() is called before Initialized().", "Unable to process event."};
    EXPECT_EQ(Lines(), lines);
}

TEST_F(SnortEventReaderHandOver, BridgeOwnsTheAlertsThatItTakes) {
    const PrivateChannel channel;
    Config::s_debugSingle = 0;
    EventBridge* bridge = EventBridge::GetInstance();
    ASSERT_EQ(0, bridge->Initialize());
    for (uint32_t id = 1; id <= 131; ++id) {
        SendAlert(id);
    }
    m_reader.reset();  // the 128 still pending go with it
    EXPECT_EQ(0, m_log.Count("Unable to process event."));
    bridge->Finalize();
    EXPECT_EQ(1, m_log.CountAt(3, "EventBridge drops 3 queued events during finalizing."));
    bridge->Release();
}

TEST_F(SnortEventReaderHandOver, HoldsAReferenceOfTheBridgeForItsLife) {
    const PrivateChannel channel;
    Config::s_debugSingle = 0;
    // A new instance is not initialised, so the result distinguishes it from the one that was kept.
    const auto initialised = [] {
        EventBridge* bridge = EventBridge::GetInstance();
        const int result = bridge->ProcessEventQueue(0, 0);
        bridge->Release();
        return result == 0;
    };
    EventBridge* bridge = EventBridge::GetInstance();
    ASSERT_EQ(0, bridge->Initialize());
    bridge->Release();
    EXPECT_TRUE(initialised());
    m_reader.reset();
    EXPECT_FALSE(initialised());
}

// ---- The singleton ----

TEST(SnortEventReaderInstance, IsOneUntilReleased) {
    SnortEventReader* reader = SnortEventReader::Instance();
    ASSERT_NE(nullptr, reader);
    EXPECT_EQ(SnortEventReader::Instance(), reader);
    SnortEventReader::ReleaseInstance();
    SnortEventReader::ReleaseInstance();
    EXPECT_NE(nullptr, SnortEventReader::Instance());
    SnortEventReader::ReleaseInstance();
}

}  // namespace
