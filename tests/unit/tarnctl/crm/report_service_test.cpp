#include "tarnctl/crm/report_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <numeric>
#include <set>
#include <sstream>
#include <thread>

#include "support/temp_dir.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/crm/spill_file.h"
#include "unit/tarnctl/common/lines_of.h"
#include "unit/tarnctl/common/test_channel.h"

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace tarnctl {
namespace {

class ReportServiceTest : public testing::Test {
  protected:
    ReportServiceTest() {
        m_options.channel = TestChannel::kChannel;
        m_options.queueName = m_daemon.Name();
        m_options.timeout = 0.05;
        m_options.eve = {m_path};
    }
    int Run() { return RunCrm(m_options, m_out, m_err); }
    static CrmBytes Report(uint32_t sid) {
        CrmReport message = SampleReport();
        message.report.issueId = sid;
        return Encode(message);
    }
    // The SIDs of the lines of a file.
    static std::vector<uint32_t> Sids(const std::string& path) {
        std::istringstream lines(ReadFile(path));
        std::vector<uint32_t> sids;
        for (std::string line; std::getline(lines, line);) {
            sids.push_back(json::parse(line)["alert"]["signature_id"]);
        }
        return sids;
    }

    const TempDir m_folder;
    const std::string m_path = m_folder.File("eve.json");
    TestChannel m_daemon;
    CrmOptions m_options;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(ReportServiceTest, HandsOnAllThatWaitsAndTakesItOutOfTheRings) {
    for (uint32_t sid = 1; sid <= 2000; ++sid) {
        ASSERT_TRUE(m_daemon.Send(Report(sid)));
    }
    ASSERT_TRUE(m_daemon.Send(Report(2001), 1));
    EXPECT_EQ(kExitFine, Run());
    const std::vector<uint32_t> sids = Sids(m_path);
    ASSERT_EQ(2001U, sids.size());
    std::vector<uint32_t> sorted = sids;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(2001U, sorted.back());
    EXPECT_EQ(sorted.end(), std::adjacent_find(sorted.begin(), sorted.end()));
    EXPECT_EQ(0, m_daemon.Posts());
    EXPECT_EQ(0U, m_daemon.Ring(0).State().used + m_daemon.Ring(1).State().used);
    EXPECT_EQ("", m_out.str());
    EXPECT_EQ("tarnctl crm: channel 7 goes to " + m_path +
                  "\n"
                  "tarnctl crm: 2001 reports; eve " +
                  m_path + ": 2001 taken\n",
              m_err.str());
}

TEST_F(ReportServiceTest, LeavesReportsInTheRingWhileTheSinkIsAway) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)));
    m_options.eve = {"unix:" + m_folder.File("nobody")};
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(2, m_daemon.Posts());
    EXPECT_THAT(m_err.str(), HasSubstr("nobody: nobody listens\n"));
    EXPECT_THAT(
        m_err.str(),
        HasSubstr("tarnctl crm: 0 reports; eve unix:" + m_folder.File("nobody") + ": 0 taken\n"));
    m_options.eve = {m_path};
    EXPECT_EQ(kExitFine, Run());
    EXPECT_THAT(Sids(m_path), ElementsAre(1, 2));
}

TEST_F(ReportServiceTest, SaysOnceThatTheSinkIsAwayAndOnceThatItIsBack) {
    std::filesystem::create_directory(m_folder.File("logs"));
    const std::string path = m_folder.File("logs/eve.json");
    m_options.eve = {path};
    m_options.timeout = 1.5;
    std::jthread mover([this, path] {
        while (!std::filesystem::exists(path)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        std::filesystem::remove_all(m_folder.File("logs"));
        EXPECT_TRUE(m_daemon.Send(Report(1)));
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        std::filesystem::create_directory(m_folder.File("logs"));
    });
    EXPECT_EQ(kExitFine, Run());
    mover.join();
    EXPECT_THAT(Sids(path), ElementsAre(1));
    const std::string told = m_err.str();
    for (const char* const text : {"No such file or directory", "takes reports again"}) {
        const size_t first = told.find(text);
        EXPECT_NE(std::string::npos, first);
        EXPECT_EQ(std::string::npos, told.find(text, first + 1));
    }
}

TEST_F(ReportServiceTest, EndsAfterTheCountAndLeavesTheRest) {
    for (uint32_t sid = 1; sid <= 3; ++sid) {
        ASSERT_TRUE(m_daemon.Send(Report(sid)));
    }
    m_options.count = 2;
    m_options.timeout = 0;
    EXPECT_EQ(kExitFine, Run());
    EXPECT_THAT(Sids(m_path), ElementsAre(1, 2));
    EXPECT_EQ(1, m_daemon.Posts());
}

TEST_F(ReportServiceTest, AddsPacketsWhenAsked) {
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    EXPECT_EQ(kExitFine, Run());
    EXPECT_FALSE(json::parse(ReadFile(m_path)).contains("packet"));
    std::filesystem::remove(m_path);
    m_options.packets = true;
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ("3q2+7w==", json::parse(ReadFile(m_path))["packet"]);
}

TEST_F(ReportServiceTest, HandsOnWhatIsMalformedAndFailsAtItsEnd) {
    ASSERT_TRUE(m_daemon.Send({std::byte{1}, std::byte{2}}) && m_daemon.Send(Report(2)));
    EXPECT_EQ(kExitFailure, Run());
    std::istringstream lines(ReadFile(m_path));
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    const json first = json::parse(line);
    EXPECT_EQ("malformed", first["event_type"]);
    EXPECT_EQ("AQI=", first["tarn"]["bytes"]);
    EXPECT_EQ("20", first["timestamp"].get<std::string>().substr(0, 2));
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(2, json::parse(line)["alert"]["signature_id"]);
    EXPECT_THAT(m_err.str(),
                HasSubstr("malformed report in ring -0 of 2 bytes handed on as it is"));
}

TEST_F(ReportServiceTest, FailsAtAFileThatCannotBeHad) {
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    m_options.eve = {m_folder.Path().string()};
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_EQ(1, m_daemon.Posts());
}

TEST_F(ReportServiceTest, FailsOnARingThatIsStuck) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send({}));
    m_options.timeout = 0;
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_THAT(m_err.str(), HasSubstr("the ring is damaged"));
    EXPECT_THAT(Sids(m_path), ElementsAre(1));
}

TEST_F(ReportServiceTest, HasItsCountersAsJson) {
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    m_options.json = true;
    EXPECT_EQ(kExitFine, Run());
    const json expected = {{"channel", 7},
                           {"reports", 1},
                           {"putBack", 0},
                           {"sinks",
                            {{{"sink", "eve"},
                              {"target", m_path},
                              {"taken", 1},
                              {"waiting", 0},
                              {"lost", 0},
                              {"error", nullptr}}}}};
    EXPECT_EQ(expected, json::parse(m_out.str()));
}

TEST_F(ReportServiceTest, LetsReportsWaitInASpillFileAndHandsThemOnFirst) {
    m_options.spill = m_folder.File("spill");
    m_options.eve = {"unix:" + m_folder.File("nobody")};
    for (uint32_t sid = 1; sid <= 1000; ++sid) {
        ASSERT_TRUE(m_daemon.Send(Report(sid)));
    }
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(0, m_daemon.Posts());
    EXPECT_THAT(m_err.str(), HasSubstr("nobody: 0 taken, 1000 in the spill file, 0 lost\n"));
    m_options.eve = {m_path};
    ASSERT_TRUE(m_daemon.Send(Report(1001)));
    EXPECT_EQ(kExitFine, Run());
    const std::vector<uint32_t> sids = Sids(m_path);
    ASSERT_EQ(1001U, sids.size());
    for (uint32_t sid = 1; sid <= 1001; ++sid) {
        ASSERT_EQ(sid, sids[sid - 1]);
    }
    EXPECT_THAT(m_err.str(), HasSubstr("1 report; eve " + m_path +
                                       ": 1001 taken, 0 in the spill file, 0 lost\n"));
}

TEST_F(ReportServiceTest, CountsWhatFindsNoRoomInTheSpillFileAndSaysSoOnce) {
    m_options.spill = m_folder.File("spill");
    m_options.spillLimit = 2000;
    m_options.eve = {"unix:" + m_folder.File("nobody")};
    for (uint32_t sid = 1; sid <= 1000; ++sid) {
        ASSERT_TRUE(m_daemon.Send(Report(sid)));
    }
    EXPECT_EQ(kExitFine, Run());
    const std::string told = m_err.str();
    const size_t first = told.find("the spill file is full, and reports are lost");
    EXPECT_NE(std::string::npos, first);
    EXPECT_EQ(std::string::npos, told.find("the spill file is full", first + 1));
    m_options.eve = {m_path};
    m_options.json = true;
    EXPECT_EQ(kExitFine, Run());
    const json sink = json::parse(m_out.str())["sinks"][0];
    const std::vector<uint32_t> sids = Sids(m_path);
    ASSERT_FALSE(sids.empty());
    EXPECT_EQ(1U, sids.front());
    EXPECT_EQ(sids.size(), sink["taken"]);
    EXPECT_EQ(1000 - sids.size(), sink["lost"]);
    EXPECT_EQ(0, sink["waiting"]);
}

TEST_F(ReportServiceTest, BeginsANewFileAtAHangup) {
    m_options.timeout = 1.0;
    std::jthread mover([this] {
        EXPECT_TRUE(m_daemon.Send(Report(1)));
        while (!std::filesystem::exists(m_path) || ReadFile(m_path).empty()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        std::filesystem::rename(m_path, m_path + ".1");
        std::raise(SIGHUP);
        while (!std::filesystem::exists(m_path)) {
            EXPECT_TRUE(m_daemon.Send(Report(2)));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    EXPECT_EQ(kExitFine, Run());
    mover.join();
    EXPECT_EQ(1U, Sids(m_path + ".1").front());
    EXPECT_EQ(2U, Sids(m_path).back());
}

TEST_F(ReportServiceTest, FollowsAChannelToANewRing) {
    m_options.timeout = 1.0;
    (void)m_daemon.Posts();
    TestChannel* const daemon = &m_daemon;
    std::jthread mover([this, daemon] {
        EXPECT_TRUE(daemon->Send(Report(1)));
        while (!std::filesystem::exists(m_path) || ReadFile(m_path).empty()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        std::filesystem::remove(daemon->RingPath(0));
        EventQueue writer(daemon->Name(), TestChannel::kChannel, 1);
        EXPECT_EQ(0, writer.Open());
        const CrmBytes bytes = Report(2);
        const auto length = static_cast<uint32_t>(bytes.size());
        EXPECT_EQ(PIPE_OK, writer.m_pairs[0]->m_aPipes[0].write(bytes.data(), &length));
        sem_post(writer.m_pSem);
    });
    EXPECT_EQ(kExitFine, Run());
    mover.join();
    EXPECT_THAT(Sids(m_path), ElementsAre(1, 2));
    EXPECT_THAT(m_err.str(), HasSubstr("the rings of the channel were replaced"));
}

class SeveralSinksTest : public ReportServiceTest {
  protected:
    SeveralSinksTest() { m_options.eve = {m_path, "unix:" + m_folder.File("nobody")}; }
    void SendUpTo(uint32_t last) {
        for (uint32_t sid = 1; sid <= last; ++sid) {
            ASSERT_TRUE(m_daemon.Send(Report(sid)));
        }
    }
    static std::vector<uint32_t> UpTo(uint32_t last) {
        std::vector<uint32_t> sids(last);
        std::iota(sids.begin(), sids.end(), 1U);
        return sids;
    }

    const std::string m_other = m_folder.File("other.json");
};

TEST_F(SeveralSinksTest, HandEachReportToEveryOne) {
    SendUpTo(1000);
    m_options.eve = {m_path, m_other};
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(UpTo(1000), Sids(m_path));
    EXPECT_EQ(UpTo(1000), Sids(m_other));
    EXPECT_EQ(0, m_daemon.Posts());
    EXPECT_EQ("tarnctl crm: channel 7 goes to " + m_path + ", " + m_other +
                  "\n"
                  "tarnctl crm: 1000 reports; eve " +
                  m_path + ": 1000 taken; eve " + m_other + ": 1000 taken\n",
              m_err.str());
}

TEST_F(SeveralSinksTest, KeepReportsInTheRingForTheOneThatIsAway) {
    SendUpTo(1000);
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(UpTo(kReportBatch), Sids(m_path));
    EXPECT_EQ(1000, m_daemon.Posts());
    m_options.eve = {m_other};
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(UpTo(1000), Sids(m_other));
}

TEST_F(SeveralSinksTest, HaveSpillFilesOfTheirOwnWhateverTheirOrder) {
    SendUpTo(1000);
    m_options.spill = m_folder.File("spill");
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(UpTo(1000), Sids(m_path));
    EXPECT_EQ(0, m_daemon.Posts());
    const std::string spill = m_options.spill + ".eve-unix:";
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder.Path())) {
        files.insert(entry.path().filename().string().substr(0, 15));
    }
    EXPECT_EQ((std::set<std::string>{"eve.json", "spill.eve-%2Ftm", "spill.eve-unix:"}), files);
    EXPECT_FALSE(std::filesystem::exists(m_options.spill));

    std::swap(m_options.eve[0], m_options.eve[1]);
    ASSERT_TRUE(m_daemon.Send(Report(1001)));
    m_err.str("");
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(UpTo(1001), Sids(m_path));
    EXPECT_THAT(m_err.str(), HasSubstr("nobody: 0 taken, 1001 in the spill file, 0 lost; eve " +
                                       m_path + ": 1 taken, 0 in the spill file, 0 lost\n"));
}

TEST_F(SeveralSinksTest, LoseReportsForTheOneThatIsAwayAlone) {
    SendUpTo(1000);
    m_options.spill = m_folder.File("spill");
    m_options.spillLimit = 2000;
    m_options.json = true;
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(UpTo(1000), Sids(m_path));
    const json sinks = json::parse(m_out.str())["sinks"];
    EXPECT_EQ(0, sinks[0]["lost"]);
    EXPECT_LT(0, sinks[1]["waiting"]);
    EXPECT_EQ(1000, sinks[1]["lost"].get<int>() + sinks[1]["waiting"].get<int>());
    EXPECT_THAT(m_err.str(), HasSubstr("nobody: the spill file is full, and reports are lost\n"));
    EXPECT_THAT(m_err.str(), Not(HasSubstr(m_path + ": the spill file is full")));
}

TEST_F(SeveralSinksTest, ShowNoCountersAmongLinesOnStandardOutput) {
    m_options.eve = {m_path, "-"};
    m_options.json = true;
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ("", m_out.str());
}

TEST_F(SeveralSinksTest, AreNotNamedTwice) {
    m_options.eve = {m_path, m_other, m_path};
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_EQ("tarnctl crm: --eve " + m_path + " is named twice\n", m_err.str());
}

TEST_F(SeveralSinksTest, AreToldOfReportsThatNoneOfThemGets) {
    SendUpTo(2);
    m_options.spill = m_folder.File("spill");
    EXPECT_EQ(kExitFine, Run());
    EXPECT_THAT(m_err.str(), Not(HasSubstr("still there")));
    const std::string said = "nobody: 2 reports still there, and for no sink of this command\n";
    m_options.eve = {m_path};
    EXPECT_EQ(kExitFine, Run());
    EXPECT_THAT(m_err.str(), HasSubstr(said));

    // A file that is in use belongs to somebody.
    m_err.str("");
    const std::string name = m_options.spill + ".eve-unix:";
    for (const auto& entry : std::filesystem::directory_iterator(m_folder.Path())) {
        if (entry.path().string().starts_with(name)) {
            SpillFile other(entry.path().string(), 1);
            ASSERT_EQ("", other.Open());
            EXPECT_EQ(kExitFine, Run());
        }
    }
    EXPECT_THAT(m_err.str(), HasSubstr("0 reports; eve"));
    EXPECT_THAT(m_err.str(), Not(HasSubstr("still there")));
}

TEST_F(SeveralSinksTest, AreToldOfWhatWaitsInTheFileOfASingleOne) {
    SendUpTo(1);
    m_options.spill = m_folder.File("spill");
    m_options.eve = {"unix:" + m_folder.File("nobody")};
    EXPECT_EQ(kExitFine, Run());
    m_options.eve = {m_path, m_other};
    EXPECT_EQ(kExitFine, Run());
    EXPECT_THAT(m_err.str(),
                HasSubstr("tarnctl crm: " + m_options.spill + ": 1 report still there"));
}

}  // namespace
}  // namespace tarnctl
