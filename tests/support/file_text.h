#pragma once

// Whole files as strings, by their paths.

#include <fstream>
#include <iterator>
#include <string>

// The content of a file; empty where there is none.
inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}
