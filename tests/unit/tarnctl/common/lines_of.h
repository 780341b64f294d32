#pragma once

// What a command wrote, line by line.

#include <sstream>
#include <string>
#include <vector>

inline std::vector<std::string> LinesOf(const std::ostringstream& output) {
    std::vector<std::string> lines;
    std::istringstream text(output.str());
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}
