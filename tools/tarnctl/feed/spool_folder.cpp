#include "tarnctl/feed/spool_folder.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

namespace fs = std::filesystem;

constexpr uint32_t kEvents =
    IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_MODIFY | IN_DELETE | IN_CLOSE_WRITE;

}  // namespace

SpoolFolder::SpoolFolder(const std::string& prefix)
    : m_folder(fs::path(prefix).parent_path()), m_prefix(fs::path(prefix).filename()) {
    if (m_folder.empty()) {
        m_folder = ".";
    }
}

SpoolFolder::~SpoolFolder() {
    if (m_inotify != -1) {
        close(m_inotify);
    }
}

std::string SpoolFolder::PathOf(const std::string& name) const {
    return (fs::path(m_folder) / name).string();
}

bool SpoolFolder::Parse(const std::string& name, SpoolEntry& entry) const {
    if (name.compare(0, m_prefix.size(), m_prefix) != 0) {
        return false;
    }
    entry.name = name;
    entry.isPlain = name.size() == m_prefix.size();
    entry.stamp = 0;
    if (entry.isPlain) {
        return true;
    }
    const char* const begin = name.data() + m_prefix.size() + 1;
    const char* const end = name.data() + name.size();
    if (name[m_prefix.size()] != '.' || begin == end) {
        return false;
    }
    const auto [stopped, error] = std::from_chars(begin, end, entry.stamp);
    return error == std::errc() && stopped == end;
}

std::vector<SpoolEntry> SpoolFolder::List(std::string& fault) const {
    std::vector<SpoolEntry> entries;
    std::error_code error;
    for (fs::directory_iterator file(m_folder, error), end; !error && file != end;
         file.increment(error)) {
        SpoolEntry entry;
        struct stat status = {};
        if (Parse(file->path().filename(), entry) && stat(file->path().c_str(), &status) == 0 &&
            S_ISREG(status.st_mode)) {
            entry.device = status.st_dev;
            entry.inode = status.st_ino;
            entries.push_back(entry);
        }
    }
    fault = error ? FailureText(m_folder, error.value()) : "";
    std::sort(entries.begin(), entries.end(),
              [](const SpoolEntry& a, const SpoolEntry& b) { return a.IsBefore(b); });
    return entries;
}

int SpoolFolder::Descriptor() {
    if (m_inotify == -1) {
        m_inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    }
    // A folder that was missing may have come; to watch one again changes nothing.
    m_watch = m_inotify == -1 ? -1 : inotify_add_watch(m_inotify, m_folder.c_str(), kEvents);
    return m_watch == -1 ? -1 : m_inotify;
}

void SpoolFolder::TakeNews() {
    alignas(inotify_event) std::array<char, 4096> events;
    while (m_inotify != -1 && read(m_inotify, events.data(), events.size()) > 0) {
    }
}

}  // namespace tarnctl
