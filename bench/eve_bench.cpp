// The way of a report out of the ring into a file, as `tarnctl crm --eve` goes it with its packet
// left out, and into an output as `tarnctl crm --json` goes it, held against the write of the same
// lines alone. Another thread fills the ring meanwhile, as the daemon does; its time is not
// counted.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

#include "support/temp_dir.h"
#include "tarnctl/crm/crm_command.h"
#include "tarnctl/crm/report_service.h"
#include "unit/tarnctl/common/test_channel.h"

namespace {

constexpr size_t kPacketBytes = 600;
constexpr uint64_t kReports = 40000;  // of a run, which is some ten times what the ring holds

// A report as the daemon sends it for an alert of a web server's rule.
CrmBytes WebReport() {
    tarnctl::CrmReport message = SampleReport();
    message.packet->bytes.assign(kPacketBytes, std::byte{0x5A});
    message.packet->info.uPacketLength = kPacketBytes;
    message.packet->info.iCapturedSize = kPacketBytes;
    message.pairs = {{"Rule",
                      "alert tcp $EXTERNAL_NET any -> $HOME_NET $HTTP_PORTS (msg:\"WEB-PHP a path "
                      "out of its folder\"; flow:established,to_server; content:\"../\"; "
                      "reference:cve,2019-11510; classtype:web-application-attack; sid:2019401; "
                      "rev:5;)"},
                     {"URL", "/index.php?page=../../../../etc/passwd"},
                     {"server", "www.example.org"}};
    return Encode(message);
}

class Service {
  public:
    Service() {
        m_options.channel = TestChannel::kChannel;
        m_options.queueName = m_daemon.Name();
        m_options.count = kReports;
        (void)m_daemon.Posts();  // makes the rings, which the service would make otherwise
    }

    const std::string& Path() const { return m_path; }
    tarnctl::CrmOptions& Options() { return m_options; }

    void Run(std::ostream& out) {
        std::ostringstream told;
        const std::jthread writer([this] {
            for (uint64_t i = 0; i < kReports;) {
                if (m_daemon.Send(m_report)) {
                    ++i;
                } else {
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                }
            }
        });
        if (tarnctl::RunCrm(m_options, out, told) != 0) {
            std::abort();
        }
    }

  private:
    const TempDir m_folder;
    const std::string m_path = m_folder.File("eve.json");
    const CrmBytes m_report = WebReport();
    TestChannel m_daemon;
    tarnctl::CrmOptions m_options;
};

void CountReports(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kReports));
}

void ReportsIntoFile(benchmark::State& state) {
    Service service;
    service.Options().eve = {service.Path()};
    std::ostringstream out;
    for (auto _ : state) {
        state.PauseTiming();
        unlink(service.Path().c_str());
        state.ResumeTiming();
        service.Run(out);
    }
    CountReports(state);
}

// The same lines, as many at once as the service holds.
void ReportLinesAlone(benchmark::State& state) {
    Service service;
    service.Options().eve = {service.Path()};
    std::ostringstream out;
    service.Run(out);
    std::ifstream file(service.Path(), std::ios::binary);
    const std::string lines((std::istreambuf_iterator<char>(file)), {});
    const size_t part = lines.size() / kReports * tarnctl::kReportBatch;
    for (auto _ : state) {
        state.PauseTiming();
        unlink(service.Path().c_str());
        state.ResumeTiming();
        const int fd =
            open(service.Path().c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        for (size_t at = 0; at < lines.size(); at += part) {
            const size_t size = std::min(part, lines.size() - at);
            if (write(fd, lines.data() + at, size) != static_cast<ssize_t>(size)) {
                std::abort();
            }
        }
        close(fd);
    }
    CountReports(state);
}

// An output that takes all and keeps nothing.
class Sink final : public std::streambuf {
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
    int overflow(int letter) override { return letter == EOF ? 0 : letter; }
};

void ReportsAsJson(benchmark::State& state) {
    Service service;
    service.Options().json = true;
    Sink sink;
    std::ostream out(&sink);
    for (auto _ : state) {
        service.Run(out);
    }
    CountReports(state);
}

BENCHMARK(ReportsIntoFile);
BENCHMARK(ReportLinesAlone);
BENCHMARK(ReportsAsJson);

}  // namespace
