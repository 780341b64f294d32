#include "tarnctl/snort_rules/rule_set.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <tuple>
#include <unordered_map>

#include "tarnctl/common/failure_text.h"
#include "tarnctl/common/standard_input.h"
#include "tarnctl/snort_rules/classifications.h"
#include "tarnctl/snort_rules/map_text.h"
#include "tarnctl/snort_rules/rule_text.h"
#include "tarnctl/snort_rules/text_file.h"
#include "tarnctl/snort_rules/text_pieces.h"

namespace tarnctl {
namespace {

namespace fs = std::filesystem;

// Includes and folders within each other. A sensor's own limit is of this size.
constexpr int kDeepest = 16;

constexpr const char* kClassFile = "classification.config";

bool IsOfInterest(const fs::path& path) {
    const std::string name = path.filename().string();
    return !name.starts_with('.') &&
           (name.ends_with(".rules") || name.ends_with("msg.map") || name == kClassFile);
}

uint64_t KeyOf(const SnortRule& rule) {
    return uint64_t{rule.sid} << 32 | rule.generator;
}

// Whether `left` counts more than `right`, which was read before it.
bool Outranks(const SnortRule& left, const SnortRule& right) {
    const auto rank = [](const SnortRule& rule) {
        return std::make_tuple(!rule.fromMap, rule.enabled, rule.revision);
    };
    return rank(left) > rank(right);
}

}  // namespace

bool RuleSet::Read(const std::string& path) {
    m_baseFolder = fs::path(path).parent_path().string();
    const Found found = ReadPath(path, 0);
    if (found != Found::kNothing) {
        ReadClassesNear(path);
    }
    return found != Found::kNothing;
}

bool RuleSet::Read(const std::string& path, StandardInput& input) {
    if (path != "-") {
        return Read(path);
    }
    constexpr const char* kName = "standard input";
    std::string text;
    const int error = input.ReadAll(text);
    if (error != 0) {
        Remark(RuleRemarkKind::kUnreadable, AddFile(kName), 0, FailureText(kName, error));
        return false;
    }
    m_baseFolder = ".";
    ReadText(kName, text);
    return true;
}

void RuleSet::ReadText(const std::string& name, std::string_view text) {
    ReadContent(name, text, 0);
}

RuleSet::Found RuleSet::ReadPath(const std::string& path, int depth) {
    const auto fail = [this, &path](int error) {
        Remark(RuleRemarkKind::kUnreadable, AddFile(path), 0, FailureText(path, error));
        return Found::kNothing;
    };
    std::string text;
    struct stat status = {};
    const int error = ReadTextFile(path, text, &status);
    if (error != 0) {
        return fail(error);
    }
    const bool isNew = m_seen.emplace(status.st_dev, status.st_ino).second;
    if (S_ISDIR(status.st_mode)) {
        if (isNew) {
            ReadFolder(path, depth);
        }
        return Found::kFolder;
    }
    if (!isNew) {
        return Found::kFile;
    }
    ReadContent(path, text, depth);
    return Found::kFile;
}

void RuleSet::ReadFolder(const std::string& path, int depth) {
    std::vector<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator each(path, error), end; !error && each != end;
         each.increment(error)) {
        entries.push_back(each->path());
    }
    if (error) {
        Remark(RuleRemarkKind::kUnreadable, AddFile(path), 0, FailureText(path, error.value()));
        return;
    }
    std::sort(entries.begin(), entries.end());
    for (const fs::path& entry : entries) {
        std::error_code ignored;
        const bool isFolder = fs::is_directory(entry, ignored) && depth < kDeepest &&
                              !entry.filename().string().starts_with('.');
        // A pipe with such a name would keep the reader waiting.
        const bool isFile =
            IsOfInterest(entry) && !fs::is_fifo(entry, ignored) && !fs::is_socket(entry, ignored);
        if (isFolder || isFile) {
            (void)ReadPath(entry.string(), depth + 1);
        }
    }
}

void RuleSet::ReadContent(const std::string& name, std::string_view text, int depth) {
    const uint32_t file = AddFile(name);
    const std::string plainName = fs::path(name).filename().string();
    const bool isMap = !plainName.ends_with(".rules") && LooksLikeMap(text);
    RuleFileContent content = isMap ? ReadMapText(plainName, text) : ReadRuleText(text);
    for (SnortRule& rule : content.rules) {
        rule.file = file;
    }
    for (RuleRemark& remark : content.remarks) {
        Remark(remark.kind, file, remark.line, std::move(remark.text));
    }
    m_rules.insert(m_rules.end(), std::make_move_iterator(content.rules.begin()),
                   std::make_move_iterator(content.rules.end()));
    for (const RuleDirective& directive : content.directives) {
        Follow(directive, file, depth);
    }
}

void RuleSet::ReadClassesNear(const std::string& path) {
    const fs::path folder = fs::absolute(path).lexically_normal().parent_path();
    for (const fs::path& place : {folder, folder.parent_path()}) {
        const fs::path classes = place / kClassFile;
        std::error_code ignored;
        if (fs::is_regular_file(classes, ignored)) {
            (void)ReadPath(classes.string(), 0);
        }
    }
}

void RuleSet::Follow(const RuleDirective& directive, uint32_t file, int depth) {
    if (directive.word == "include") {
        Include(directive, file, depth);
    } else if (directive.word == "config") {
        constexpr std::string_view kClass = "classification:";
        if (directive.value.starts_with(kClass)) {
            AddClass(std::string_view(directive.value).substr(kClass.size()));
        }
    } else {
        const std::string_view value = directive.value;
        const size_t end = value.find_first_of(" \t");
        std::string expanded;
        if (end != std::string_view::npos && Expand(Trimmed(value.substr(end)), expanded)) {
            m_variables.insert_or_assign(std::string(value.substr(0, end)), expanded);
        }
    }
}

void RuleSet::Include(const RuleDirective& directive, uint32_t file, int depth) {
    std::string name;
    if (!Expand(directive.value, name)) {
        Remark(RuleRemarkKind::kNotFollowed, file, directive.line,
               "the file of \"include " + directive.value + "\" is not known");
        return;
    }
    const std::string trimmed(Trimmed(name));
    std::error_code ignored;
    for (const fs::path& base : {fs::path(m_files[file]).parent_path(), fs::path(m_baseFolder)}) {
        const fs::path path = base / trimmed;  // an absolute name stays what it is
        if (depth < kDeepest && fs::exists(path, ignored)) {
            (void)ReadPath(path.string(), depth + 1);
            return;
        }
    }
    Remark(RuleRemarkKind::kNotFollowed, file, directive.line,
           "the included file " + trimmed + " is not there");
}

// "name, description, priority"
void RuleSet::AddClass(std::string_view value) {
    const size_t nameEnd = value.find(',');
    const size_t numberBegin = value.rfind(',');
    uint32_t priority = 0;
    if (nameEnd != numberBegin && ReadNumber(Trimmed(value.substr(numberBegin + 1)), &priority)) {
        m_priorities.emplace(Trimmed(value.substr(0, nameEnd)), priority);  // the first one counts
    }
}

// Puts the values of $NAME and $(NAME) in. False if one of them is not known.
bool RuleSet::Expand(std::string_view text, std::string& expanded) const {
    while (!text.empty()) {
        const size_t dollar = text.find('$');
        expanded += text.substr(0, dollar);
        if (dollar == std::string_view::npos) {
            break;
        }
        text.remove_prefix(dollar + 1);
        const bool inParentheses = text.starts_with('(');
        text.remove_prefix(inParentheses ? 1 : 0);
        const size_t end =
            std::min(inParentheses ? text.find(')')
                                   : text.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                                            "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                                            "0123456789_"),
                     text.size());
        const auto found = m_variables.find(text.substr(0, end));
        if (found == m_variables.end()) {
            return false;
        }
        expanded += found->second;
        text.remove_prefix(std::min(end + (inParentheses ? 1 : 0), text.size()));
    }
    return true;
}

uint32_t RuleSet::AddFile(const std::string& name) {
    m_files.push_back(name);
    return static_cast<uint32_t>(m_files.size() - 1);
}

void RuleSet::Remark(RuleRemarkKind kind, uint32_t file, uint32_t line, std::string text) {
    m_complete =
        m_complete && kind != RuleRemarkKind::kUnreadable && kind != RuleRemarkKind::kNotFollowed;
    m_remarks.push_back({kind, file, line, std::move(text)});
}

std::vector<SnortRule> RuleSet::Signatures() const {
    std::unordered_map<uint64_t, size_t> inForce;  // index into m_rules
    std::unordered_map<uint64_t, size_t> named;    // the same for lines of maps
    inForce.reserve(m_rules.size());
    for (size_t index = 0; index < m_rules.size(); ++index) {
        const SnortRule& rule = m_rules[index];
        const auto [place, isNew] = inForce.emplace(KeyOf(rule), index);
        if (!isNew && Outranks(rule, m_rules[place->second])) {
            place->second = index;
        }
        if (rule.fromMap) {
            named.emplace(KeyOf(rule), index);
        }
    }
    std::vector<SnortRule> signatures;
    signatures.reserve(inForce.size());
    for (const auto& [key, index] : inForce) {
        signatures.push_back(m_rules[index]);
        const auto map = named.find(key);
        if (signatures.back().message.empty() && map != named.end()) {
            signatures.back().message = m_rules[map->second].message;
        }
    }
    std::sort(
        signatures.begin(), signatures.end(),
        [](const SnortRule& left, const SnortRule& right) { return KeyOf(left) < KeyOf(right); });
    return signatures;
}

uint32_t RuleSet::PriorityOf(const SnortRule& rule) const {
    if (rule.priority != 0) {
        return rule.priority;
    }
    const auto found = m_priorities.find(rule.classification);
    return found != m_priorities.end() ? found->second : DefaultPriority(rule.classification);
}

bool RuleSet::KnowsClass(const SnortRule& rule) const {
    return m_priorities.contains(rule.classification) || DefaultPriority(rule.classification) != 0;
}

}  // namespace tarnctl
