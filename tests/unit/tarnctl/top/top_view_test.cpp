#include "tarnctl/top/top_view.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <numeric>

#include "unit/tarnctl/health/made_up_health.h"

namespace tarnctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

TEST(Busiest, PutsTheBusiestFirst) {
    Busiest busiest(60);
    for (const char* name : {"b", "a", "c", "c", "b", "c"}) {
        busiest.Count(name, 10);
    }
    EXPECT_THAT(busiest.Top(2, 10), ElementsAre(Busiest::Entry{"c", 3}, Busiest::Entry{"b", 2}));
    EXPECT_EQ(3U, busiest.Top(9, 10).size());
}

TEST(Busiest, ForgetsWhatIsOld) {
    Busiest busiest(60);
    busiest.Count("a", 10);
    busiest.Count("a", 10.5);
    busiest.Count("a", 40);
    busiest.Count("b", 40);
    EXPECT_THAT(busiest.Top(9, 70), ElementsAre(Busiest::Entry{"a", 3}, Busiest::Entry{"b", 1}));
    EXPECT_THAT(busiest.Top(9, 70.1), ElementsAre(Busiest::Entry{"a", 1}, Busiest::Entry{"b", 1}));
    EXPECT_THAT(busiest.Top(9, 101), IsEmpty());
}

class TopViewTest : public testing::Test {
  protected:
    void Take(const Health& look) { view.Take(look, Judge(look, look, {}, false)); }
    std::string Text(size_t width = 80, size_t height = 50) {
        std::string text;
        for (const TopLine& line : view.Lines(width, height)) {
            EXPECT_GE(width, line.text.size()) << line.text;
            text += line.text + "\n";
        }
        return text;
    }
    static EventReport ReportOf(uint32_t signature, uint32_t source) {
        EventReport report;
        report.issueId = signature;
        report.sourceIp = source;
        return report;
    }

    Health health = HealthyHealth();
    TopView view;
};

TEST_F(TopViewTest, ShowsNothingBeforeTheFirstLook) {
    EXPECT_THAT(view.Lines(80, 24), IsEmpty());
}

TEST_F(TopViewTest, ShowsRatesBetweenTwoLooks) {
    Take(health);
    EXPECT_THAT(Text(), HasSubstr("reports/s -  losses/s -  losses 0"));
    for (int i = 0; i < 5; ++i) {
        view.Count(ReportOf(7, 0x0A000001), health.time);
    }
    health.time += 2;
    health.daemon.threads.value->front().cpuSeconds += 1;
    health.log.losses.value->push_back({&LossKinds()[0], 3, 0, 1.0});
    Take(health);
    EXPECT_THAT(Text(), HasSubstr("reports/s 2.5  losses/s 1.5  losses 3\n"));
    EXPECT_THAT(Text(), HasSubstr("CPU  main 12 50.0%  thread 13 0.0%\n"));
    health.time += 1;
    Take(health);
    EXPECT_THAT(Text(), HasSubstr("reports/s 0.0  losses/s 0.0  losses 3\n"));
}

TEST_F(TopViewTest, SaysThatReportsWereMissed) {
    Take(health);
    view.CountMissed();
    health.time += 1;
    Take(health);
    EXPECT_THAT(Text(), HasSubstr("reports/s 0.0+"));
}

TEST_F(TopViewTest, ShowsTheVerdict) {
    Take(health);
    EXPECT_THAT(Text(), HasSubstr("\nhealthy\n"));
    health.peers[0].isListening = Known(false, std::string("test"));
    Take(health);
    EXPECT_THAT(Text(), Not(HasSubstr("healthy")));
    EXPECT_THAT(Text(), HasSubstr("\nfault: nobody receives at /messages: messages cannot"));
    EXPECT_EQ(Color::kRed, view.Lines(80, 24)[1].color);
}

TEST_F(TopViewTest, ShowsHowFullTheRingsAre) {
    health.queue.rings[0].usedBytes = Known(uint64_t{500}, std::string("test"));
    health.queue.rings[0].messages = Known(uint64_t{4}, std::string("test"));
    health.queue.rings[0].motion = Known(RingMotion::kWaiting, std::string("test"));
    health.queue.rings[1].usedBytes = Unknown<uint64_t>("s", "hidden");
    Take(health);
    EXPECT_THAT(Text(40), HasSubstr("ring -0 [#####-----] 50.0% waiting, 4 w"));
    EXPECT_THAT(Text(), HasSubstr("ring -1 hidden\n"));
}

TEST_F(TopViewTest, ShowsTheBusiestSideBySideWhereThereIsRoom) {
    EventReport sixth = ReportOf(9, 0);
    sixth.etherType = kEtherTypeIpv6;
    sixth.sourceIpv6[15] = 1;
    Take(health);
    view.Count(ReportOf(7, 0x0A000001), health.time);
    view.Count(ReportOf(7, 0x0A000001), health.time);
    view.Count(sixth, health.time);
    const std::string wide = Text(60);
    EXPECT_THAT(wide, testing::ContainsRegex("7 +2  10.0.0.1 +2\n9 +1  ::1 +1\n"));
    const std::string narrow = Text(40);
    EXPECT_THAT(narrow,
                testing::ContainsRegex("7 +2\n9 +1\nsource +in 60 s\n10.0.0.1 +2\n::1 +1\n"));
}

TEST_F(TopViewTest, FitsAnyScreen) {
    for (uint32_t signature = 0; signature < 30; ++signature) {
        view.Count(ReportOf(signature, signature), health.time);
    }
    Take(health);
    for (const size_t width : {1U, 5U, 10U, 20U, 59U, 60U, 200U}) {
        (void)Text(width);
        EXPECT_EQ(7U, view.Lines(width, 7).size());
    }
    EXPECT_THAT(view.Lines(80, 0), IsEmpty());
}

TEST_F(TopViewTest, IsShownWithoutADaemon) {
    health.daemon.isRunning = Known(false, std::string("test"));
    health.daemon.pid = Unknown<int>("s", "tarn does not run");
    health.daemon.threads = Unknown<std::vector<ThreadHealth>>("s", "tarn does not run");
    health.alerts.readers = Unknown<Holders>("s", "none");
    Take(health);
    EXPECT_THAT(Text(), testing::StartsWith("tarn  does not run"));
    EXPECT_THAT(Text(), Not(HasSubstr("CPU")));
}

TEST_F(TopViewTest, ShowsFourFaultsAndCountsTheOthers) {
    for (PeerHealth& peer : health.peers) {
        peer.isListening = Known(false, std::string("test"));
    }
    health.queue.rings[0].motion = Known(RingMotion::kStuck, std::string("test"));
    health.queue.rings[1].motion = Known(RingMotion::kStuck, std::string("test"));
    health.queue.rings[1].usedBytes = Known(uint64_t{500}, std::string("test"));
    health.alerts.readers.value->clear();
    Take(health);
    const size_t faults = Judge(health, health, {}, false).faults.size();
    ASSERT_LT(4U, faults);
    const std::vector<TopLine> lines = view.Lines(200, 50);
    const auto isFault = [](const TopLine& line) {
        return line.text.starts_with("fault: ") && line.color == Color::kRed;
    };
    EXPECT_EQ(4, std::count_if(lines.begin(), lines.end(), isFault));
    EXPECT_THAT(Text(200), HasSubstr("\n" + std::to_string(faults - 4) +
                                     " more: tarnctl status names them\n"));
    const auto isStuck = [](const TopLine& line) {
        return line.text.starts_with("ring -1 [") && line.color == Color::kRed;
    };
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), isStuck));
}

TEST_F(TopViewTest, ShowsSomeOfWhatIsUnknown) {
    Verdict verdict;
    for (int number = 0; number < 20; ++number) {
        verdict.unknowns.push_back({"part", "hidden " + std::to_string(number)});
    }
    view.Take(health, verdict);
    EXPECT_THAT(Text(), HasSubstr("\nunknown: hidden 0\n"));
    EXPECT_THAT(Text(), HasSubstr("unknown: hidden 6\n"));
    EXPECT_THAT(Text(), Not(HasSubstr("hidden 7\n")));
}

TEST_F(TopViewTest, ShowsTheFifoAndThePosts) {
    Take(health);
    EXPECT_THAT(Text(), HasSubstr("alert FIFO 0 B unread  read by tarn 12  written by snort 20\n"));
    EXPECT_THAT(Text(), HasSubstr("\nsemaphore 1\n"));
    health.queue.semaphore = Unknown<int>("s", "hidden");
    Take(health);
    EXPECT_THAT(Text(), HasSubstr("\nsemaphore unknown\n"));
}

TEST_F(TopViewTest, TakesNoRateFromALogThatBeganAnew) {
    health.log.losses.value->push_back({&LossKinds()[0], 3, 0, 1.0});
    health.log.losses.value->push_back({&LossKinds()[1], 4, 0, 1.0});
    Take(health);
    EXPECT_THAT(Text(), HasSubstr("losses 7\n"));
    health.log.losses.value->clear();
    health.time += 1;
    Take(health);
    EXPECT_THAT(Text(), HasSubstr("losses/s 0.0  losses 0\n"));
}

TEST_F(TopViewTest, TakesRatesFromTheLastTwoLooks) {
    Take(health);
    health.time += 1;
    health.daemon.threads.value->front().cpuSeconds += 0.25;
    Take(health);
    health.time += 1;
    health.daemon.threads.value->front().cpuSeconds += 0.5;
    view.Count(ReportOf(7, 1), health.time);
    Take(health);
    EXPECT_THAT(Text(), HasSubstr("reports/s 1.0"));
    EXPECT_THAT(Text(), HasSubstr("main 12 50.0%"));
}

TEST_F(TopViewTest, ShowsTenSourcesOfOneSignature) {
    Take(health);
    for (uint32_t host = 1; host <= 12; ++host) {
        view.Count(ReportOf(7, 0x0A000000 + host), health.time);
    }
    const std::vector<TopLine> lines = view.Lines(80, 50);
    const auto namesSource = [](const TopLine& line) {
        return line.text.find("  10.0.0.") != std::string::npos;
    };
    EXPECT_EQ(10, std::count_if(lines.begin(), lines.end(), namesSource));
}

}  // namespace
}  // namespace tarnctl
