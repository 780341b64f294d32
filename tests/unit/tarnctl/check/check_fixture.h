#pragma once

// Runs `tarnctl check` in the test's process over files of its own.

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tarnctl/check/check_command.h"
#include "unit/config/config_fixture.h"

// Name, line and column of a finding; sorted, so that sets compare.
using FoundPlace = std::tuple<std::string, uint32_t, size_t>;

class CheckFixture : public ConfigFixture {
  protected:
    CheckFixture() {
        options.stateFile = dir.File("tarn.state");
        options.configFile = dir.Write("tarn.conf", "");
        options.eventFile = dir.Write("tarn_event.conf", "");
        options.noPlaces = true;
    }

    // Runs with --json and keeps the whole answer.
    int Run() {
        tarnctl::CheckOptions asJson = options;
        asJson.json = true;
        std::ostringstream out;
        err.str("");
        const int exitStatus = tarnctl::RunCheck(asJson, out, err);
        answer = nlohmann::json::parse(out.str());
        return exitStatus;
    }

    std::string Text() {
        std::ostringstream out;
        status = tarnctl::RunCheck(options, out, err);
        return out.str();
    }

    void Main(const std::string& content) { dir.Write("tarn.conf", content); }
    void Events(const std::string& content) { dir.Write("tarn_event.conf", content); }

    // What was found in a file of the test's folder.
    std::vector<FoundPlace> FoundIn(const std::string& name) const {
        std::vector<FoundPlace> found;
        for (const auto& finding : answer["findings"]) {
            if (finding["file"] == dir.File(name)) {
                found.emplace_back(
                    finding["name"],
                    finding["line"].is_null() ? 0 : finding["line"].get<uint32_t>(),
                    finding["column"].is_null() ? 0 : finding["column"].get<size_t>());
            }
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    // The one finding of a run; fails where there is another number of them.
    nlohmann::json Only() {
        (void)Run();
        EXPECT_EQ(1U, answer["findings"].size()) << answer.dump(1);
        return answer["findings"].empty() ? nlohmann::json() : answer["findings"][0];
    }

    tarnctl::CheckOptions options;
    nlohmann::json answer;
    std::ostringstream err;
    int status = -1;
};

// The lines of an entry that nothing is wrong with.
inline std::string GoodEntry(uint32_t id) {
    const std::string begin = "se." + std::to_string(id);
    return begin + ".severity = high\n" + begin + ".msg = Name\n" + begin +
           ".user.response = DISPLAY:WithRaw\n" + begin + ".response = quarantine-traffic\n" +
           begin + ".quarantine.rule = quarantine-intruder-address, duration: 600\n";
}
