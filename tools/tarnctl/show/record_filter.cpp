#include "tarnctl/show/record_filter.h"

#include <algorithm>
#include <charconv>
#include <ctime>

namespace tarnctl {
namespace {

constexpr size_t kNumbers = 65536;

bool IsAmong(const std::vector<uint32_t>& numbers, uint32_t number) {
    return numbers.empty() || std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

}  // namespace

RecordFilter::RecordFilter(const RecordQuery& query)
    : m_query(query), m_seen(query.IsEmpty() ? 0 : kNumbers) {}

bool RecordFilter::IsInTime(uint32_t second) const {
    return (!m_query.since || second >= *m_query.since) &&
           (!m_query.until || second < *m_query.until);
}

bool RecordFilter::IsWanted(const EventContent& event) const {
    const auto isNamed = [&event](const IpNetwork& network) {
        return Contains(network, event.source) || Contains(network, event.destination);
    };
    return IsAmong(m_query.signatures, event.signatureId) &&
           IsAmong(m_query.generators, event.generatorId) && IsInTime(event.second) &&
           (m_query.networks.empty() ||
            std::any_of(m_query.networks.begin(), m_query.networks.end(), isNamed));
}

bool RecordFilter::BelongsToShown(uint32_t eventId) const {
    const Seen& seen = m_seen[eventId % kNumbers];
    return seen.isShown && seen.eventId == eventId;
}

bool RecordFilter::Passes(const RecordContent& content) {
    if (m_query.IsEmpty()) {
        return true;
    }
    if (const auto* const event = std::get_if<EventContent>(&content)) {
        const bool isShown = IsWanted(*event);
        m_seen[event->eventId % kNumbers] = {event->eventId, isShown};
        return isShown;
    }
    if (const auto* const packet = std::get_if<PacketContent>(&content)) {
        return BelongsToShown(packet->eventId);
    }
    if (const auto* const extra = std::get_if<ExtraContent>(&content)) {
        return BelongsToShown(extra->eventId);
    }
    const auto* const statistics = std::get_if<StatisticsContent>(&content);
    return statistics != nullptr && m_query.signatures.empty() && m_query.generators.empty() &&
           m_query.networks.empty() && IsInTime(statistics->second);
}

std::optional<uint64_t> ParseTime(const std::string& text) {
    uint64_t seconds = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, fault] = std::from_chars(text.data(), end, seconds);
    if (fault == std::errc() && stop == end) {
        return seconds;
    }
    for (const char* const form : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M",
                                   "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S"}) {
        tm parts = {};
        const char* const rest = strptime(text.c_str(), form, &parts);
        if (rest != nullptr && *rest == '\0') {
            parts.tm_isdst = -1;
            const time_t time = mktime(&parts);
            return time == -1 ? std::nullopt : std::optional(static_cast<uint64_t>(time));
        }
    }
    return std::nullopt;
}

}  // namespace tarnctl
