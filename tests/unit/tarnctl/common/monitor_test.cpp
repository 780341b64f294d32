#include "tarnctl/common/monitor.h"

#include <gtest/gtest.h>

#include <array>
#include <sstream>
#include <string>
#include <utility>

#include "tarnctl/common/exit_status.h"

namespace tarnctl {
namespace {

// Takes a thing whenever it is asked to serve, unless the test says otherwise.
class CountingMonitor final : public Monitor {
  public:
    CountingMonitor(const MonitorOptions& options, std::ostream& out, std::ostream& err)
        : Monitor("sees", "thing", options, out, err) {}

    std::string m_obstacle;
    bool m_isQuiet = false;
    bool m_malformed = false;

  private:
    std::string Begin() override { return m_obstacle; }
    void Serve(std::chrono::milliseconds) override {
        if (m_isQuiet) {
            return;
        }
        if (std::exchange(m_malformed, false)) {
            const std::array<std::byte, 2> bytes = {};
            TellMalformed("thing", "it is odd", bytes, "{}");
        }
        HasNews();
        CountOne();
        Write("a thing");
    }
    void End() override { Say("the end"); }
    [[nodiscard]] std::string Counts() const override { return std::to_string(Taken()); }
};

class MonitorTest : public testing::Test {
  protected:
    static MonitorOptions ShortOptions() {
        MonitorOptions options;
        options.count = 2;
        options.timeout = 0.05;
        return options;
    }

    MonitorOptions m_options = ShortOptions();
    std::ostringstream m_out;
    std::ostringstream m_err;
    CountingMonitor m_monitor{m_options, m_out, m_err};
};

TEST_F(MonitorTest, EndsAfterItsCountAndTellsIt) {
    EXPECT_EQ(kExitFine, m_monitor.Run());
    EXPECT_EQ("a thing\na thing\n", m_out.str());
    EXPECT_EQ("tarnctl sees: the end\ntarnctl sees: 2\n", m_err.str());
}

TEST_F(MonitorTest, EndsAfterTheQuietSeconds) {
    m_monitor.m_isQuiet = true;
    EXPECT_EQ(kExitFine, m_monitor.Run());
    EXPECT_EQ("tarnctl sees: the end\ntarnctl sees: 0\n", m_err.str());
}

TEST_F(MonitorTest, FailsWhenItCannotBeginAndTellsNothingElse) {
    m_monitor.m_obstacle = "no room";
    EXPECT_EQ(kExitFailure, m_monitor.Run());
    EXPECT_EQ("tarnctl sees: no room\n", m_err.str());
}

TEST_F(MonitorTest, FailsAndGoesOnAfterWhatIsMalformed) {
    m_monitor.m_malformed = true;
    EXPECT_EQ(kExitFailure, m_monitor.Run());
    EXPECT_EQ("a thing\na thing\n", m_out.str());
    EXPECT_EQ(
        "tarnctl sees: malformed thing of 2 bytes skipped: it is odd\n"
        "tarnctl sees: the end\ntarnctl sees: 2, 1 malformed\n",
        m_err.str());
}

TEST_F(MonitorTest, WritesWhatIsMalformedAmongItsJson) {
    m_options.json = true;
    m_monitor.m_malformed = true;
    EXPECT_EQ(kExitFailure, m_monitor.Run());
    EXPECT_EQ("{}\na thing\na thing\n", m_out.str());
}

TEST_F(MonitorTest, EndsWhenTheOutputTakesNoMore) {
    m_out.setstate(std::ios::badbit);
    EXPECT_EQ(kExitFailure, m_monitor.Run());
    EXPECT_EQ(
        "tarnctl sees: the output takes no more; the last thing was taken and not shown\n"
        "tarnctl sees: the end\ntarnctl sees: 1\n",
        m_err.str());
}

}  // namespace
}  // namespace tarnctl
