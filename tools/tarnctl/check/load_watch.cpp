#include "tarnctl/check/load_watch.h"

#include <algorithm>

#include "config/config.h"
#include "tarnctl/check/finding_kinds.h"
#include "tarnctl/check/watch_words.h"
#include "tarnctl/common/nearest_word.h"

namespace tarnctl {
namespace {

using Outcome = LineRead::Outcome;

// The text of a file as far as a finding shows it.
constexpr size_t kLongestText = 2000;

}  // namespace

FindingPlace LoadWatch::PlaceOf(const Place& place) const {
    const size_t at = std::min(place.at, place.line.text.size());
    FindingPlace result;
    result.file = m_file;
    result.line = place.line.number;
    result.column = at + 1;
    result.length = std::min(std::max<size_t>(place.length, 1),
                             std::max<size_t>(place.line.text.size() - at, 1));
    result.text = place.line.text.substr(0, std::max(kLongestText, at));
    return result;
}

Finding& LoadWatch::Add(const FindingKind& kind, const Place& place, std::string reason) {
    return m_findings.emplace_back(Finding{&kind, PlaceOf(place), std::move(reason), "", ""});
}

bool LoadWatch::OnFile(const char* path, int kind, int /*error*/) {
    const auto shown = m_shown.find(path);
    m_file = shown == m_shown.end() ? path : shown->second;
    m_inState = Config::s_stateFile == path;
    if (!m_inState && kind == Config::kMainFile) {
        for (auto& [name, seen] : m_settings) {
            seen.inState = true;
        }
    }
    return true;
}

void LoadWatch::OnLine(const LineRead& line) {
    // The state file is read once for each kind; what is wrong with a line is said once.
    const bool isOfThisKind = (line.name.rfind("se.", 0) == 0) == (line.kind == Config::kEventFile);
    if (m_inState && (line.name.empty() ? line.kind == Config::kEventFile : !isOfThisKind)) {
        return;
    }
    ++m_lines;
    const size_t length = line.text.size() - line.nameAt;
    if (line.outcome == Outcome::kMissingValue) {
        const bool isEmpty = line.text.substr(line.nameAt) == "\r";
        Finding& finding = Add(isEmpty ? kinds::kCarriageReturn : kinds::kMissingEquals,
                               {line, line.nameAt, length},
                               isEmpty ? "a line that holds only a carriage return is no empty "
                                         "line, so the daemon reports it and drops it"
                                       : "the line has no \"=\", so it is dropped");
        finding.suggestion = isEmpty ? "end lines with a line feed alone" : "";
        return;
    }
    if (line.outcome == Outcome::kMissingName) {
        Add(kinds::kMissingName, {line, line.nameAt, length},
            "nothing stands before the \"=\", so the line is dropped");
        return;
    }
    CheckCarriageReturn(line);
    if (line.kind == Config::kMainFile) {
        OnMainLine(line);
    } else {
        OnEventLine(line);
    }
}

void LoadWatch::CheckCarriageReturn(const LineRead& line) {
    if (line.value.empty() || line.value.back() != '\r') {
        return;
    }
    const size_t at = line.valueAt + line.value.size() - 1;
    Add(kinds::kCarriageReturn, {line, at, 1},
        line.isNumber ? "the line ends with a carriage return, which a number passes over"
                      : "the line ends with a carriage return, which becomes part of the value")
        .suggestion = "end lines with a line feed alone";
}

void LoadWatch::OnMainLine(const LineRead& line) {
    if (line.outcome == Outcome::kUnknownName) {
        OnUnknownMainKey(line);
        return;
    }
    if (line.isNumber) {
        CheckNumber(line);
    } else if (line.value.empty()) {
        Add(kinds::kEmptyValue, {line, line.nameAt, line.nameLength},
            "the value is empty, and an empty text is taken")
            .inForce = line.name + " = (empty)";
    }
    const Place place = {line, line.nameAt, line.nameLength};
    const auto [seen, isFirst] = m_settings.try_emplace(line.name, Seen{PlaceOf(place), m_inState});
    if (isFirst) {
        return;
    }
    const std::string former = "line " + std::to_string(seen->second.place.line);
    const std::string value =
        line.isNumber ? std::to_string(line.numberStored) : Quoted(line.value);
    if (seen->second.inState && !m_inState) {
        m_findings.push_back({&kinds::kStateOverruled, seen->second.place,
                              m_file + ":" + std::to_string(line.number) +
                                  " sets this key again and is read later, so it wins",
                              "", line.name + " = " + value});
    } else {
        Finding& finding = Add(kinds::kDuplicateKey, place,
                               "the key is given in " + former + " too; the last one wins");
        finding.inForce = line.name + " = " + value;
    }
    seen->second = {PlaceOf(place), m_inState};
}

void LoadWatch::CheckNumber(const LineRead& line) {
    std::string value = line.value;
    if (!value.empty() && value.back() == '\r') {
        value.pop_back();
    }
    const std::string inForce = line.name + " = " + std::to_string(line.numberStored);
    if (value.empty()) {
        Add(kinds::kEmptyValue, {line, line.nameAt, line.nameLength},
            "the value is empty, which reads as 0")
            .inForce = inForce;
        return;
    }
    if (line.numberEnd == 0) {
        Add(kinds::kNotANumber, {line, line.valueAt, value.size()},
            Quoted(value) + " is no number, so it reads as 0")
            .inForce = inForce;
        return;
    }
    if (line.numberEnd < value.size()) {
        Finding& finding = Add(kinds::kNumberTrailingText,
                               {line, line.valueAt + line.numberEnd, value.size() - line.numberEnd},
                               "the text after the number is passed over");
        finding.suggestion = value.substr(0, line.numberEnd);
        finding.inForce = inForce;
    }
    if (line.numberRead != line.numberStored) {
        Add(kinds::kNumberOutOfRange, {line, line.valueAt, line.numberEnd},
            "the number is out of range and becomes " + std::to_string(line.numberStored))
            .inForce = inForce;
    }
}

void LoadWatch::OnUnknownMainKey(const LineRead& line) {
    const Place place = {line, line.nameAt, line.nameLength};
    if (line.name.rfind("se.", 0) == 0) {
        Add(kinds::kWrongFile, place,
            "settings of signatures are read from the event file alone, so the line is dropped");
        return;
    }
    Finding& finding = Add(kinds::kUnknownKey, place,
                           "no key has the name " + Quoted(line.name) + ", so the line is dropped");
    finding.suggestion = NearestWord(line.name, Config::SettingNames());
    if (!finding.suggestion.empty()) {
        finding.inForce = finding.suggestion + " keeps its former value";
    }
}

void LoadWatch::FinishMain(int cpus) {
    const auto engine = m_settings.find("tarn.engine.cpu");
    const auto snort = m_settings.find("tarn.snort.cpu");
    const int engineCpu = Config::s_engineCpu;
    const int snortCpu = Config::s_snortCpu;
    for (const auto& [seen, cpu] : {std::pair(engine, engineCpu), std::pair(snort, snortCpu)}) {
        if (seen != m_settings.end() && cpu >= cpus) {
            m_findings.push_back({&kinds::kNoSuchCpu, seen->second.place,
                                  "this machine has the CPUs 0 to " + std::to_string(cpus - 1) +
                                      ", so the thread stays where it is",
                                  "", ""});
        }
    }
    // Neither key above 0 is what every sensor starts with, and one without a choice keeps.
    const bool shares = engineCpu == snortCpu || engineCpu == 0;
    if (Config::s_debugSingle != 0 || !shares || (engineCpu == 0 && snortCpu == 0)) {
        return;
    }
    const auto& cause = engine != m_settings.end() ? engine : snort;
    if (cause == m_settings.end()) {
        return;
    }
    m_findings.push_back({&kinds::kSameCpu, cause->second.place,
                          engineCpu == 0
                              ? "0 leaves the event thread on the CPU of the main thread"
                              : "the event thread is bound to the CPU of the main thread",
                          "tarn.engine.cpu = another CPU above 0",
                          "both threads run on CPU " + std::to_string(snortCpu)});
}

}  // namespace tarnctl
