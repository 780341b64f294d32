#pragma once

// One thing that was looked at: its value and where it comes from, or the reason why it cannot be
// had.
//
// Threads: plain values.

#include <optional>
#include <string>
#include <utility>

namespace tarnctl {

template <typename Value>
struct Reading {
    std::optional<Value> value;
    std::string source;  // a file, a socket or a kernel interface
    std::string reason;  // why there is no value; empty when there is one

    [[nodiscard]] bool IsKnown() const { return value.has_value(); }
    // True when the value is known and equals `expected`.
    [[nodiscard]] bool Is(const Value& expected) const { return value == expected; }
};

template <typename Value>
[[nodiscard]] Reading<Value> Known(Value value, std::string source) {
    return {std::move(value), std::move(source), ""};
}

template <typename Value>
[[nodiscard]] Reading<Value> Unknown(std::string source, std::string reason) {
    return {std::nullopt, std::move(source), std::move(reason)};
}

}  // namespace tarnctl
