#include "tarnctl/status/status_metrics.h"

#include <gmock/gmock.h>

#include <sstream>

#include "unit/tarnctl/health/made_up_health.h"

namespace tarnctl {
namespace {

using testing::HasSubstr;
using testing::Not;

class StatusMetricsTest : public testing::Test {
  protected:
    std::string Text() {
        std::ostringstream out;
        WriteStatusMetrics(health, Judge(health, health, {}, false), out);
        return out.str();
    }

    Health health = HealthyHealth();
};

TEST_F(StatusMetricsTest, HaveHelpAndTypeInFrontOfTheirSamples) {
    EXPECT_THAT(Text(), HasSubstr("# HELP tarn_ring_used_bytes Bytes that wait in the ring.\n"
                                  "# TYPE tarn_ring_used_bytes gauge\n"
                                  "tarn_ring_used_bytes{ring=\"0\"} 0\n"
                                  "tarn_ring_used_bytes{ring=\"1\"} 0\n"));
    EXPECT_THAT(Text(), HasSubstr("# TYPE tarn_thread_cpu_seconds_total counter\n"
                                  "tarn_thread_cpu_seconds_total{thread=\"12\"} 1.5\n"));
}

TEST_F(StatusMetricsTest, TellTheVerdict) {
    EXPECT_THAT(Text(), HasSubstr("\ntarn_healthy 1\n"));
    EXPECT_THAT(Text(), Not(HasSubstr("tarn_fault")));
    health.queue.rings[0].motion = Known(RingMotion::kStuck, std::string("test"));
    health.queue.rings[1].motion = Known(RingMotion::kStuck, std::string("test"));
    EXPECT_THAT(Text(), HasSubstr("\ntarn_healthy 0\n"));
    EXPECT_THAT(Text(), HasSubstr("tarn_fault{name=\"ring-stuck\"} 2\n"));
    EXPECT_THAT(Text(), HasSubstr("tarn_ring_stuck{ring=\"0\"} 1\n"));
    health = HealthyHealth();
    health.queue.readers = Unknown<Holders>("s", "hidden");
    EXPECT_THAT(Text(), Not(HasSubstr("tarn_healthy ")));
    EXPECT_THAT(Text(), HasSubstr("\ntarn_unknowns 1\n"));
}

TEST_F(StatusMetricsTest, LeaveOutWhatIsUnknown) {
    health.alerts.unreadBytes = Unknown<uint64_t>("s", "hidden");
    EXPECT_THAT(Text(), Not(HasSubstr("tarn_fifo_unread_bytes{fifo=\"alerts\"}")));
    health.errors.unreadBytes = Unknown<uint64_t>("s", "hidden");
    EXPECT_THAT(Text(), Not(HasSubstr("tarn_fifo_unread_bytes")));
}

TEST_F(StatusMetricsTest, EscapeLabels) {
    health.peers[0].place.name = "a\"b\\c\nd";
    EXPECT_THAT(Text(), HasSubstr("tarn_peer_listening{peer=\"a\\\"b\\\\c\\nd\"} 1\n"));
}

TEST_F(StatusMetricsTest, CountLossesByKind) {
    health.log.losses.value->push_back({&LossKinds()[0], 9, 4, 1.0});
    EXPECT_THAT(Text(), HasSubstr("tarn_log_recent_losses{kind=\"queue-full\"} 4\n"));
}

TEST_F(StatusMetricsTest, KeepTheDigitsOfATime) {
    EXPECT_THAT(Text(), HasSubstr("tarn_start_time_seconds 1795250000\n"));
    EXPECT_THAT(Text(), HasSubstr("tarn_load_time_seconds 1795250000\n"));
}

TEST_F(StatusMetricsTest, TellTheTwoFifosApart) {
    health.alerts.unreadBytes = Known(uint64_t{7}, std::string("test"));
    health.errors.unreadBytes = Known(uint64_t{9}, std::string("test"));
    const std::string text = Text();
    EXPECT_THAT(text, HasSubstr("tarn_fifo_unread_bytes{fifo=\"alerts\"} 7\n"));
    EXPECT_THAT(text, HasSubstr("tarn_fifo_unread_bytes{fifo=\"errors\"} 9\n"));
    EXPECT_THAT(text, HasSubstr("tarn_fifo_capacity_bytes{fifo=\"alerts\"} 65536\n"));
    EXPECT_THAT(text, HasSubstr("tarn_fifo_readers{fifo=\"alerts\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("tarn_fifo_writers{fifo=\"alerts\"} 1\n"));
}

TEST_F(StatusMetricsTest, TellWhatIsAroundTheDaemon) {
    EXPECT_THAT(Text(), HasSubstr("tarn_warnings 0\n"));
    health.queue.rings[0].motion = Known(RingMotion::kWaiting, std::string("test"));
    const std::string text = Text();
    for (const char* line :
         {"tarn_ring_size_bytes{ring=\"0\"} 1000\n", "tarn_ring_stuck{ring=\"0\"} 0\n",
          "tarn_semaphore_posts 1\n", "tarn_peer_listening{peer=\"secmgr\"} 1\n",
          "tarn_file_newer{file=\"events\"} 0\n", "tarn_free_bytes{purpose=\"rings\"} 1073741824\n",
          "tarn_thread_cpu_seconds_total{thread=\"13\"} 2.5\n"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
    EXPECT_THAT(text, HasSubstr("tarn_warnings 1\n"));
}

}  // namespace
}  // namespace tarnctl
