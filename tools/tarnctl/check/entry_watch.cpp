// The part of LoadWatch that is about entries of the event file.

#include <algorithm>
#include <cctype>
#include <limits>

#include "config/config.h"
#include "ring/event_queue.h"
#include "tarnctl/check/block_words.h"
#include "tarnctl/check/finding_kinds.h"
#include "tarnctl/check/load_watch.h"
#include "tarnctl/common/nearest_word.h"

namespace tarnctl {
namespace {

using Outcome = LineRead::Outcome;

constexpr char kDigits[] = "0123456789";
constexpr char kPrefix[] = "se.";

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

// The key that a name means whose id ends at `at`; empty where none is near.
std::string NearestKey(const std::string& name, std::size_t at) {
    const std::size_t begin = at < name.size() && name[at] == '.' ? at + 1 : at;
    return begin < name.size() ? NearestWord(name.substr(begin), EventKeyNames()) : "";
}

// The whole name that a misspelt one means; empty where none is near.
std::string NearestName(const std::string& name) {
    const std::size_t digits = name.find_first_of(kDigits);
    if (digits == std::string::npos) {
        return "";
    }
    const std::size_t end = std::min(name.find_first_not_of(kDigits, digits), name.size());
    std::string key = NearestKey(name, end);
    if (key.empty() && name.find('.', end) != std::string::npos) {
        key = NearestKey(name, name.find('.', end));
    }
    constexpr std::size_t kFarthestPrefix = 2;
    if (key.empty() || LettersApart(name.substr(0, digits), kPrefix) > kFarthestPrefix) {
        return "";
    }
    return kPrefix + name.substr(digits, end - digits) + "." + key;
}

std::string EntryName(uint32_t id) {
    return "entry " + std::to_string(id);
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
    const std::size_t idAt = sizeof kPrefix - 1;
    const std::size_t digitsEnd =
        std::min(line.name.find_first_not_of(kDigits, idAt), line.name.size());
    if (line.eventKey != kEventKeyNone) {
        const std::size_t keyAt = std::max(line.keyTrace.keyBegin, idAt);
        const std::string id = line.name.substr(idAt, keyAt - idAt);
        Add(kinds::kIdRefused, {line, line.nameAt + idAt, keyAt - idAt},
            "the id " + Quoted(id) + " is 0 or no number, so the line is dropped")
            .suggestion = NearestName(line.name);
        return;
    }
    const std::size_t keyAt =
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
    const std::size_t idAt = sizeof kPrefix - 1;
    const EventKeyTrace& trace = line.keyTrace;
    const std::string id = line.name.substr(idAt, trace.idEnd - idAt);
    const bool isPlain = id.find_first_not_of(kDigits) == std::string::npos;
    const std::string inForce = "the line belongs to " + EntryName(line.id);
    if (!isPlain || id.size() > 10 || std::stoull(id) != line.id) {
        Add(kinds::kIdBent, {line, line.nameAt + idAt, id.size()},
            "an id has 32 bits and no sign, so this one becomes " + std::to_string(line.id))
            .inForce = inForce;
        return;
    }
    const bool isLong = trace.keyEnd < line.name.size();
    if (trace.keyBegin == trace.idEnd && !isLong) {
        return;
    }
    const std::size_t begin = trace.keyBegin == trace.idEnd ? trace.keyEnd : trace.idEnd;
    const std::size_t end = trace.keyBegin == trace.idEnd ? line.name.size() : trace.keyBegin;
    const std::string key = line.name.substr(trace.keyBegin + 1, trace.keyEnd - trace.keyBegin - 1);
    // What follows the id up to a dot belongs to the id, and everything else to the key.
    const bool isInId = begin == trace.idEnd && line.name[begin] != '.';
    Finding& finding = Add(
        isInId ? kinds::kIdBent : kinds::kKeyWithMoreText, {line, line.nameAt + begin, end - begin},
        isInId ? "the text after the number is passed over"
               : "a key is found anywhere in a name, so the rest of the name is passed over");
    const std::string nearest = isLong ? key : NearestKey(line.name, trace.idEnd);
    finding.suggestion = isInId            ? NearestName(line.name)
                         : nearest.empty() ? ""
                                           : kPrefix + id + "." + nearest;
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

void LoadWatch::CheckSeverity(const LineRead& line) {
    std::string value = line.value;
    if (!value.empty() && value.back() == '\r') {
        value.pop_back();
    }
    if (value.empty()) {
        if (line.outcome == Outcome::kRefused) {
            Add(kinds::kEmptyValue, {line, line.nameAt, line.nameLength},
                "the value is empty, so the line is dropped");
            Excuse(line.id, kEventKeySeverity);
        }
        return;
    }
    std::string lower = value;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    static const std::vector<std::string> words = SeverityWords();
    if (line.outcome == Outcome::kRefused) {
        Finding& finding = Add(kinds::kSeverityUnknown, {line, line.valueAt, value.size()},
                               Quoted(value) + " is no severity, so the line is dropped");
        finding.suggestion = NearestWord(lower, words);
        finding.inForce =
            EntryName(line.id) + " keeps the severity that it has, low if it has none";
        Excuse(line.id, kEventKeySeverity);
        return;
    }
    const std::string& word = words.at(line.flags - kSeverityLow);
    if (lower != word) {
        Finding& finding = Add(kinds::kSeverityWithMoreText,
                               {line, line.valueAt + word.size(), value.size() - word.size()},
                               "only the beginning of a severity is read");
        finding.suggestion = word;
        finding.inForce = EntryName(line.id) + " has the severity " + word;
    }
}

void LoadWatch::CheckUserResponse(const LineRead& line) {
    constexpr uint32_t kScopes =
        kUserResponseLogConnection | kUserResponseLogInterface | kUserResponseLogAllInterfaces;
    if ((line.flags & kScopes) != 0) {
        std::size_t at = line.value.size();
        std::size_t length = 0;
        for (const char* scope : {"Connection", "AllInterfaces", "Interface"}) {
            const std::size_t found = line.value.find(scope);
            if (found < at) {
                at = found;
                length = std::string(scope).size();
            }
        }
        Finding& finding =
            Add(kinds::kEvidenceScope, {line, line.valueAt + at, length},
                "a word of scope beside \"LOGEVIDENCE\" switches the logging of packets off");
        finding.suggestion = "LOGEVIDENCE without a word of scope";
        finding.inForce = EntryName(line.id) + " logs no packets";
    }
    // The text is free, so a word counts as misspelt only where it is nearly one that has a
    // meaning.
    static const std::vector<std::string> words = {"DISPLAY", "LOGEVIDENCE", "WithRaw",
                                                   "WithoutRaw"};
    const std::string& value = line.value;
    const auto isLetter = [](char letter) {
        return std::isalnum(static_cast<unsigned char>(letter)) != 0;
    };
    for (std::size_t begin = 0; begin < value.size();) {
        if (!isLetter(value[begin])) {
            ++begin;
            continue;
        }
        std::size_t end = begin;
        while (end < value.size() && isLetter(value[end])) {
            ++end;
        }
        const std::string word = value.substr(begin, end - begin);
        const bool isKnown = std::find(words.begin(), words.end(), word) != words.end() ||
                             word.find("WithRaw") != std::string::npos ||
                             word.find("LOGEVIDENCE") != std::string::npos;
        const auto isNear = [&word](const std::string& known) {
            constexpr std::size_t kNear = 2;
            return LettersApart(word, known) <= kNear;
        };
        if (!isKnown && std::any_of(words.begin(), words.end(), isNear)) {
            Finding& finding =
                Add(kinds::kUserResponseWord, {line, line.valueAt + begin, end - begin},
                    Quoted(word) + " has no meaning to the daemon; case counts");
            finding.suggestion = NearestWord(word, words);
            finding.inForce = EntryName(line.id) + ": " + UserResponseInWords(line.flags);
        }
        begin = end;
    }
}

void LoadWatch::CheckListEnd(const LineRead& line, const FindingKind& kind) {
    using Stop = ListTrace::Stop;
    const ListTrace& list = line.list;
    if (list.hasTrailingComma) {
        const std::size_t comma = line.value.find_last_of(',');
        Add(kinds::kTrailingComma, {line, line.valueAt + comma, 1},
            "nothing follows the comma; the list is taken as it is");
    }
    // A carriage return has its own finding, which says all of it.
    const bool isReturn = line.value.compare(std::min(list.stoppedAt, line.value.size()),
                                             std::string::npos, "\r") == 0;
    if (list.stop == Stop::kNowhere || isReturn || line.value == "none\r") {
        return;
    }
    const std::vector<std::string> words =
        line.eventKey == kEventKeyResponse ? ResponseWords() : BlockRuleWords();
    // A word that goes on after a shorter word that is known is shown as a whole.
    std::size_t begin = list.stoppedAt;
    const bool goesOn = list.stop == Stop::kNoComma && !list.entries.empty() &&
                        list.entries.back().end == begin &&
                        list.entries.back().item == ListTrace::Item::kWord;
    if (goesOn || ((list.stop == Stop::kNoColon) && begin > 0 &&
                   std::isalpha(static_cast<unsigned char>(line.value[begin - 1])) != 0 &&
                   begin < line.value.size() && line.value[begin] != ' ')) {
        begin = line.value.find_last_of(" \t,", begin - 1);
        begin = begin == std::string::npos ? 0 : begin + 1;
    }
    const std::size_t end = std::min(line.value.find_first_of(" \t,:\r", begin), line.value.size());
    const std::string word = line.value.substr(begin, end - begin);
    std::string reason;
    std::string suggestion;
    switch (list.stop) {
        case Stop::kNoColon:
            reason = "a \":\" and a number are missing";
            suggestion = NearestWord(word, words);
            suggestion += suggestion.empty() ? "" : ": 600";
            break;
        case Stop::kNoNumber:
            reason = "a number is missing after the \":\"";
            break;
        case Stop::kTextAfterNumber:
            reason = "the number counts, but the text after it is none";
            suggestion = SecondsFor(list.entries.back(), word);
            break;
        default:
            reason = word.empty() || (list.stop == Stop::kNoComma && !goesOn)
                         ? "a comma is missing between two words"
                         : Quoted(word) + " is no word of this list";
            suggestion = NearestWord(word, words);
            break;
    }
    const bool isLast = line.value.find(',', begin) == std::string::npos;
    Finding& finding =
        Add(kind, {line, line.valueAt + begin, std::max<std::size_t>(end - begin, 1)},
            reason + (isLast ? "; the reading ends here"
                             : "; the reading ends here, and what follows is not taken"));
    finding.suggestion = std::move(suggestion);
    finding.inForce = EntryName(line.id) + ": " +
                      (line.eventKey == kEventKeyResponse ? ResponseInWords(line.flags)
                                                          : BlockRuleInWords(line.blockRule));
}

void LoadWatch::CheckResponse(const LineRead& line) {
    CheckListEnd(line, kinds::kResponseStopped);
}

void LoadWatch::CheckListNumbers(const LineRead& line) {
    for (const ListTrace::Entry& entry : line.list.entries) {
        if (entry.item == ListTrace::Item::kWord) {
            continue;
        }
        const bool isDuration = entry.item == ListTrace::Item::kDuration;
        const Place place = {line, line.valueAt + entry.numberBegin, entry.end - entry.numberBegin};
        const std::string inForce = EntryName(line.id) + ": " + BlockRuleInWords(line.blockRule);
        if (entry.numberBegin == entry.end) {
            if (line.list.stop != ListTrace::Stop::kTextAfterNumber ||
                &entry != &line.list.entries.back()) {
                Add(kinds::kNotANumber, place, "a number is missing, which reads as 0").inForce =
                    inForce;
            }
            continue;
        }
        // Beyond this many seconds an end cannot be written, or lies after every machine's.
        constexpr uint64_t kLongestDuration = 100ULL * 366 * 24 * 3600;
        constexpr uint64_t kHighestRate = std::numeric_limits<uint32_t>::max();
        const bool isNegative = line.value[entry.numberBegin] == '-';
        if (isNegative || entry.number > (isDuration ? kLongestDuration : kHighestRate)) {
            Add(kinds::kNumberOutOfRange, place,
                isDuration ? "the duration is longer than a century"
                           : "a rate limit has 32 bits; what is above them is cut off")
                .inForce = inForce;
        }
    }
}

void LoadWatch::CheckBlockRule(const LineRead& line) {
    for (const ListTrace::Entry& entry : line.list.entries) {
        if (entry.erasedFlags != 0) {
            const std::string word = line.value.substr(entry.begin, entry.end - entry.begin);
            Finding& finding = Add(
                kinds::kWordsErased, {line, line.valueAt + entry.begin, entry.end - entry.begin},
                Quoted(word) +
                    " takes away what stands before it: " + BlockFlagsInWords(entry.erasedFlags));
            finding.suggestion = word + " first, then what refines it";
            finding.inForce = EntryName(line.id) + ": " + BlockRuleInWords(line.blockRule);
        }
    }
    CheckListNumbers(line);
    CheckListEnd(line, kinds::kQuarantineStopped);
}

void LoadWatch::OnEntryClosed(uint32_t id, bool entered) {
    if (m_entry.id != id) {
        return;  // a refused entry that is still pending has had its finding
    }
    if (!entered) {
        const FindingPlace& first = m_entries[m_entered[id]].place;
        const std::string& file = first.file;
        const uint32_t line = first.line;
        m_findings.push_back(
            {&kinds::kSecondBlock, m_entry.place,
             "the lines of " + EntryName(id) + " in " + file + ":" + std::to_string(line) +
                 " were closed by another id and win, so this block is dropped",
             "put all lines of one id together",
             EntryName(id) + " as " + file + ":" + std::to_string(line) + " gives it"});
    } else {
        CheckEntry(m_entry);
        m_entered.emplace(id, m_entries.size());
        m_entries.push_back(std::move(m_entry));
    }
    m_entry = LoadedEntry{};
    std::erase_if(m_excused, [id](const auto& excused) { return excused.first == id; });
}

void LoadWatch::CheckEntry(const LoadedEntry& entry) {
    const auto add = [&](const FindingKind& kind, std::string reason, std::string inForce) {
        m_findings.push_back({&kind, entry.place, std::move(reason), "", std::move(inForce)});
    };
    if (!entry.Has(kEventKeyMessage) && !IsExcused(entry.id, kEventKeyMessage)) {
        add(kinds::kEntryWithoutName, EntryName(entry.id) + " has no msg",
            "its reports have an empty name");
    }
    if (!entry.Has(kEventKeySeverity) && !IsExcused(entry.id, kEventKeySeverity)) {
        add(kinds::kEntryWithoutSeverity, EntryName(entry.id) + " has no severity",
            "its reports have the severity low");
    }
    // A report whose fixed parts and texts exceed the ring is refused, however empty the ring is.
    constexpr std::size_t kLargestPacket = 65536;
    constexpr std::size_t kRest = 4096;
    constexpr std::size_t kRoom = kEventQueueFirstRingSize - kLargestPacket - kRest;
    if (entry.name.size() + entry.userResponse.size() + entry.ruleText.size() > kRoom) {
        add(kinds::kTextTooLong,
            "name, user response and rule are together longer than the event queue takes",
            "its reports are never sent");
    }
    CheckRules(entry);
}

void LoadWatch::CheckRules(const LoadedEntry& entry) {
    const auto add = [&](const FindingKind& kind, const FindingPlace& place, std::string reason,
                         std::string inForce) {
        m_findings.push_back({&kind, place, std::move(reason), "", std::move(inForce)});
    };
    if (entry.rules.empty()) {
        if (entry.responseFlags != 0 && !IsExcused(entry.id, kEventKeyQuarantineRule)) {
            add(kinds::kResponseWithoutRules, entry.responsePlace,
                EntryName(entry.id) + " has a response and no quarantine.rule",
                "nothing is blocked");
        }
        return;
    }
    if (!entry.Has(kEventKeyResponse)) {
        if (!IsExcused(entry.id, kEventKeyResponse)) {
            add(kinds::kEntryWithoutResponse, entry.place,
                EntryName(entry.id) + " has a quarantine.rule and no response",
                "nothing is blocked");
        }
    } else if (entry.responseFlags == 0 &&
               entry.responsePlace.text.find("none") != std::string::npos) {
        add(kinds::kRulesSwitchedOff, entry.responsePlace,
            "the response is none, so no quarantine.rule of " + EntryName(entry.id) + " applies",
            "nothing is blocked");
    }
    for (const LoadedRule& rule : entry.rules) {
        const Applies applies = AppliesTo(rule.rule.flags);
        if (!applies.toIcmp && !applies.toOthers) {
            if (!rule.isEmpty && rule.isComplete) {
                add(kinds::kRuleNeverApplies, rule.place,
                    "the rule names no address, no port and no field of ICMP",
                    "it applies to no protocol");
            }
            continue;
        }
        if (rule.rule.duration == 0 && rule.isComplete) {
            const bool isGiven = rule.place.text.find("duration") != std::string::npos;
            add(isGiven ? kinds::kDurationZero : kinds::kDurationMissing, rule.place,
                isGiven ? "a duration of 0 counts as none" : "the rule has no duration",
                "it blocks for 3600 seconds");
        }
    }
}

}  // namespace tarnctl
