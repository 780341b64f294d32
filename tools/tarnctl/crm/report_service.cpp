#include "tarnctl/crm/report_service.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <deque>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/monitor.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/crm/eve_line.h"
#include "tarnctl/crm/held_reports.h"
#include "tarnctl/crm/outlet.h"
#include "tarnctl/crm/report_sinks.h"

namespace tarnctl {
namespace {

using Milliseconds = std::chrono::milliseconds;

// While a sink is away reports wait and nothing wakes this process, so it looks again after this
// time.
constexpr Milliseconds kLookInterval{20};

class ReportService final : public Monitor {
  public:
    ReportService(const CrmOptions& options, std::ostream& out, std::ostream& err)
        : Monitor("crm", "report", options, out, err), m_options(options) {}

  private:
    std::string Begin() override {
        CatchRequests(SIGHUP);
        CatchRequests(SIGUSR1);
        std::string obstacle = MakeOutlets(m_options, m_outlets);
        if (!obstacle.empty()) {
            return obstacle;
        }
        std::string to;
        for (Outlet& outlet : m_outlets) {
            obstacle = outlet.Open();
            if (!obstacle.empty()) {
                return obstacle;
            }
            to += (to.empty() ? "" : ", ") + outlet.Sink().Target();
        }
        if (!Attach()) {
            return m_held->Error();
        }
        Say("channel " + std::to_string(m_options.channel) + " goes to " + to);
        for (const std::string& text : ForgottenReports(m_options, m_outlets)) {
            Say(text);
        }
        TellNews();
        return "";
    }

    bool Attach() {
        m_putBack += m_held != nullptr ? m_held->PutBack() : 0;
        m_held = std::make_unique<HeldReports>(m_options.channel, m_options.queueName.c_str());
        m_lines.clear();
        m_ends.clear();
        return m_held->Open();
    }

    void Serve(Milliseconds time) override {
        if (TakeRequest(SIGHUP)) {
            for (Outlet& outlet : m_outlets) {
                outlet.Sink().Reopen();
            }
        }
        if (TakeRequest(SIGUSR1)) {
            Say(Counts());
        }
        const size_t before = m_held->Held();
        if (!m_held->Collect(Room(),
                             [this](const CrmOrigin& origin, std::span<const std::byte> bytes) {
                                 Hold(origin, bytes);
                             })) {
            Fail(m_held->Error());
        }
        bool isMoving = m_held->Held() != before;
        for (Outlet& outlet : m_outlets) {
            isMoving = outlet.Bring(m_lines) || isMoving;
        }
        TellNews();
        ReleaseTaken();
        if (std::any_of(m_outlets.begin(), m_outlets.end(),
                        [](const Outlet& outlet) { return outlet.Sink().IsOver(); })) {
            Finish();
        }
        if (isMoving) {
            HasNews();
        } else {
            Rest(time);
        }
    }

    // How many more reports may be held.
    [[nodiscard]] size_t Room() const {
        const size_t held = m_held->Held();
        const size_t room = kReportBatch - held;
        if (m_options.count == 0) {
            return room;
        }
        return std::min<uint64_t>(room,
                                  m_options.count - std::min(m_options.count, Taken() + held));
    }

    void Hold(const CrmOrigin& origin, std::span<const std::byte> bytes) {
        const std::string reason = DecodeCrmReport(bytes, m_message);
        if (reason.empty()) {
            AppendEveLine(origin, m_message, m_options.packets, m_lines);
        } else {
            TellDamaged("malformed report in ring -" + std::to_string(origin.ring) + " of " +
                        Counted(bytes.size(), "byte") + " handed on as it is: " + reason);
            AppendMalformedEveLine(origin, reason, bytes, static_cast<uint64_t>(std::time(nullptr)),
                                   m_lines);
        }
        m_ends.push_back(m_lines.size());
    }

    // Takes out of the ring what each sink has.
    void ReleaseTaken() {
        size_t done = m_lines.size();
        for (const Outlet& outlet : m_outlets) {
            done = std::min(done, outlet.Done());
        }
        size_t count = 0;
        size_t bytes = 0;
        while (!m_ends.empty() && m_ends.front() <= done) {
            bytes = m_ends.front();
            m_ends.pop_front();
            ++count;
            CountOne();
        }
        m_held->Release(count);
        m_lines.erase(0, bytes);
        for (size_t& end : m_ends) {
            end -= bytes;
        }
        for (Outlet& outlet : m_outlets) {
            outlet.Release(bytes);
        }
    }

    void Rest(Milliseconds time) {
        if (m_held->Held() != 0) {
            std::this_thread::sleep_for(std::min(time, kLookInterval));
            return;
        }
        m_held->Wait(time);
        if (m_held->IsCurrent()) {
            return;
        }
        Say("the rings of the channel were replaced; reading the new ones");
        if (!Attach()) {
            Fail(m_held->Error());
        }
    }

    void TellNews() {
        for (Outlet& outlet : m_outlets) {
            const std::string news = outlet.News();
            if (!news.empty()) {
                Say(news);
            }
        }
    }

    [[nodiscard]] std::string Missing() const override {
        const std::string& ring = m_held->MissingRing();
        return ring.empty() ? "" : "no ring at " + ring;
    }

    [[nodiscard]] std::string Counts() const override {
        std::string counts = Counted(Taken(), "report");
        for (const Outlet& outlet : m_outlets) {
            counts += "; " + outlet.Sink().Kind() + ' ' + outlet.Sink().Target() + ": " +
                      std::to_string(outlet.Taken()) + " taken";
            if (const SpillFile* const spill = outlet.Spill()) {
                counts += ", " + std::to_string(spill->Waiting()) + " in the spill file, " +
                          std::to_string(spill->Lost()) + " lost";
            }
        }
        return counts;
    }

    void End() override {
        const auto& eve = m_options.eve;
        if (WritesJson() && std::find(eve.begin(), eve.end(), "-") == eve.end()) {
            Write(CountsAsJson());
        }
    }

    [[nodiscard]] std::string CountsAsJson() const {
        using Json = nlohmann::ordered_json;
        Json sinks = Json::array();
        for (const Outlet& outlet : m_outlets) {
            const std::string& error = outlet.Sink().Error();
            const SpillFile* const spill = outlet.Spill();
            sinks.push_back(Json{{"sink", outlet.Sink().Kind()},
                                 {"target", TextAsJson(outlet.Sink().Target())},
                                 {"taken", outlet.Taken()},
                                 {"waiting", spill != nullptr ? spill->Waiting() : 0},
                                 {"lost", spill != nullptr ? spill->Lost() : 0},
                                 {"error", error.empty() ? Json() : TextAsJson(error)}});
        }
        return Json{{"channel", m_options.channel},
                    {"reports", Taken()},
                    {"putBack", m_putBack + m_held->PutBack()},
                    {"sinks", sinks}}
            .dump();
    }

    const CrmOptions& m_options;
    uint64_t m_putBack = 0;  // of rings that were replaced
    std::unique_ptr<HeldReports> m_held;
    std::vector<Outlet> m_outlets;
    CrmReport m_message;        // kept for the memory that it has
    std::string m_lines;        // of the reports that are held
    std::deque<size_t> m_ends;  // where each of them ends in m_lines
};

}  // namespace

int RunReportService(const CrmOptions& options, std::ostream& out, std::ostream& err) {
    return ReportService(options, out, err).Run();
}

}  // namespace tarnctl
