#include "tarnctl/feed/feed_counters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

using testing::HasSubstr;
using testing::Not;

namespace tarnctl {
namespace {

// Each counter has a number of its own.
FeedCounters Numbered() {
    FeedCounters counters;
    uint64_t number = 100;
    for (uint64_t FeedCounters::*const field :
         {&FeedCounters::records,          &FeedCounters::bytes,
          &FeedCounters::alerts,           &FeedCounters::reports,
          &FeedCounters::fedAgain,         &FeedCounters::lostInside,
          &FeedCounters::reportedBefore,   &FeedCounters::duplicates,
          &FeedCounters::foreignReports,   &FeedCounters::rejectedAlerts,
          &FeedCounters::rejectedRecords,  &FeedCounters::foreignRecords,
          &FeedCounters::cutRecords,       &FeedCounters::filesAnew,
          &FeedCounters::filesVanished,    &FeedCounters::filesDamaged,
          &FeedCounters::daemonEnds,       &FeedCounters::readerCloses,
          &FeedCounters::unsureCounts,     &FeedCounters::bookmarks,
          &FeedCounters::bookmarkFailures, &FeedCounters::underWay,
          &FeedCounters::mostUnderWay}) {
        counters.*field = number++;
    }
    return counters;
}

TEST(FeedCountersTest, EachCounterHasItsNameInJson) {
    EXPECT_EQ(
        R"({"records":100,"bytes":101,"alerts":102,"reports":103,"fedAgain":104,"lostInside":105,)"
        R"("reportedBefore":106,"duplicates":107,"foreignReports":108,"rejectedAlerts":109,)"
        R"("rejectedRecords":110,"foreignRecords":111,"cutRecords":112,"filesAnew":113,)"
        R"("filesVanished":114,"filesDamaged":115,"daemonEnds":116,"readerCloses":117,)"
        R"("unsureCounts":118,"bookmarks":119,"bookmarkFailures":120,"underWay":121,)"
        R"("mostUnderWay":122,"held":false,"waitingFor":null})",
        AsJson(Numbered()).dump());
}

TEST(FeedCountersTest, WhatIsWaitedForIsInJson) {
    FeedCounters counters;
    counters.isHeld = true;
    counters.waitingFor = "nobody reads";
    EXPECT_THAT(AsJson(counters).dump(), HasSubstr(R"("held":true,"waitingFor":"nobody reads")"));
}

TEST(FeedCountersTest, EachCounterIsAMetricWithItsHelpAndType) {
    const std::string text = AsPrometheus(Numbered());
    EXPECT_THAT(text, HasSubstr("# HELP tarnctl_feed_records_total Records put into the alert "
                                "FIFO.\n# TYPE tarnctl_feed_records_total counter\n"
                                "tarnctl_feed_records_total 100\n"));
    EXPECT_THAT(text, HasSubstr("\ntarnctl_feed_lost_inside_total 105\n"));
    EXPECT_THAT(text, HasSubstr("\ntarnctl_feed_bookmark_failures_total 120\n"));
    EXPECT_THAT(text, HasSubstr("# TYPE tarnctl_feed_under_way gauge\n"
                                "tarnctl_feed_under_way 121\n"));
    EXPECT_THAT(text, HasSubstr("\ntarnctl_feed_held 0\n"));
    EXPECT_THAT(text, HasSubstr("\ntarnctl_feed_waiting 0\n"));
}

TEST(FeedCountersTest, EveryMetricHasANameOfItsOwn) {
    std::set<std::string> names;
    size_t samples = 0;
    std::istringstream lines(AsPrometheus(Numbered()));
    for (std::string line; std::getline(lines, line);) {
        if (line.front() != '#') {
            ++samples;
            names.insert(line.substr(0, line.find(' ')));
        }
    }
    EXPECT_EQ(24U, samples);
    EXPECT_EQ(24U, names.size());
}

TEST(FeedCountersTest, AHoldAndAWaitAreMetrics) {
    FeedCounters counters;
    counters.isHeld = true;
    counters.waitingFor = "nobody reads";
    EXPECT_THAT(AsPrometheus(counters), HasSubstr("\ntarnctl_feed_held 1\n"));
    EXPECT_THAT(AsPrometheus(counters), HasSubstr("\ntarnctl_feed_waiting 1\n"));
}

TEST(FeedCountersTest, APersonReadsOnlyWhatHasHappened) {
    FeedCounters counters;
    counters.alerts = 1;
    counters.records = 2;
    counters.reports = 1;
    EXPECT_EQ("fed 1 alert in 2 records, 1 report seen", AsText(counters));
    EXPECT_EQ(
        "fed 102 alerts in 100 records, 103 reports seen, 121 under way, 104 fed again, "
        "105 dropped by a running tarn, 106 reported before, 107 reported twice, "
        "108 fed by others, 109 without an entry, 110 refused as harmful, 111 of other kinds, "
        "112 without their tails, 113 files written anew, 114 files vanished, 115 files damaged",
        AsText(Numbered()));
}

}  // namespace
}  // namespace tarnctl
