#pragma once

// Reads the maps from signatures to messages that go with rule files: fields with "||" between, a
// signature a line.
//
//   sid-msg.map, first form    sid || message || reference || ...
//   sid-msg.map, second form   gid || sid || rev || class || priority || message || reference ||
//   ... gen-msg.map                gid || sid || message
//
// Threads: pure functions.

#include <string_view>

#include "tarnctl/snort_rules/snort_rule.h"

namespace tarnctl {

// Whether the first line that is neither empty nor a comment is one of a map.
[[nodiscard]] bool LooksLikeMap(std::string_view text);

// `name` is the file's name. The form is the one that a first line "#v1" or "#v2" names. Without
// it the name and the first line decide.
[[nodiscard]] RuleFileContent ReadMapText(std::string_view name, std::string_view text);

}  // namespace tarnctl
