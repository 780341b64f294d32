#include "tarnctl/top/top_view.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "tarnctl/common/text_forms.h"
#include "tarnctl/health/health_words.h"

namespace tarnctl {
namespace {

constexpr size_t kBusiest = 10;
constexpr size_t kTwoTables = 60;  // columns from which the two tables are side by side

std::string Decimal(double number) {
    std::array<char, 64> text = {};
    std::snprintf(text.data(), text.size(), "%.1f", number);
    return text.data();
}

std::string Padded(std::string text, size_t width) {
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

std::string SourceOf(const EventReport& report) {
    std::array<char, INET6_ADDRSTRLEN> text = {};
    if (report.etherType == kEtherTypeIpv6) {
        inet_ntop(AF_INET6, report.sourceIpv6, text.data(), text.size());
    } else {
        const in_addr address{htonl(report.sourceIp)};
        inet_ntop(AF_INET, &address, text.data(), text.size());
    }
    return text.data();
}

uint64_t LossesIn(const Health& health) {
    uint64_t count = 0;
    if (health.log.losses.IsKnown()) {
        for (const LossHealth& loss : *health.log.losses.value) {
            count += loss.count;
        }
    }
    return count;
}

// "[####------]"
std::string Bar(double percent, size_t width) {
    const auto full = static_cast<size_t>(std::lround(percent / 100 * static_cast<double>(width)));
    return "[" + std::string(std::min(full, width), '#') +
           std::string(width - std::min(full, width), '-') + "]";
}

std::string Row(const std::vector<Busiest::Entry>& entries, size_t row, size_t width) {
    if (row >= entries.size()) {
        return std::string(width, ' ');
    }
    constexpr size_t kCount = 8;
    const std::string count = std::to_string(entries[row].count);
    const std::string blanks(count.size() < kCount ? kCount - count.size() : 0, ' ');
    const size_t left = width > kCount + 1 ? width - kCount - 1 : 0;
    return CutToWidth(Padded(CutToWidth(entries[row].name, left), left) + " " + blanks + count,
                      width);
}

std::string Heading(const char* name, size_t width) {
    const std::string count = "in 60 s";
    const size_t left = width > count.size() + 1 ? width - count.size() : 0;
    return CutToWidth(Padded(name, left) + count, width);
}

}  // namespace

void TopView::Count(const EventReport& report, double now) {
    ++m_reports;
    m_signatures.Count(std::to_string(report.issueId), now);
    m_sources.Count(SourceOf(report), now);
}

void TopView::Take(Health health, Verdict verdict) {
    m_before = std::move(m_now);
    m_now = std::move(health);
    m_verdict = std::move(verdict);
    m_latestReports = std::exchange(m_reports, 0);
}

double TopView::Seconds() const {
    return m_before ? m_now->time - m_before->time : 0.0;
}

void TopView::AddHead(std::vector<TopLine>& lines) const {
    const DaemonHealth& daemon = m_now->daemon;
    std::string text = "tarn";
    if (daemon.pid.IsKnown()) {
        text += " " + std::to_string(*daemon.pid.value) + "  up " +
                AgeText(daemon.ageSeconds.value.value_or(0)) + "  memory " +
                BytesText(daemon.memoryBytes.value.value_or(0));
    } else {
        text += "  " + (daemon.isRunning.IsKnown() ? std::string("does not run")
                                                   : "unknown: " + daemon.isRunning.reason);
    }
    lines.push_back({text + "  " + TimeText(static_cast<uint64_t>(m_now->time)), Color::kBold});
    const HealthState state = m_verdict.State();
    if (state == HealthState::kHealthy) {
        lines.push_back({"healthy", Color::kGreen});
    }
    constexpr size_t kShown = 4;
    for (size_t at = 0; at < std::min(kShown, m_verdict.faults.size()); ++at) {
        lines.push_back({"fault: " + m_verdict.faults[at].text, Color::kRed});
    }
    if (m_verdict.faults.size() > kShown) {
        lines.push_back(
            {std::to_string(m_verdict.faults.size() - kShown) + " more: tarnctl status names them",
             Color::kRed});
    }
    for (const HealthFinding& unknown : m_verdict.unknowns) {
        if (lines.size() < 2 * kShown) {
            lines.push_back({"unknown: " + unknown.text, Color::kYellow});
        }
    }
}

void TopView::AddRates(std::vector<TopLine>& lines) const {
    const double seconds = Seconds();
    const uint64_t losses = LossesIn(*m_now);
    const uint64_t former = m_before ? LossesIn(*m_before) : losses;
    const uint64_t lost = losses > former ? losses - former : 0;
    const auto rate = [seconds](uint64_t count) {
        return seconds > 0 ? Decimal(static_cast<double>(count) / seconds) : std::string("-");
    };
    lines.push_back({"reports/s " + rate(m_latestReports) + (m_hasMissed ? "+" : "") +
                         "  losses/s " + rate(lost) + "  losses " + std::to_string(losses),
                     lost > 0 ? Color::kRed : Color::kNone});
    const FifoHealth& fifo = m_now->alerts;
    lines.push_back(
        {"alert FIFO " +
             (fifo.unreadBytes.IsKnown() ? BytesText(*fifo.unreadBytes.value) + " unread"
                                         : std::string("unknown")) +
             "  read by " +
             (fifo.readers.IsKnown() ? HoldersText(*fifo.readers.value) : std::string("unknown")) +
             "  written by " +
             (fifo.writers.IsKnown() ? HoldersText(*fifo.writers.value) : std::string("unknown")),
         Color::kNone});
}

void TopView::AddRings(std::vector<TopLine>& lines, size_t width) const {
    constexpr size_t kLongBar = 30;
    const size_t bar = std::min(kLongBar, width / 4);
    const QueueHealth& queue = m_now->queue;
    for (size_t number = 0; number < queue.rings.size(); ++number) {
        const RingHealth& ring = queue.rings[number];
        const std::string name = "ring -" + std::to_string(number) + " ";
        if (!ring.usedBytes.IsKnown()) {
            lines.push_back({name + ring.usedBytes.reason, Color::kYellow});
            continue;
        }
        const double percent = PercentOf(*ring.usedBytes.value, *ring.sizeBytes.value);
        const bool isStuck = ring.motion.Is(RingMotion::kStuck);
        lines.push_back({name + Bar(percent, bar) + " " + Decimal(percent) + "% " +
                             (ring.motion.IsKnown() ? MotionWord(*ring.motion.value) : "") + ", " +
                             std::to_string(*ring.messages.value) + " waiting",
                         isStuck ? Color::kRed : Color::kNone});
    }
    lines.push_back(
        {"semaphore " + (queue.semaphore.IsKnown() ? std::to_string(*queue.semaphore.value)
                                                   : std::string("unknown")),
         Color::kNone});
}

void TopView::AddThreads(std::vector<TopLine>& lines) const {
    const auto& threads = m_now->daemon.threads.value;
    if (!threads) {
        return;
    }
    std::string text = "CPU";
    for (const ThreadHealth& thread : *threads) {
        const bool isMain = m_now->daemon.pid.Is(thread.number);
        text += std::string("  ") + (isMain ? "main " : "thread ") + std::to_string(thread.number) +
                " ";
        const ThreadHealth* former = nullptr;
        if (m_before && m_before->daemon.threads.IsKnown()) {
            for (const ThreadHealth& each : *m_before->daemon.threads.value) {
                former = each.number == thread.number ? &each : former;
            }
        }
        const double seconds = Seconds();
        text += former != nullptr && seconds > 0
                    ? Decimal(100 * (thread.cpuSeconds - former->cpuSeconds) / seconds) + "%"
                    : "-";
    }
    lines.push_back({text, Color::kNone});
}

void TopView::AddBusiest(std::vector<TopLine>& lines, size_t width) {
    const std::vector<Busiest::Entry> signatures = m_signatures.Top(kBusiest, m_now->time);
    const std::vector<Busiest::Entry> sources = m_sources.Top(kBusiest, m_now->time);
    lines.push_back({"", Color::kNone});
    if (width >= kTwoTables) {
        const size_t half = width / 2 - 1;
        lines.push_back(
            {Heading("signature", half) + "  " + Heading("source", half), Color::kBold});
        for (size_t row = 0; row < std::max(signatures.size(), sources.size()); ++row) {
            lines.push_back(
                {Row(signatures, row, half) + "  " + Row(sources, row, half), Color::kNone});
        }
        return;
    }
    lines.push_back({Heading("signature", width), Color::kBold});
    for (size_t row = 0; row < signatures.size(); ++row) {
        lines.push_back({Row(signatures, row, width), Color::kNone});
    }
    lines.push_back({Heading("source", width), Color::kBold});
    for (size_t row = 0; row < sources.size(); ++row) {
        lines.push_back({Row(sources, row, width), Color::kNone});
    }
}

std::vector<TopLine> TopView::Lines(size_t width, size_t height) {
    std::vector<TopLine> lines;
    if (!m_now) {
        return lines;
    }
    AddHead(lines);
    AddRates(lines);
    AddRings(lines, width);
    AddThreads(lines);
    AddBusiest(lines, width);
    lines.resize(std::min(lines.size(), height));
    for (TopLine& line : lines) {
        line.text = CutToWidth(line.text, width);
    }
    return lines;
}

}  // namespace tarnctl
