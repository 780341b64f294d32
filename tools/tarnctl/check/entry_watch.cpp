// The part of LoadWatch that is about the lines of the event file and the names in them.

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

#include "tarnctl/check/finding_kinds.h"
#include "tarnctl/check/load_watch.h"
#include "tarnctl/check/watch_words.h"
#include "tarnctl/common/nearest_word.h"

namespace tarnctl {
namespace {

using Outcome = LineRead::Outcome;

constexpr char kDigits[] = "0123456789";
constexpr char kPrefix[] = "se.";

// The key that a name means whose id ends at `at`; empty where none is near.
std::string NearestKey(const std::string& name, size_t at) {
    const size_t begin = at < name.size() && name[at] == '.' ? at + 1 : at;
    return begin < name.size() ? NearestWord(name.substr(begin), EventKeyNames()) : "";
}

// The whole name that a misspelt one means; empty where none is near.
std::string NearestName(const std::string& name) {
    const size_t digits = name.find_first_of(kDigits);
    if (digits == std::string::npos) {
        return "";
    }
    const size_t end = std::min(name.find_first_not_of(kDigits, digits), name.size());
    std::string key = NearestKey(name, end);
    if (key.empty() && name.find('.', end) != std::string::npos) {
        key = NearestKey(name, name.find('.', end));
    }
    constexpr size_t kFarthestPrefix = 2;
    if (key.empty() || LettersApart(name.substr(0, digits), kPrefix) > kFarthestPrefix) {
        return "";
    }
    return kPrefix + name.substr(digits, end - digits) + "." + key;
}

// A suggestion to write what is there already is none.
std::string OtherThan(const std::string& name, std::string suggestion) {
    return suggestion == name ? "" : std::move(suggestion);
}

}  // namespace

void LoadWatch::Excuse(uint32_t id, int key) {
    m_excused.emplace_back(id, key);
}

bool LoadWatch::IsExcused(uint32_t id, int key) const {
    return std::find(m_excused.begin(), m_excused.end(), std::pair(id, key)) != m_excused.end();
}

void LoadWatch::OnEventLine(const LineRead& line) {
    if (line.outcome == Outcome::kUnknownName) {
        OnUnknownEventName(line);
        return;
    }
    if (line.outcome == Outcome::kRefused && (line.eventKey == kEventKeyNone || line.id == 0)) {
        OnRefusedEvent(line);
        return;
    }
    CheckEventName(line);
    if (line.outcome == Outcome::kRefused) {
        CheckSeverity(line);
        return;
    }
    TakeField(line);
}

void LoadWatch::OnUnknownEventName(const LineRead& line) {
    const Place place = {line, line.nameAt, line.nameLength};
    if (line.name.rfind("tarn.", 0) == 0) {
        Add(kinds::kWrongFile, place,
            "keys of the daemon are read from the main file alone, so the line is dropped");
        return;
    }
    Add(kinds::kUnknownKey, place, "the name does not begin with \"se.\", so the line is dropped")
        .suggestion = NearestName(line.name);
}

void LoadWatch::OnRefusedEvent(const LineRead& line) {
    const size_t idAt = sizeof kPrefix - 1;
    const size_t digitsEnd = std::min(line.name.find_first_not_of(kDigits, idAt), line.name.size());
    if (line.eventKey != kEventKeyNone) {
        const size_t keyAt = std::max(line.keyTrace.keyBegin, idAt);
        const std::string id = line.name.substr(idAt, keyAt - idAt);
        Add(kinds::kIdRefused, {line, line.nameAt + idAt, keyAt - idAt},
            "the id " + Quoted(id) + " is 0 or no number, so the line is dropped")
            .suggestion = OtherThan(line.name, NearestName(line.name));
        return;
    }
    const size_t keyAt =
        digitsEnd < line.name.size() && line.name[digitsEnd] == '.' ? digitsEnd + 1 : digitsEnd;
    const std::string name = NearestName(line.name);
    Finding& finding =
        Add(kinds::kUnknownMarker, {line, line.nameAt + keyAt, line.name.size() - keyAt},
            "no key of an entry stands in the name, so the line is dropped");
    const std::string key = NearestKey(line.name, digitsEnd);
    finding.suggestion = !key.empty() && digitsEnd > idAt && keyAt > digitsEnd ? key : name;
    const std::vector<std::string> keys = EventKeyNames();
    const auto nearest = std::find(keys.begin(), keys.end(), key);
    if (nearest != keys.end() && digitsEnd > idAt) {
        const auto id = static_cast<uint32_t>(
            std::strtol(line.name.substr(idAt, digitsEnd - idAt).c_str(), nullptr, 10));
        finding.inForce = EntryName(id) + " gets no " + key + " from this line";
        Excuse(id, static_cast<int>(nearest - keys.begin()) + kEventKeySeverity);
    }
}

void LoadWatch::CheckEventName(const LineRead& line) {
    const size_t idAt = sizeof kPrefix - 1;
    const EventKeyTrace& trace = line.keyTrace;
    const std::string_view name = line.name;
    const std::string_view id = name.substr(idAt, trace.idEnd - idAt);
    uint64_t number = 0;
    const auto [rest, error] = std::from_chars(id.data(), id.data() + id.size(), number);
    if (error != std::errc() || rest != id.data() + id.size() || number != line.id) {
        Add(kinds::kIdBent, {line, line.nameAt + idAt, id.size()},
            "an id has 32 bits and no sign, so this one becomes " + std::to_string(line.id))
            .inForce = "the line belongs to " + EntryName(line.id);
        return;
    }
    const bool isLong = trace.keyEnd < name.size();
    if (trace.keyBegin == trace.idEnd && !isLong) {
        return;
    }
    const size_t begin = trace.keyBegin == trace.idEnd ? trace.keyEnd : trace.idEnd;
    const size_t end = trace.keyBegin == trace.idEnd ? name.size() : trace.keyBegin;
    const std::string key = line.name.substr(trace.keyBegin + 1, trace.keyEnd - trace.keyBegin - 1);
    // What follows the id up to a dot belongs to the id, and everything else to the key.
    const bool isInId = begin == trace.idEnd && name[begin] != '.';
    Finding& finding = Add(
        isInId ? kinds::kIdBent : kinds::kKeyWithMoreText, {line, line.nameAt + begin, end - begin},
        isInId ? "the text after the number is passed over"
               : "a key is found anywhere in a name, so the rest of the name is passed over");
    const std::string nearest = isLong ? key : NearestKey(line.name, trace.idEnd);
    finding.suggestion = isInId            ? NearestName(line.name)
                         : nearest.empty() ? ""
                                           : std::string(kPrefix).append(id) + "." + nearest;
    finding.inForce = "the line is taken as " + Quoted(key) + " of " + EntryName(line.id);
}

void LoadWatch::TakeField(const LineRead& line) {
    if (m_entry.id != line.id) {
        m_entry = LoadedEntry{};
        m_entry.id = line.id;
        m_entry.place = PlaceOf({line, line.nameAt + 3, line.keyTrace.idEnd - 3});
    }
    const uint32_t bit = 1U << line.eventKey;
    if ((m_entry.keys & bit) != 0 && line.eventKey != kEventKeyQuarantineRule) {
        Add(kinds::kDuplicateKey, {line, line.nameAt, line.nameLength},
            "the entry has this key already; the last one wins")
            .inForce = line.name + " = " + line.value;
    }
    m_entry.keys |= bit;
    if (line.value.empty() || line.value == "\r") {
        Add(kinds::kEmptyValue, {line, line.nameAt, line.nameLength},
            line.eventKey == kEventKeyQuarantineRule
                ? "the value is empty, which makes a quarantine rule that never applies"
                : "the value is empty, and so is what it sets")
            .inForce =
            EntryName(line.id) + " has an empty " + line.name.substr(line.keyTrace.keyBegin + 1);
    }
    switch (line.eventKey) {
        case kEventKeySeverity:
            m_entry.severity = line.flags;
            CheckSeverity(line);
            break;
        case kEventKeyRule:
            m_entry.ruleText = line.value;
            break;
        case kEventKeyMessage:
            m_entry.name = line.value;
            break;
        case kEventKeyUserResponse:
            m_entry.userResponse = line.value;
            m_entry.userResponseFlags = line.flags;
            CheckUserResponse(line);
            break;
        case kEventKeyResponse:
            m_entry.responseFlags = line.flags;
            m_entry.responsePlace = PlaceOf({line, line.valueAt, line.value.size()});
            CheckResponse(line);
            break;
        default:
            m_entry.rules.push_back(
                {line.blockRule, PlaceOf({line, line.valueAt, line.value.size()}),
                 line.value.empty(), line.list.stop == ListTrace::Stop::kNowhere});
            CheckBlockRule(line);
            break;
    }
}

}  // namespace tarnctl
