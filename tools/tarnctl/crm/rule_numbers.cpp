#include "tarnctl/crm/rule_numbers.h"

#include <algorithm>
#include <charconv>

namespace tarnctl {
namespace {

bool IsBlank(char letter) {
    return letter == ' ' || letter == '\t';
}

// The number of an option "NAME:NUMBER" at the front of `text`; `number` stays where there is none.
void ReadOption(std::string_view text, std::string_view name, uint32_t& number) {
    if (!text.starts_with(name)) {
        return;
    }
    text.remove_prefix(name.size());
    const auto skipBlanks = [&text] {
        text.remove_prefix(static_cast<size_t>(std::find_if_not(text.begin(), text.end(), IsBlank) -
                                               text.begin()));
    };
    skipBlanks();
    if (!text.starts_with(':')) {
        return;
    }
    text.remove_prefix(1);
    skipBlanks();
    uint32_t value = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc()) {
        number = value;
    }
}

}  // namespace

// Options begin after the bracket or a semicolon. What is between quotation marks is text.
RuleNumbers NumbersOfRule(std::string_view rule) {
    RuleNumbers numbers;
    bool isQuoted = false;
    bool isStart = false;
    for (size_t at = 0; at < rule.size(); ++at) {
        const char letter = rule[at];
        if (letter == '\\') {
            ++at;
        } else if (letter == '"') {
            isQuoted = !isQuoted;
        } else if (!isQuoted && isStart && !IsBlank(letter)) {
            if (letter == 'g') {
                ReadOption(rule.substr(at), "gid", numbers.generator);
            } else if (letter == 'r') {
                ReadOption(rule.substr(at), "rev", numbers.revision);
            }
        } else if (IsBlank(letter)) {
            continue;
        }
        isStart = !isQuoted && (letter == '(' || letter == ';');
    }
    return numbers;
}

}  // namespace tarnctl
