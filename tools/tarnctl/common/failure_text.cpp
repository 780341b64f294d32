#include "tarnctl/common/failure_text.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace tarnctl {
namespace {

std::string WhatToDo(const std::string& path, int error) {
    switch (error) {
        case EACCES:
        case EPERM:
            return "; run this as root or as the user that tarn runs as";
        case ENOENT: {
            const std::filesystem::path directory = std::filesystem::path(path).parent_path();
            std::error_code ignored;
            return directory.empty() || std::filesystem::exists(directory, ignored)
                       ? "; check the name"
                       : "; make the directory " + directory.string() + " first";
        }
        case ENOSPC:
            return "; make room on its file system";
        default:
            return "";
    }
}

}  // namespace

std::string FailureText(const std::string& path, int error) {
    return path + ": " + std::strerror(error) + WhatToDo(path, error);
}

}  // namespace tarnctl
