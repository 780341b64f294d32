#include "tarnctl/explain/explain_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/source_dir.h"
#include "support/temp_dir.h"
#include "tarnctl/common/exit_status.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using Json = nlohmann::json;

constexpr const char* kEvents =
    "se.7.msg = Scan\n"
    "se.7.severity = high\n"
    "se.7.rule = alert\n"
    "se.7.user.response = LOGEVIDENCE\n"
    "se.7.response = quarantine-traffic\n"
    "se.7.quarantine.rule = quarantine-intruder-address, duration: 600\n"
    "se.7.quarantine.rule = quarantine-icmp-type\n"
    "se.7.severity = urgent\n";

class ExplainCommand : public testing::Test {
  protected:
    ExplainCommand() {
        Write("tarn.conf", "");
        Write("events", kEvents);
    }
    void Write(const std::string& name, const std::string& text) {
        std::ofstream(m_dir.File(name)) << text;
    }

    // Runs with these words and the files of this test. Returns the exit status.
    int Run(std::vector<std::string> words) {
        for (const char* const word : {"-c", "tarn.conf", "-n", "events", "--state", "none"}) {
            words.push_back(*word == '-' ? word : m_dir.File(word));
        }
        CLI::App app;
        tarnctl::ExplainOptions options;
        const CLI::App* const command = AddExplainCommand(app, options);
        words.insert(words.begin(), "explain");
        try {
            app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
        } catch (const CLI::ParseError& fault) {
            m_err << fault.what();
            return tarnctl::kExitUsage;
        }
        EXPECT_TRUE(command->parsed());
        return RunExplain(options, m_out, m_err);
    }

    static std::string Report(bool blocked) {
        return Json{{"name", "Scan"},
                    {"blocked", blocked},
                    {"pairs", Json::object()},
                    {"packet", nullptr},
                    {"report",
                     {{"etherType", 0x0800},
                      {"issueId", 7},
                      {"startTime", 1794495600},
                      {"ipProtocol", 6},
                      {"icmpType", 0},
                      {"icmpCode", 0},
                      {"intruderPort", 1025},
                      {"victimPort", 80},
                      {"vlanId", 1},
                      {"intruderIp", "10.0.0.1"},
                      {"victimIp", "10.0.0.2"}}}}
            .dump();
    }

    TempDir m_dir;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(ExplainCommand, SaysAllOfAnAlertInWords) {
    ASSERT_EQ(tarnctl::kExitFine,
              Run({"7", "--src", "10.0.0.1", "--dst", "10.0.0.2", "--time", "1794495600"}));
    EXPECT_EQ("", m_err.str());
    const std::string text = m_out.str();
    for (const std::string& part : std::vector<std::string>{
             "signature   7\n",
             "alert       TCP 10.0.0.1:49152 -> 10.0.0.2:80, ",
             "entry       " + m_dir.File("events") + ":1:1: se.7.msg = Scan\n",
             ":8:1: se.7.severity = urgent  (dropped: the daemon cannot use it)\n",
             "report      name \"Scan\"\n            severity high\n",
             "rule 1      blocked: ip intruder addr 10.0.0.1 tcp src port 0 dst port 0 expires "
             "2026-11-12T15:10:00Z\n",
             "rule 2      not blocked, because the entry asks for an ICMP type or code and this is "
             "TCP\n",
             "packets     captured: ",
         }) {
        EXPECT_THAT(text, HasSubstr(part));
    }
    EXPECT_THAT(text, Not(HasSubstr("an example")));
}

TEST_F(ExplainCommand, SaysThatTheAlertIsAnExample) {
    ASSERT_EQ(tarnctl::kExitFine, Run({"7"}));
    EXPECT_THAT(m_out.str(), HasSubstr("(an example; "));
}

TEST_F(ExplainCommand, SaysThatASignatureWithoutAnEntryEndsTheDaemon) {
    ASSERT_EQ(tarnctl::kExitFine, Run({"8"}));
    EXPECT_THAT(m_out.str(), HasSubstr("entry       none\n"));
    EXPECT_THAT(m_out.str(), HasSubstr("the daemon ends with SIGSEGV"));
    EXPECT_THAT(m_out.str(), Not(HasSubstr("report      ")));
}

TEST_F(ExplainCommand, WritesJson) {
    ASSERT_EQ(tarnctl::kExitFine, Run({"7", "--json", "--proto", "icmp"}));
    const Json document = Json::parse(m_out.str());
    EXPECT_EQ("report", document.at("outcome"));
    EXPECT_EQ("options", document.at("alert").at("origin"));
    EXPECT_TRUE(document.at("alert").at("sourcePort").is_null());
    EXPECT_EQ(8, document.at("entry").size());
    EXPECT_EQ(6, document.at("entry").at(5).at("line"));
    EXPECT_FALSE(document.at("entry").at(7).at("inForce").get<bool>());
    EXPECT_EQ("high", document.at("report").at("severity"));
    EXPECT_TRUE(document.at("blocking").at("rules").at(1).at("sent").get<bool>());
    EXPECT_TRUE(document.at("capture").at("requested").get<bool>());
    EXPECT_TRUE(document.at("comparison").is_null());
}

TEST_F(ExplainCommand, ComparesEachReportWithTheEntry) {
    Write("reports", Report(true) + "\n\n" + Report(false) + "\n");
    ASSERT_EQ(tarnctl::kExitFine, Run({"--report", m_dir.File("reports")}));
    EXPECT_THAT(m_out.str(), HasSubstr("result      The alert was blocked: the security manager"));
    EXPECT_THAT(m_out.str(), HasSubstr("\n\nsignature   7\n"))
        << "an empty line between two alerts";
    EXPECT_THAT(m_out.str(), HasSubstr("although the entry asks for it"));
}

TEST_F(ExplainCommand, NamesALineThatIsNoReportAndGoesOn) {
    Write("reports", "rubbish\n" + Report(true) + "\n");
    EXPECT_EQ(tarnctl::kExitFailure, Run({"--report", m_dir.File("reports"), "--json"}));
    EXPECT_THAT(m_err.str(), HasSubstr("reports:1: not a report"));
    EXPECT_TRUE(Json::parse(m_out.str()).at("comparison").at("agrees").get<bool>());
}

TEST_F(ExplainCommand, NamesAFileWithoutAReport) {
    Write("reports", "\n");
    EXPECT_EQ(tarnctl::kExitFailure, Run({"--report", m_dir.File("reports")}));
    EXPECT_THAT(m_err.str(), HasSubstr("holds no report"));
    EXPECT_EQ(tarnctl::kExitFailure, Run({"--report", m_dir.File("missing")}));
    EXPECT_THAT(m_err.str(), HasSubstr("missing"));
}

TEST_F(ExplainCommand, TakesTheAlertOfASample) {
    const std::string sample = SourceDir() + "/samples/sensor-302-alerts.u2";
    EXPECT_EQ(tarnctl::kExitFailure, Run({"7", "--alert", sample}));
    EXPECT_THAT(m_err.str(), HasSubstr("has no alert of signature 7"));
}

TEST_F(ExplainCommand, RefusesAWrongCommandLine) {
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"0"},
        {"7", "--report", "x"},
        {"7", "--alert", "x", "--proto", "tcp"},
        {"7", "--sport", "70000"},
        {"7", "--proto", "quic"},
        {"7", "--alert", "-", "-c", "-"},
    };
    for (const auto& words : wrong) {
        EXPECT_EQ(tarnctl::kExitUsage, Run(words)) << testing::PrintToString(words);
    }
    EXPECT_EQ("", m_out.str());
}

TEST_F(ExplainCommand, ReadsTheEventsFromStandardInput) {
    const int saved = dup(STDIN_FILENO);
    const int events = open(m_dir.File("events").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, dup2(events, STDIN_FILENO));
    CLI::App app;
    tarnctl::ExplainOptions options;
    AddExplainCommand(app, options);
    options.signature = 7;
    options.paths = {m_dir.File("tarn.conf"), "-", m_dir.File("none")};
    EXPECT_EQ(tarnctl::kExitFine, RunExplain(options, m_out, m_err));
    dup2(saved, STDIN_FILENO);
    close(saved);
    close(events);
    EXPECT_THAT(m_out.str(), HasSubstr("entry       -:1:1: se.7.msg = Scan\n"));
}

}  // namespace
