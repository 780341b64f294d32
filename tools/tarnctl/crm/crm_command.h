#pragma once

// `tarnctl crm`: stands in for the CRM. It shows the reports that come out of the daemon, or hands
// them on to what people have in the CRM's place.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <string>
#include <vector>

#include "tarnctl/common/monitor.h"

namespace tarnctl {

struct CrmOptions : MonitorOptions {
    // Whether reports are handed on and not shown.
    [[nodiscard]] bool HasSinks() const { return !eve.empty() || !redis.empty() || !kafka.empty(); }

    int channel = 2;               // the default of tarn.engine.crm
    bool fresh = false;            // what waits already is thrown away
    bool peek = false;             // looks and takes nothing
    bool follow = false;           // with peek: goes on with what comes
    std::vector<std::string> eve;  // where lines of EVE JSON go
    std::string redis;             // a Redis server and, with it, one of its streams
    std::string stream;
    uint64_t streamLimit = 1'000'000;  // entries that the stream keeps
    std::string kafka;                 // brokers of a Kafka cluster and, with them, a topic
    std::string topic;
    bool packets = false;  // with their packets
    std::string spill;     // where lines wait for a sink that is away; empty: in the queue
    uint64_t spillLimit = 1U << 30;  // bytes of lines that wait there at most, for each sink
    std::string queueName = "CRM";   // not an option; tests use a queue of their own
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddCrmCommand(CLI::App& app, CrmOptions& options);

// Reads until the options' end or StopRequested(). Reports go to `out`, all else to `err`. Returns
// an exit status: a failure when the queue cannot be read, when `out` does not take a report, or
// when a message was malformed.
[[nodiscard]] int RunCrm(const CrmOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
