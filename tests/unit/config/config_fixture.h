#pragma once

// A test of the loader: its own state and configuration files, every static member as it is
// before main(), and a log to look into.

#include <gtest/gtest.h>

#include <string>

#include "config/config.h"
#include "config/event_rule_table.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

class ConfigFixture : public testing::Test {
  protected:
    ConfigFixture() {
        Config::s_configFile.clear();
        Config::s_stateFile = dir.File("tarn.state");
        Config::s_logLevel = 3;
        Config::s_logFile = "/cache/qor/tarn.log";
        Config::s_logMaxFiles = 5;
        Config::s_logMaxFileSize = 2097152;
        Config::s_snortCpu = 0;
        Config::s_engineCpu = 0;
        Config::s_engineCrm = 2;
        Config::s_debugSingle = 0;
        Config::s_evidenceFileFormat = "pcap";
        Config::s_evidenceMaxFiles = 10;
        Config::s_evidenceMaxKBytes = 10;
        Config::s_evidencePacketCount = 1;
        Config::s_evidenceFileTimeout = 15;
        Config::s_evidenceBufferCtrlSize = 262142;
        Config::s_evidenceSuppress = 5;
        // A pending entry cannot be dropped, but it can be entered and cleared away.
        Config::s_eventTable.Clear();
        (void)Config::s_eventTable.Commit();
        Config::s_eventTable.Clear();
        Config::Initialize();
    }

    void LoadMain(const std::string& content) {
        Config::Load(dir.Write("tarn.conf", content).c_str(), Config::kMainFile);
    }
    void LoadEvents(const std::string& content) {
        Config::Load(dir.Write("tarn_event.conf", content).c_str(), Config::kEventFile);
    }

    // The name that an event has in the table, "-" if it is not there.
    static std::string NameOf(uint32_t id) {
        const std::shared_ptr<Node> node = Config::s_eventTable.Find(id);
        return node ? node->eventName : "-";
    }

    TempDir dir;
    LogCapture log;
};
