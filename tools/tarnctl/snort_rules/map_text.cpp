#include "tarnctl/snort_rules/map_text.h"

#include <array>
#include <cstddef>
#include <string>
#include <utility>

#include "tarnctl/snort_rules/text_pieces.h"

namespace tarnctl {
namespace {

constexpr std::string_view kSeparator = "||";

// References follow the fields that matter and are not kept apart.
constexpr size_t kMostFields = 6;

struct Fields {
    std::array<std::string_view, kMostFields> text;
    size_t count = 0;

    [[nodiscard]] bool IsNumber(size_t index) const {
        uint32_t ignored = 0;
        return index < count && ReadNumber(text[index], &ignored);
    }
};

Fields Split(std::string_view line) {
    Fields fields;
    while (fields.count < kMostFields) {
        const size_t end = line.find(kSeparator);
        fields.text[fields.count++] = Trimmed(line.substr(0, end));
        if (end == std::string_view::npos) {
            break;
        }
        line.remove_prefix(end + kSeparator.size());
    }
    return fields;
}

enum class Form { kUnknown, kSidFirst, kSidSecond, kGenerator };

// Where each field is; -1 if the form has none.
struct Layout {
    int generator, sid, revision, classification, priority, message;
};

constexpr Layout kSidFirstLayout = {-1, 0, -1, -1, -1, 1};
constexpr Layout kSidSecondLayout = {0, 1, 2, 3, 4, 5};
constexpr Layout kGeneratorLayout = {0, 1, -1, -1, -1, 2};

const Layout& LayoutOf(Form form) {
    switch (form) {
        case Form::kSidSecond:
            return kSidSecondLayout;
        case Form::kGenerator:
            return kGeneratorLayout;
        default:
            return kSidFirstLayout;
    }
}

Form FormOf(std::string_view name, const Fields& fields) {
    const bool second =
        fields.IsNumber(1) && fields.IsNumber(2) && fields.IsNumber(4) && fields.count == 6;
    if (second) {
        return Form::kSidSecond;
    }
    if (name.find("gen-msg") != std::string_view::npos) {
        return Form::kGenerator;
    }
    if (name.find("sid-msg") != std::string_view::npos) {
        return Form::kSidFirst;
    }
    return fields.IsNumber(1) && fields.count >= 3 ? Form::kGenerator : Form::kSidFirst;
}

// False if a field that the form has is not there, or is no number where it has to be one.
bool Assign(const Fields& fields, const Layout& layout, SnortRule& rule) {
    const auto number = [&fields](int place, uint32_t* value) {
        return place == -1 || (static_cast<size_t>(place) < fields.count &&
                               ReadNumber(fields.text[static_cast<size_t>(place)], value));
    };
    if (static_cast<size_t>(layout.message) >= fields.count || !number(layout.sid, &rule.sid) ||
        !number(layout.generator, &rule.generator) || rule.sid == 0 || rule.generator == 0) {
        return false;
    }
    // Revision and priority only help; a map may leave them empty.
    (void)number(layout.revision, &rule.revision);
    (void)number(layout.priority, &rule.priority);
    rule.message = fields.text[static_cast<size_t>(layout.message)];
    if (layout.classification != -1) {
        rule.classification = fields.text[static_cast<size_t>(layout.classification)];
        if (rule.classification == "NOCLASS") {
            rule.classification.clear();
        }
    }
    return true;
}

// The form that a comment names.
Form NamedForm(std::string_view comment) {
    comment.remove_prefix(std::min(comment.find_first_not_of("# \t"), comment.size()));
    if (comment == "v1") {
        return Form::kSidFirst;
    }
    return comment == "v2" ? Form::kSidSecond : Form::kUnknown;
}

}  // namespace

bool LooksLikeMap(std::string_view text) {
    while (!text.empty()) {
        const std::string_view line = Trimmed(TakeLine(text));
        if (line.empty() || line.front() == '#') {
            continue;
        }
        return line.find(kSeparator) != std::string_view::npos && Split(line).IsNumber(0);
    }
    return false;
}

RuleFileContent ReadMapText(std::string_view name, std::string_view text) {
    RuleFileContent content;
    Form form = Form::kUnknown;
    for (uint32_t number = 1; !text.empty(); ++number) {
        const std::string_view line = Trimmed(TakeLine(text));
        if (line.empty()) {
            continue;
        }
        if (line.front() == '#') {
            form = form == Form::kUnknown ? NamedForm(line) : form;
            continue;
        }
        const Fields fields = Split(line);
        if (form == Form::kUnknown) {
            form = FormOf(name, fields);
        }
        SnortRule rule;
        rule.fromMap = true;
        rule.line = number;
        if (Assign(fields, LayoutOf(form), rule)) {
            content.rules.push_back(std::move(rule));
        } else {
            content.remarks.push_back({RuleRemarkKind::kBadMapLine, 0, number,
                                       "the line does not have the fields of this kind of map"});
        }
    }
    return content;
}

}  // namespace tarnctl
