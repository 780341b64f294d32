#include "config/config.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string_view>

#include "config/event_rule_parser.h"
#include "config/event_rule_table.h"
#include "logging/log.h"

EventRuleTable Config::s_eventTable;

namespace {

constexpr char kBlanks[] = " \t";

std::string_view StripLeft(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text;
}

std::string_view StripRight(std::string_view text) {
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

// --- the keys ---------------------------------------------------------------------------------

struct Setting;

// What becomes of a number that stands in a file as `text`.
using Rule = int (*)(int number, const Setting& setting, const char* text);

// One key. Exactly one of `number` and `string` is set; a string is kept as it stands.
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
    constexpr int kAboveAll = vald::Log::kDebug + 1;
    return number <= 0 ? 0 : number > vald::Log::kDebug ? kAboveAll : number;
}

// Deliberate: the comparison is unsigned, so a negative number lands at the top of the range: who
// asks for no timeout gets the longest one.
int EvidenceTimeout(int number, const Setting& setting, const char* text) {
    const auto minutes = static_cast<unsigned>(number);
    if (minutes < 5) {
        vald::Log::GetInstance()->Write(
            4, "Tuning parameter: '%s = %s' is out of range (5-30), setting it to 5 minutes.",
            setting.name, text);
        return 5;
    }
    if (minutes > 30) {
        vald::Log::GetInstance()->Write(
            4, "Tuning parameter: '%s = %s' is out of range (5-30), setting it to 30 minutes.",
            setting.name, text);
        return 30;
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
// Deliberate: tarn.log.maxfiles falls back to 3 although it starts at 5. A sensor that is told to
// keep no log files is short of space, so it gets fewer than one that is told nothing.
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

void Apply(const Setting& setting, const std::string& value) {
    if (setting.string != nullptr) {
        *setting.string = value;
        return;
    }
    const auto number = static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
    setting.number->store(setting.rule(number, setting, value.c_str()), std::memory_order_relaxed);
}

// Passes each line of a file to Config::ParseLine; false if the file cannot be opened.
// Deliberate: write access is asked for although nothing is written, so that a file which its
// owner has made read-only is out of use.
bool ParseFile(const char* path, int kind) {
    std::fstream file(path, std::ios::in | std::ios::out);
    if (!file) {
        return false;
    }
    std::string line;
    while (std::getline(file, line)) {
        Config::ParseLine(line, kind);
    }
    return true;
}

}  // namespace

// --- loading ----------------------------------------------------------------------------------

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
        (void)s_eventTable.Commit();  // a duplicate loses against the first entry of its id
    }
}

void Config::ParseLine(const std::string& line, int kind) {
    const std::string_view stripped = StripRight(StripLeft(line));
    if (stripped.empty() || stripped.front() == '#') {
        return;
    }
    const std::size_t equals = stripped.find('=');
    if (equals == std::string_view::npos) {
        vald::Log::GetInstance()->Write(vald::Log::kWarning,
                                        "Config file entry is missing value: '%s'",
                                        std::string(stripped).c_str());
        return;
    }
    const std::string value(StripLeft(stripped.substr(equals + 1)));
    const std::string name(StripRight(stripped.substr(0, equals)));
    if (name.empty()) {
        vald::Log::GetInstance()->Write(vald::Log::kWarning,
                                        "Config file entry is missing parameter name: '%s'",
                                        std::string(stripped).c_str());
        return;
    }
    // An unknown name is dropped without a message, whichever file it stands in.
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
            return true;
        }
    }
    return false;
}

bool Config::ApplyEventSetting(const std::string& name, const std::string& value) {
    int kind = kEventKeyNone;
    uint32_t id = 0;
    if (name.empty() || !ParseEventKey(name.c_str(), &kind, &id) || kind == kEventKeyNone) {
        return false;
    }
    // The first line with another id closes an entry. A duplicate stays pending, and the setter
    // below discards it.
    if (s_eventTable.PendingId() != 0 && s_eventTable.PendingId() != id) {
        (void)s_eventTable.Commit();
    }
    // Deliberate: but for the severity, a value that fails halfway counts with what stands before
    // the failure, so that a word this version does not know costs only itself and what follows.
    switch (kind) {
        case kEventKeySeverity: {
            uint32_t severity = kSeverityNone;
            return ParseSeverity(value.c_str(), &severity) && severity != kSeverityNone &&
                   s_eventTable.SetSeverity(id, severity);
        }
        case kEventKeyRule:
            return s_eventTable.SetRule(id, value);
        case kEventKeyMessage:
            return s_eventTable.SetEventName(id, value);
        case kEventKeyUserResponse: {
            uint32_t flags = 0;
            (void)ParseUserResponse(value.c_str(), &flags);
            return s_eventTable.SetUserResponseFlags(id, flags) &&
                   s_eventTable.SetUserResponse(id, value);
        }
        case kEventKeyResponse: {
            uint32_t flags = 0;
            (void)ParseResponse(value.c_str(), &flags);
            return s_eventTable.SetResponseFlags(id, flags);
        }
        default: {
            BlockRule rule;  // of zeros for an empty value
            (void)ParseBlockRule(value.c_str(), &rule);
            return s_eventTable.AddBlockRule(id, rule);
        }
    }
}

// --- queries ----------------------------------------------------------------------------------

std::shared_ptr<Node> Config::GetResponseSetting(int eventId) {
    std::shared_ptr<Node> node = s_eventTable.Find(static_cast<uint32_t>(eventId));
    if (!node) {
        vald::Log::GetInstance()->Write(vald::Log::kWarning,
                                        "Cannot get response setting for issue '%d'", eventId);
    }
    return node;
}

void Config::Dump() {
    if (!vald::Log::Passes(vald::Log::kDebug)) {
        return;
    }
    vald::Log* const log = vald::Log::GetInstance();
    log->Write(vald::Log::kDebug, "==============================");
    for (const Setting& setting : kSettings) {
        if (setting.string != nullptr) {
            log->Write(vald::Log::kDebug, "%s = %s", setting.name, setting.string->c_str());
        } else {
            log->Write(vald::Log::kDebug, "%s = %d", setting.name,
                       setting.number->load(std::memory_order_relaxed));
        }
    }
    log->Write(vald::Log::kDebug, "==============================");
}
