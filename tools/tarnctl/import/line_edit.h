#pragma once

// A change of a text by lines: some go, and others come at the end.
//
// Threads: plain data and pure functions.

#include <string>
#include <string_view>
#include <vector>

namespace tarnctl {

struct LineEdit {
    std::vector<std::string_view> lines;  // of the old text, each with its line end; borrowed
    std::vector<bool> remove;             // for each line whether it goes
    std::string added;                    // whole lines

    [[nodiscard]] bool ChangesNothing() const;

    // The new text. A last line without a line end gets one when others follow it.
    [[nodiscard]] std::string Apply() const;

    // The change as a unified diff with three lines of context, as patch(1) takes it; empty if
    // nothing changes.
    [[nodiscard]] std::string Diff(const std::string& oldName, const std::string& newName) const;
};

}  // namespace tarnctl
