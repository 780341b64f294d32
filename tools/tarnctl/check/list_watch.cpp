// The part of LoadWatch that is about the lists of words in responses and quarantine rules.

#include <algorithm>
#include <cctype>
#include <limits>

#include "tarnctl/check/block_words.h"
#include "tarnctl/check/finding_kinds.h"
#include "tarnctl/check/load_watch.h"
#include "tarnctl/check/watch_words.h"
#include "tarnctl/common/nearest_word.h"

namespace tarnctl {
namespace {

using Stop = ListTrace::Stop;

constexpr const char* kNone = "none";  // of a response, and only alone

// The word at which the reading of a list has stopped.
struct StoppedWord {
    size_t begin = 0;  // in the value
    std::string text;
    bool goesOn = false;  // it begins with a shorter word that is known
};

bool IsLetter(char letter) {
    return std::isalpha(static_cast<unsigned char>(letter)) != 0;
}

StoppedWord StoppedWordOf(const LineRead& line) {
    const std::string& value = line.value;
    const ListTrace& list = line.list;
    StoppedWord word;
    word.begin = list.stoppedAt;
    word.goesOn = list.stop == Stop::kNoComma && !list.entries.empty() &&
                  list.entries.back().end == word.begin &&
                  list.entries.back().item == ListTrace::Item::kWord;
    const bool isLongName = list.stop == Stop::kNoColon && word.begin > 0 &&
                            IsLetter(value[word.begin - 1]) && word.begin < value.size() &&
                            value[word.begin] != ' ';
    // A word that goes on after a shorter word that is known is shown as a whole.
    if (word.goesOn || isLongName) {
        const size_t before = value.find_last_of(" \t,", word.begin - 1);
        word.begin = before == std::string::npos ? 0 : before + 1;
    }
    const size_t end = std::min(value.find_first_of(" \t,:\r", word.begin), value.size());
    word.text = value.substr(word.begin, end - word.begin);
    return word;
}

std::string ReasonOf(const LineRead& line, const StoppedWord& word) {
    const ListTrace& list = line.list;
    switch (list.stop) {
        case Stop::kNoColon:
            return "a \":\" and a number are missing";
        case Stop::kNoNumber:
            return "a number is missing after the \":\"";
        case Stop::kTextAfterNumber:
            return "the number counts, but the text after it is none";
        default:
            if (line.eventKey == kEventKeyResponse && word.text == kNone) {
                return Quoted(word.text) + " counts only where it stands alone";
            }
            return word.text.empty() || (list.stop == Stop::kNoComma && !word.goesOn)
                       ? "a comma is missing between two words"
                       : Quoted(word.text) + " is no word of this list";
    }
}

std::string SuggestionFor(const LineRead& line, const StoppedWord& word) {
    if (line.list.stop == Stop::kNoNumber) {
        return "";
    }
    if (line.list.stop == Stop::kTextAfterNumber) {
        return SecondsFor(line.list.entries.back(), word.text);
    }
    std::string nearest = NearestWord(
        word.text, line.eventKey == kEventKeyResponse ? ResponseWords() : BlockRuleWords());
    if (nearest == word.text) {
        return "";
    }
    if (line.list.stop == Stop::kNoColon && !nearest.empty()) {
        nearest += ": 600";
    }
    return nearest;
}

}  // namespace

void LoadWatch::CheckListEnd(const LineRead& line, const FindingKind& kind) {
    const ListTrace& list = line.list;
    if (list.hasTrailingComma) {
        const size_t comma = line.value.find_last_of(',');
        Add(kinds::kTrailingComma, {line, line.valueAt + comma, 1},
            "nothing follows the comma; the list is taken as it is");
    }
    if (list.stop == Stop::kNowhere) {
        return;
    }
    // A carriage return has its own finding, which says all of it.
    const bool isReturn = line.value.compare(std::min(list.stoppedAt, line.value.size()),
                                             std::string::npos, "\r") == 0;
    if (isReturn || line.value == "none\r") {
        return;
    }
    const StoppedWord word = StoppedWordOf(line);
    const bool isLast = line.value.find(',', word.begin) == std::string::npos;
    Finding& finding = Add(
        kind, {line, line.valueAt + word.begin, std::max<size_t>(word.text.size(), 1)},
        ReasonOf(line, word) + (isLast ? "; the reading ends here"
                                       : "; the reading ends here, and what follows is not taken"));
    finding.suggestion = SuggestionFor(line, word);
    finding.inForce = EntryName(line.id) + ": " +
                      (line.eventKey == kEventKeyResponse ? ResponseInWords(line.flags)
                                                          : BlockRuleInWords(line.blockRule));
}

void LoadWatch::CheckResponse(const LineRead& line) {
    CheckListEnd(line, kinds::kResponseStopped);
}

void LoadWatch::CheckListNumbers(const LineRead& line) {
    // Beyond this many seconds an end cannot be written, or lies after every machine's.
    constexpr uint64_t kLongestDuration = 100ULL * 366 * 24 * 3600;
    constexpr uint64_t kHighestRate = std::numeric_limits<uint32_t>::max();
    const auto inForce = [&line] {
        return EntryName(line.id) + ": " + BlockRuleInWords(line.blockRule);
    };
    for (const ListTrace::Entry& entry : line.list.entries) {
        if (entry.item == ListTrace::Item::kWord) {
            continue;
        }
        const bool isDuration = entry.item == ListTrace::Item::kDuration;
        const Place place = {line, line.valueAt + entry.numberBegin, entry.end - entry.numberBegin};
        if (entry.numberBegin == entry.end) {
            if (line.list.stop != ListTrace::Stop::kTextAfterNumber ||
                &entry != &line.list.entries.back()) {
                Add(kinds::kNotANumber, place, "a number is missing, which reads as 0").inForce =
                    inForce();
            }
            continue;
        }
        const bool isNegative = line.value[entry.numberBegin] == '-';
        if (isNegative || entry.number > (isDuration ? kLongestDuration : kHighestRate)) {
            Add(kinds::kNumberOutOfRange, place,
                isDuration ? "the duration is longer than a century"
                           : "a rate limit has 32 bits; what is above them is cut off")
                .inForce = inForce();
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

}  // namespace tarnctl
