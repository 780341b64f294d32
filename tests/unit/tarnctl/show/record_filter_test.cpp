#include "tarnctl/show/record_filter.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace tarnctl {
namespace {

class RecordFilterTest : public testing::Test {
  protected:
    static RecordContent Event(uint32_t id, uint32_t signature = 7, uint32_t second = 100) {
        EventContent event;
        event.eventId = id;
        event.signatureId = signature;
        event.generatorId = 1;
        event.second = second;
        event.source = *ParseIpAddress("10.0.0.1");
        event.destination = *ParseIpAddress("192.168.1.1");
        return event;
    }
    static RecordContent Packet(uint32_t id) {
        PacketContent packet;
        packet.eventId = id;
        return packet;
    }
    static RecordContent Extra(uint32_t id) {
        ExtraContent extra;
        extra.eventId = id;
        return extra;
    }
    void AddNetwork(const char* text) {
        IpNetwork network;
        ASSERT_EQ("", ParseIpNetwork(text, network));
        m_query.networks.push_back(network);
    }
    bool Passes(const RecordContent& content) { return RecordFilter(m_query).Passes(content); }

    RecordQuery m_query;
};

TEST_F(RecordFilterTest, LetsEverythingPassThatIsAskedFor) {
    EXPECT_TRUE(Passes(Event(1)));
    EXPECT_TRUE(Passes(Packet(1)));
    EXPECT_TRUE(Passes(Extra(1)));
    EXPECT_TRUE(Passes(OtherContent()));
    EXPECT_TRUE(Passes(StatisticsContent()));
}

TEST_F(RecordFilterTest, ChoosesEventsBySignatureAndGenerator) {
    m_query.signatures = {5, 7};
    EXPECT_TRUE(Passes(Event(1)));
    EXPECT_FALSE(Passes(Event(1, 6)));
    m_query.generators = {3};
    EXPECT_FALSE(Passes(Event(1)));
    m_query.generators = {1, 3};
    EXPECT_TRUE(Passes(Event(1)));
}

TEST_F(RecordFilterTest, ChoosesEventsByEitherAddress) {
    AddNetwork("10.0.0.1");
    EXPECT_TRUE(Passes(Event(1)));
    m_query.networks.clear();
    AddNetwork("2001:db8::/32");
    EXPECT_FALSE(Passes(Event(1)));
    AddNetwork("192.168.0.0/16");
    EXPECT_TRUE(Passes(Event(1)));
}

TEST_F(RecordFilterTest, ChoosesEventsByTime) {
    m_query.since = 100;
    EXPECT_TRUE(Passes(Event(1)));
    EXPECT_FALSE(Passes(Event(1, 7, 99)));
    m_query.until = 101;
    EXPECT_TRUE(Passes(Event(1)));
    EXPECT_FALSE(Passes(Event(1, 7, 101)));
    StatisticsContent statistics;
    statistics.second = 100;
    EXPECT_TRUE(Passes(statistics));
    statistics.second = 101;
    EXPECT_FALSE(Passes(statistics));
    m_query.signatures = {7};
    statistics.second = 100;
    EXPECT_FALSE(Passes(statistics));
}

TEST_F(RecordFilterTest, ShowsWhatBelongsToAnEventThatIsShown) {
    m_query.signatures = {7};
    RecordFilter filter(m_query);
    EXPECT_FALSE(filter.Passes(Packet(0))) << "no event has come";
    EXPECT_TRUE(filter.Passes(Event(1)));
    EXPECT_FALSE(filter.Passes(Event(2, 8)));
    EXPECT_TRUE(filter.Passes(Packet(1)));
    EXPECT_TRUE(filter.Passes(Extra(1)));
    EXPECT_FALSE(filter.Passes(Packet(2)));
    EXPECT_FALSE(filter.Passes(Extra(2)));
    EXPECT_FALSE(filter.Passes(Packet(65537))) << "another event of the same place";
    EXPECT_FALSE(filter.Passes(Event(1, 8)));
    EXPECT_FALSE(filter.Passes(Packet(1))) << "the last event of that number counts";
    EXPECT_FALSE(filter.Passes(OtherContent()));
}

TEST(ParseTime, ReadsSecondsAndLocalTimes) {
    EXPECT_EQ(1700000000U, ParseTime("1700000000"));
    EXPECT_EQ(0U, ParseTime("0"));
    tm parts = {};
    parts.tm_year = 126;
    parts.tm_mon = 10;
    parts.tm_mday = 21;
    parts.tm_isdst = -1;
    const auto day = static_cast<uint64_t>(mktime(&parts));
    EXPECT_EQ(day, ParseTime("2026-11-21"));
    EXPECT_EQ(day + 8 * 3600 + 30 * 60, ParseTime("2026-11-21 08:30"));
    EXPECT_EQ(day + 8 * 3600 + 30 * 60 + 5, ParseTime("2026-11-21T08:30:05"));
    EXPECT_EQ(day + 8 * 3600 + 30 * 60 + 5, ParseTime("2026-11-21 08:30:05"));
}

TEST(ParseTime, KnowsNoOtherText) {
    for (const char* const text :
         {"", "now", "-1", "2026", "x2026-11-21", "2026-13-01", "12:00", "2026-11-21 8",
          "2026-11-21 08:30:05 x", "17000000000000000000000"}) {
        if (std::string(text) == "2026") {
            EXPECT_EQ(2026U, ParseTime(text));
            continue;
        }
        EXPECT_EQ(std::nullopt, ParseTime(text)) << text;
    }
}

TEST_F(RecordFilterTest, ShowsNoStatisticsBesideWhatIsAskedForOfEvents) {
    m_query.generators = {1};
    EXPECT_FALSE(Passes(StatisticsContent()));
    m_query.generators.clear();
    AddNetwork("10.0.0.0/8");
    EXPECT_FALSE(Passes(StatisticsContent()));
}

TEST_F(RecordFilterTest, HoldsEachKindOfQueryForOne) {
    EXPECT_TRUE(m_query.IsEmpty());
    m_query.generators = {1};
    EXPECT_FALSE(m_query.IsEmpty());
    m_query = {};
    m_query.until = 1;
    EXPECT_FALSE(m_query.IsEmpty());
}

// The zone of a test that changes it is back afterwards.
class ParseTimeInSummer : public testing::Test {
  protected:
    ParseTimeInSummer() {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0", 1);
        tzset();
    }
    ~ParseTimeInSummer() override {
        unsetenv("TZ");
        tzset();
    }
};

TEST_F(ParseTimeInSummer, TakesTheTimeOfTheSeason) {
    EXPECT_EQ(1'782'000'000U - 2 * 3600, ParseTime("2026-06-21"));
    EXPECT_EQ(1'795'219'200U - 3600, ParseTime("2026-11-21"));
}

}  // namespace
}  // namespace tarnctl
