// The part of LoadWatch that is about the value of a severity and of a user response.

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include "tarnctl/check/block_words.h"
#include "tarnctl/check/finding_kinds.h"
#include "tarnctl/check/load_watch.h"
#include "tarnctl/check/watch_words.h"
#include "tarnctl/common/nearest_word.h"

namespace tarnctl {
namespace {

using Outcome = LineRead::Outcome;

// The words that have a meaning in a user response, and the one that people write beside them.
const std::vector<std::string>& UserWords() {
    static const std::vector<std::string> words = {"DISPLAY", "LOGEVIDENCE", "WithRaw",
                                                   "WithoutRaw"};
    return words;
}

// The text is free, so a word counts as misspelt only where it is nearly one that has a meaning.
bool IsMisspelt(std::string_view word) {
    constexpr size_t kNear = 2;
    const std::vector<std::string>& words = UserWords();
    const bool isKnown = std::find(words.begin(), words.end(), word) != words.end() ||
                         word.find("WithRaw") != std::string_view::npos ||
                         word.find("LOGEVIDENCE") != std::string_view::npos;
    return !isKnown && std::any_of(words.begin(), words.end(), [word](const std::string& known) {
        return LettersApart(word, known) <= kNear;
    });
}

bool IsWordLetter(char letter) {
    return std::isalnum(static_cast<unsigned char>(letter)) != 0;
}

}  // namespace

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
    static const std::vector<std::string> words = SeverityWords();
    if (line.outcome == Outcome::kRefused) {
        Finding& finding = Add(kinds::kSeverityUnknown, {line, line.valueAt, value.size()},
                               Quoted(value) + " is no severity, so the line is dropped");
        finding.suggestion = NearestWord(value, words);
        finding.inForce =
            EntryName(line.id) + " keeps the severity that it has, low if it has none";
        Excuse(line.id, kEventKeySeverity);
        return;
    }
    const std::string& word = words.at(line.flags - kSeverityLow);
    if (strcasecmp(value.c_str(), word.c_str()) != 0) {
        Finding& finding = Add(kinds::kSeverityWithMoreText,
                               {line, line.valueAt + word.size(), value.size() - word.size()},
                               "only the beginning of a severity is read");
        finding.suggestion = word;
        finding.inForce = EntryName(line.id) + " has the severity " + word;
    }
}

void LoadWatch::CheckUserResponse(const LineRead& line) {
    CheckEvidenceScope(line);
    const std::string& value = line.value;
    const auto isEnd = [](char letter) { return !IsWordLetter(letter); };
    for (auto begin = value.begin(); begin != value.end();) {
        begin = std::find_if(begin, value.end(), IsWordLetter);
        const auto end = std::find_if(begin, value.end(), isEnd);
        const std::string_view word(begin, end);
        if (!word.empty() && IsMisspelt(word)) {
            const auto at = static_cast<size_t>(begin - value.begin());
            Finding& finding =
                Add(kinds::kUserResponseWord, {line, line.valueAt + at, word.size()},
                    Quoted(std::string(word)) + " has no meaning to the daemon; case counts");
            finding.suggestion = NearestWord(word, UserWords());
            finding.inForce = EntryName(line.id) + ": " + UserResponseInWords(line.flags);
        }
        begin = end;
    }
}

void LoadWatch::CheckEvidenceScope(const LineRead& line) {
    constexpr uint32_t kScopes =
        kUserResponseLogConnection | kUserResponseLogInterface | kUserResponseLogAllInterfaces;
    if ((line.flags & kScopes) == 0) {
        return;
    }
    size_t at = line.value.size();
    size_t length = 0;
    for (const std::string_view scope : {"Connection", "AllInterfaces", "Interface"}) {
        const size_t found = line.value.find(scope);
        if (found < at) {
            at = found;
            length = scope.size();
        }
    }
    Finding& finding =
        Add(kinds::kEvidenceScope, {line, line.valueAt + at, length},
            "a word of scope beside \"LOGEVIDENCE\" switches the logging of packets off");
    finding.suggestion = "LOGEVIDENCE without a word of scope";
    finding.inForce = EntryName(line.id) + " logs no packets";
}

}  // namespace tarnctl
