#pragma once

// A fresh directory for one test, removed with all that is in it.
//
// Threads: the test's own.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/file_text.h"

class TempDir {
  public:
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "tarn_test_XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            std::abort();  // no test can go on without its directory
        }
        m_path = name;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::filesystem::path& Path() const { return m_path; }

    // Path of a name in the directory, whether it is there or not.
    std::string File(const std::string& name) const { return (m_path / name).string(); }

    // Writes a file in the directory and yields its path.
    std::string Write(const std::string& name, const std::string& content) const {
        WriteFile(File(name), content);
        return File(name);
    }

    // The content of a file in the directory; empty if there is none.
    std::string Read(const std::string& name) const { return ReadFile(File(name)); }

  private:
    std::filesystem::path m_path;
};
