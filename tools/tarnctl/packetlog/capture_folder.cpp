#include "tarnctl/packetlog/capture_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <memory>

namespace tarnctl {
namespace {

constexpr std::string_view kAll = "all";
constexpr std::string_view kEvent = "event-";

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};

// Takes a number off the front of the text.
std::optional<uint32_t> TakeNumber(std::string_view& text) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return number;
}

}  // namespace

std::string CaptureName::Text() const {
    return (event ? std::string(kEvent) + std::to_string(*event) : std::string(kAll)) +
           (age == 0 ? std::string() : "." + std::to_string(age)) + "." +
           std::string(CaptureSuffix(format));
}

std::optional<CaptureName> CaptureName::From(std::string_view text) {
    const std::string_view whole = text;
    CaptureName name;
    if (text.starts_with(kAll)) {
        text.remove_prefix(kAll.size());
    } else if (text.starts_with(kEvent)) {
        text.remove_prefix(kEvent.size());
        name.event = TakeNumber(text);
    }
    name.format = text.ends_with(CaptureSuffix(CaptureFormat::kPcapng)) ? CaptureFormat::kPcapng
                                                                        : CaptureFormat::kPcap;
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        name.age = TakeNumber(text).value_or(0);
    }
    // All other forms, numbers with zeros in front of them included, differ from their own name.
    return name.Text() == whole ? std::optional(name) : std::nullopt;
}

std::optional<std::vector<KeptCapture>> CapturesIn(const std::string& directory) {
    const std::unique_ptr<DIR, CloseFolder> folder(opendir(directory.c_str()));
    if (folder == nullptr) {
        return std::nullopt;
    }
    std::vector<KeptCapture> captures;
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(folder.get());
        if (entry == nullptr) {
            break;
        }
        const std::optional<CaptureName> name = CaptureName::From(entry->d_name);
        struct stat status = {};
        if (name &&
            fstatat(dirfd(folder.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(status.st_mode)) {
            captures.push_back({*name, static_cast<uint64_t>(status.st_size), status.st_mtime});
        }
    }
    return errno == 0 ? std::optional(captures) : std::nullopt;
}

}  // namespace tarnctl
