#include "config/config.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string_view>

#include "config/event_rule_parser.h"
#include "config/event_rule_table.h"
#include "config/load_observer.h"
#include "logging/log.h"

using vald::Log;

EventRuleTable& Config::s_eventTable = *new EventRuleTable;

namespace {

// Deliberate: no other character is stripped, so a carriage return stays in the value.
constexpr char kBlanks[] = " \t";

std::string_view StripLeft(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text;
}

std::string_view StripRight(std::string_view text) {
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

struct Setting;

// What becomes of a number that is written in a file as `text`.
using Rule = int (*)(int number, const Setting& setting, const char* text);

// One key. Exactly one of `number` and `string` is set; a string is kept unchanged.
struct Setting {
    const char* name;
    std::atomic<int>* number;
    Rule rule;
    std::string* string;
};

int Kept(int number, const Setting&, const char*) {
    return number;
}

int NotNegative(int number, const Setting&, const char*) {
    return number < 0 ? 0 : number;
}

template <int kFallback>
int PositiveOr(int number, const Setting&, const char*) {
    return number <= 0 ? kFallback : number;
}

// One above the highest level that any message has means the same as that level.
int LogLevel(int number, const Setting&, const char*) {
    constexpr int kAboveAll = Log::kDebug + 1;
    return number <= 0 ? 0 : number > Log::kDebug ? kAboveAll : number;
}

// Deliberate: the comparison is unsigned, so a negative number lands at the top of the range: who
// asks for no timeout gets the longest one.
int EvidenceTimeout(int number, const Setting& setting, const char* text) {
    constexpr int kShortestMinutes = 5;
    constexpr int kLongestMinutes = 30;
    const auto minutes = static_cast<unsigned>(number);
    if (minutes < kShortestMinutes) {
        Log::Notice("Tuning parameter: '%s = %s' is out of range (5-30), setting it to 5 minutes.",
                    setting.name, text);
        return kShortestMinutes;
    }
    if (minutes > kLongestMinutes) {
        Log::Notice("Tuning parameter: '%s = %s' is out of range (5-30), setting it to 30 minutes.",
                    setting.name, text);
        return kLongestMinutes;
    }
    return number;
}

constexpr Setting Number(const char* name, std::atomic<int>& member, Rule rule) {
    return {name, &member, rule, nullptr};
}

constexpr Setting String(const char* name, std::string& member) {
    return {name, nullptr, nullptr, &member};
}

// Every key, in the order in which they are dumped.
// Deliberate: tarn.log.maxfiles falls back to 3 although it starts at 5. A sensor that is
// configured to keep no log files is short of space, so it gets fewer than one without the key.
constexpr Setting kSettings[] = {
    Number("tarn.log.level", Config::s_logLevel, LogLevel),
    String("tarn.log.file", Config::s_logFile),
    Number("tarn.log.maxfiles", Config::s_logMaxFiles, PositiveOr<3>),
    Number("tarn.log.maxfilesize", Config::s_logMaxFileSize, PositiveOr<2097152>),
    Number("tarn.snort.cpu", Config::s_snortCpu, NotNegative),
    Number("tarn.engine.cpu", Config::s_engineCpu, NotNegative),
    Number("tarn.engine.crm", Config::s_engineCrm, PositiveOr<2>),
    Number("tarn.debug.single", Config::s_debugSingle, NotNegative),
    String("tarn.evidencelog.fileformat", Config::s_evidenceFileFormat),
    Number("tarn.evidencelog.maxfiles", Config::s_evidenceMaxFiles, Kept),
    Number("tarn.evidencelog.maxkbytes", Config::s_evidenceMaxKBytes, Kept),
    Number("tarn.evidencelog.packetcount", Config::s_evidencePacketCount, Kept),
    Number("tarn.evidencelog.file.timeout", Config::s_evidenceFileTimeout, EvidenceTimeout),
    Number("tarn.evidencelog.bufferctrlsize", Config::s_evidenceBufferCtrlSize, Kept),
    Number("tarn.evidencelog.suppress", Config::s_evidenceSuppress, Kept),
};

// What the observer is to learn of the line that is being read; null without an observer.
LineRead* s_reading = nullptr;

void NoteOutcome(LineRead::Outcome outcome) {
    if (s_reading != nullptr) {
        s_reading->outcome = outcome;
    }
}

void Apply(const Setting& setting, const std::string& value) {
    if (setting.string != nullptr) {
        *setting.string = value;
        return;
    }
    char* end = nullptr;
    const long wide = std::strtol(value.c_str(), &end, 10);
    const int number = setting.rule(static_cast<int>(wide), setting, value.c_str());
    setting.number->store(number, std::memory_order_relaxed);
    if (s_reading != nullptr) {
        s_reading->isNumber = true;
        s_reading->numberRead = wide;
        s_reading->numberEnd = static_cast<size_t>(end - value.c_str());
        s_reading->numberStored = number;
    }
}

// `read` keeps its memory from line to line.
void ParseObservedLine(const std::string& line, int kind, uint32_t number, LineRead& read) {
    read.Begin(line, kind, number);
    s_reading = &read;
    Config::ParseLine(line, kind);
    s_reading = nullptr;
    if (read.outcome != LineRead::Outcome::kBlank) {
        Config::s_observer->OnLine(read);
    }
}

// Passes each line of a file to Config::ParseLine; false if the file cannot be opened.
// Deliberate: write access is asked for although nothing is written, so that a file which its
// owner has made read-only is out of use.
bool ParseFile(const char* path, int kind) {
    std::fstream file(path, std::ios::in | std::ios::out);
    if (Config::s_observer != nullptr) {
        const int error = file ? 0 : errno;
        if (Config::s_observer->OnFile(path, kind, error) && error != 0) {
            file.open(path, std::ios::in);
        }
    }
    if (!file) {
        return false;
    }
    LineRead read;  // for the observer
    std::string line;
    for (uint32_t number = 1; std::getline(file, line); ++number) {
        if (Config::s_observer != nullptr) {
            ParseObservedLine(line, kind, number, read);
        } else {
            Config::ParseLine(line, kind);
        }
    }
    return true;
}

void NoteFlags(uint32_t flags) {
    if (s_reading != nullptr) {
        s_reading->flags = flags;
    }
}

ListTrace* TraceOfList() {
    return s_reading != nullptr ? &s_reading->list : nullptr;
}

// Sets the field of the pending entry that a key names; false where the value is no setting.
// Deliberate: but for the severity, a value that fails halfway counts with what is before the
// failure, so that a word this version does not know costs only itself and what follows.
bool SetEventField(uint32_t id, int key, const std::string& value) {
    EventRuleTable& table = Config::s_eventTable;
    uint32_t flags = 0;
    switch (key) {
        case kEventKeySeverity:
            if (!ParseSeverity(value.c_str(), &flags) || flags == kSeverityNone) {
                return false;
            }
            NoteFlags(flags);
            return table.SetSeverity(id, flags);
        case kEventKeyRule:
            return table.SetRule(id, value);
        case kEventKeyMessage:
            return table.SetEventName(id, value);
        case kEventKeyUserResponse:
            (void)ParseUserResponse(value.c_str(), &flags);
            NoteFlags(flags);
            return table.SetUserResponseFlags(id, flags) && table.SetUserResponse(id, value);
        case kEventKeyResponse:
            (void)ParseResponse(value.c_str(), &flags, TraceOfList());
            NoteFlags(flags);
            return table.SetResponseFlags(id, flags);
        default: {
            BlockRule rule;  // of zeros for an empty value
            (void)ParseBlockRule(value.c_str(), &rule, TraceOfList());
            if (s_reading != nullptr) {
                s_reading->blockRule = rule;
            }
            return table.AddBlockRule(id, rule);
        }
    }
}

// Deliberate: a duplicate loses against the first entry of its id and stays pending.
void CommitPending() {
    const uint32_t id = Config::s_eventTable.PendingId();
    const bool entered = Config::s_eventTable.Commit();
    if (Config::s_observer != nullptr && id != 0) {
        Config::s_observer->OnEntryClosed(id, entered);
    }
}

}  // namespace

void Config::Initialize() {
    s_eventTable.Initialize();
}

void Config::Load(const char* path, int kind) {
    if (kind == kEventFile) {
        s_eventTable.Clear();
    }
    // No state file is the usual case and no fault.
    (void)ParseFile(s_stateFile.c_str(), kind);
    if (path == nullptr || *path == '\0') {
        return;
    }
    if (ParseFile(path, kind)) {
        s_configFile = path;
    }
    if (kind == kEventFile) {
        CommitPending();
    }
}

void Config::ParseLine(const std::string& line, int kind) {
    const std::string_view stripped = StripRight(StripLeft(line));
    if (stripped.empty() || stripped.front() == '#') {
        return;
    }
    if (s_reading != nullptr) {
        s_reading->nameAt = static_cast<size_t>(stripped.data() - line.data());
    }
    const size_t equals = stripped.find('=');
    if (equals == std::string_view::npos) {
        NoteOutcome(LineRead::Outcome::kMissingValue);
        Log::Warning("Config file entry is missing value: '%s'", std::string(stripped).c_str());
        return;
    }
    // Deliberate: a "#" after the "=" belongs to the value. Paths and rule texts may hold one.
    // The strings keep their memory from line to line.
    static thread_local std::string value;
    static thread_local std::string name;
    value = StripLeft(stripped.substr(equals + 1));
    name = StripRight(stripped.substr(0, equals));
    if (s_reading != nullptr) {
        s_reading->nameLength = name.size();
        s_reading->valueAt = s_reading->nameAt + stripped.size() - value.size();
        s_reading->name = name;
        s_reading->value = value;
    }
    if (name.empty()) {
        NoteOutcome(LineRead::Outcome::kMissingName);
        Log::Warning("Config file entry is missing parameter name: '%s'",
                     std::string(stripped).c_str());
        return;
    }
    // An unknown name is dropped without a message, whichever file has it.
    NoteOutcome(LineRead::Outcome::kUnknownName);
    if (kind == kMainFile) {
        (void)ApplySetting(name, value);
    } else if (kind == kEventFile) {
        (void)ApplyEventSetting(name, value);
    }
}

bool Config::ApplySetting(const std::string& name, const std::string& value) {
    for (const Setting& setting : kSettings) {
        if (name == setting.name) {
            Apply(setting, value);
            NoteOutcome(LineRead::Outcome::kApplied);
            return true;
        }
    }
    return false;
}

bool Config::ApplyEventSetting(const std::string& name, const std::string& value) {
    int kind = kEventKeyNone;
    uint32_t id = 0;
    if (name.empty()) {
        return false;
    }
    const bool isKnown = ParseEventKey(name.c_str(), &kind, &id,
                                       s_reading != nullptr ? &s_reading->keyTrace : nullptr);
    if (s_reading != nullptr) {
        s_reading->eventKey = kind;
        s_reading->id = id;
    }
    if (!isKnown) {
        NoteOutcome(LineRead::Outcome::kRefused);
        return false;
    }
    if (kind == kEventKeyNone) {
        return false;
    }
    // The first line with another id closes an entry. A duplicate stays pending, and the setter
    // below discards it.
    if (s_eventTable.PendingId() != 0 && s_eventTable.PendingId() != id) {
        CommitPending();
    }
    const bool applied = SetEventField(id, kind, value);
    NoteOutcome(applied ? LineRead::Outcome::kApplied : LineRead::Outcome::kRefused);
    return applied;
}

std::shared_ptr<Node> Config::GetResponseSetting(int eventId) {
    std::shared_ptr<Node> node = s_eventTable.Find(static_cast<uint32_t>(eventId));
    if (!node) {
        Log::GetInstance()->Write(Log::kWarning, "Cannot get response setting for issue '%d'",
                                  eventId);
    }
    return node;
}

std::vector<std::string> Config::SettingNames() {
    std::vector<std::string> names;
    for (const Setting& setting : kSettings) {
        names.emplace_back(setting.name);
    }
    return names;
}

void Config::Dump() {
    if (!Log::Passes(Log::kDebug)) {
        return;
    }
    Log* const log = Log::GetInstance();
    log->Write(Log::kDebug, "==============================");
    for (const Setting& setting : kSettings) {
        if (setting.string != nullptr) {
            log->Write(Log::kDebug, "%s = %s", setting.name, setting.string->c_str());
        } else {
            log->Write(Log::kDebug, "%s = %d", setting.name,
                       setting.number->load(std::memory_order_relaxed));
        }
    }
    log->Write(Log::kDebug, "==============================");
}
