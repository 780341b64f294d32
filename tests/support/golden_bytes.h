#pragma once

// Reads the annotated bytes of tests/golden: pairs of hexadecimal digits in the order of the wire,
// with blanks between them; "#" begins a remark that goes on to the end of the line.
//
// Threads: plain functions.

#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/source_dir.h"

inline std::vector<uint8_t> GoldenBytes(const std::string& name) {
    std::ifstream file(SourceDir() + "/tests/golden/" + name);
    if (!file) {
        throw std::runtime_error("no golden file " + name);
    }
    std::vector<uint8_t> bytes;
    for (std::string line; std::getline(file, line);) {
        std::istringstream pairs(line.substr(0, line.find('#')));
        for (std::string pair; pairs >> pair;) {
            size_t used = 0;
            const unsigned long value = std::stoul(pair, &used, 16);
            if (used != 2 || pair.size() != 2) {
                throw std::runtime_error(name + ": not a byte: " + pair);
            }
            bytes.push_back(static_cast<uint8_t>(value));
        }
    }
    return bytes;
}
