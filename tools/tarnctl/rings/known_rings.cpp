#include "tarnctl/rings/known_rings.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <tuple>

#include "packet_log/packet_log_format.h"
#include "paths.h"
#include "ring/event_queue.h"
#include "tarnctl/rings/message_length.h"

namespace tarnctl {
namespace {

constexpr std::string_view kReportsName = "crm";
constexpr std::string_view kPacketsName = "packetlog";
constexpr int kUsualChannel = 2;  // the default of tarn.engine.crm
constexpr int kUsualPacketRing = 0;

std::string ReportsBase() {
    return std::string(tarn::paths::kEventQueueBase) + "CRM";
}

std::string PacketsPath(int number) {
    std::array<char, 128> path = {};
    std::snprintf(path.data(), path.size(), tarn::paths::kPacketLogRing, number);
    return path.data();
}

// A number without sign or blanks; nothing for any other text.
std::optional<int> NumberOf(std::string_view text) {
    int number = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isWhole = fault == std::errc() && end == text.data() + text.size();
    return isWhole && !text.starts_with('-') ? std::optional(number) : std::nullopt;
}

RingPlace ReportsRing(int channel, int half) {
    const char* const suffix = half == 0 ? kShmRingFirstSuffix : kShmRingSecondSuffix;
    RingPlace place;
    place.name = std::string(kReportsName) + std::to_string(channel) + suffix;
    place.path = ReportsBase() + std::to_string(channel) + suffix;
    place.kind = RingKind::kReports;
    place.number = channel;
    place.half = half;
    place.fileSize = half == 0 ? kEventQueueFirstRingSize : kEventQueueSecondRingSize;
    return place;
}

RingPlace PacketsRing(int number) {
    RingPlace place;
    place.name = std::string(kPacketsName) + std::to_string(number);
    place.path = PacketsPath(number);
    place.kind = RingKind::kPackets;
    place.number = number;
    place.fileSize = kPacketLogRingSize;
    return place;
}

// The channel and half of "CHANNEL-HALF".
std::optional<std::pair<int, int>> ChannelAndHalf(std::string_view text) {
    for (const int half : {0, 1}) {
        const std::string_view suffix = half == 0 ? kShmRingFirstSuffix : kShmRingSecondSuffix;
        if (text.ends_with(suffix)) {
            const auto channel = NumberOf(text.substr(0, text.size() - suffix.size()));
            return channel ? std::optional(std::pair(*channel, half)) : std::nullopt;
        }
    }
    return std::nullopt;
}

}  // namespace

RingPlace RingAt(const std::string& path) {
    const std::string base = ReportsBase();
    if (path.starts_with(base)) {
        if (const auto found = ChannelAndHalf(std::string_view(path).substr(base.size()))) {
            return ReportsRing(found->first, found->second);
        }
    }
    const std::string packets = PacketsPath(0);
    const size_t digits = packets.find_first_of("0123456789");
    if (path.starts_with(packets.substr(0, digits))) {
        const auto number = NumberOf(std::string_view(path).substr(digits));
        if (number && path == PacketsPath(*number)) {
            return PacketsRing(*number);
        }
    }
    RingPlace place;
    place.name = path;
    place.path = path;
    return place;
}

std::vector<RingPlace> RingsNamed(const std::string& word) {
    if (word.find('/') != std::string::npos) {
        return {RingAt(word)};
    }
    const std::string_view text = word;
    if (text.starts_with(kReportsName)) {
        const std::string_view rest = text.substr(kReportsName.size());
        if (const auto found = ChannelAndHalf(rest)) {
            return {ReportsRing(found->first, found->second)};
        }
        const auto channel = rest.empty() ? kUsualChannel : NumberOf(rest);
        if (channel) {
            return {ReportsRing(*channel, 0), ReportsRing(*channel, 1)};
        }
    } else if (text.starts_with(kPacketsName)) {
        const std::string_view rest = text.substr(kPacketsName.size());
        const auto number = rest.empty() ? kUsualPacketRing : NumberOf(rest);
        if (number) {
            return {PacketsRing(*number)};
        }
    }
    return {};
}

std::vector<RingPlace> RingsHere() {
    std::vector<RingPlace> places;
    for (const std::string& file : {ReportsBase(), PacketsPath(0)}) {
        std::error_code error;
        for (std::filesystem::directory_iterator
                 entry(std::filesystem::path(file).parent_path(), error),
             end;
             !error && entry != end; entry.increment(error)) {
            RingPlace place = RingAt(entry->path().string());
            if (place.kind != RingKind::kUnknown) {
                places.push_back(std::move(place));
            }
        }
    }
    std::sort(places.begin(), places.end(), [](const RingPlace& left, const RingPlace& right) {
        return std::tie(left.kind, left.number, left.half) <
               std::tie(right.kind, right.number, right.half);
    });
    return places;
}

MessageLength LengthFunction(RingKind kind) {
    switch (kind) {
        case RingKind::kReports:
            return ReportLength;
        case RingKind::kPackets:
            return PacketRecordLength;
        default:
            return nullptr;
    }
}

}  // namespace tarnctl
