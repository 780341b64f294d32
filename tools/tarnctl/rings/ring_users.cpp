#include "tarnctl/rings/ring_users.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

// One file, as /proc names it and as stat() does. The two device numbers differ on file systems
// that have several of their own, so that the path is compared too.
struct File {
    std::string path;
    ino_t inode = 0;
    dev_t device = 0;
};

// "FROM-TO PERMISSIONS OFFSET MAJOR:MINOR INODE PATH"
bool IsWritableMapping(const std::string& line, const File& file) {
    std::istringstream words(line);
    std::string range;
    std::string permissions;
    std::string offset;
    std::string device;
    ino_t inode = 0;
    words >> range >> permissions >> offset >> device >> inode;
    if (inode != file.inode || permissions.find('w') == std::string::npos ||
        permissions.find('s') == std::string::npos) {
        return false;
    }
    unsigned major = 0;
    unsigned minor = 0;
    const bool hasDevice = std::sscanf(device.c_str(), "%x:%x", &major, &minor) == 2;
    std::string path;
    std::getline(words >> std::ws, path);
    return (hasDevice && makedev(major, minor) == file.device) || path == file.path;
}

// What became of a look into a process.
enum class Look { kMaps, kDoesNot, kUnseen };

Look LookInto(const std::filesystem::path& process, const File& file) {
    errno = 0;
    std::ifstream maps(process / "maps");
    if (!maps) {
        // A process that has ended meanwhile has nothing mapped.
        return errno == EACCES || errno == EPERM ? Look::kUnseen : Look::kDoesNot;
    }
    for (std::string line; std::getline(maps, line);) {
        if (IsWritableMapping(line, file)) {
            return Look::kMaps;
        }
    }
    return Look::kDoesNot;
}

std::string NameOf(const std::filesystem::path& process) {
    std::ifstream file(process / "comm");
    std::string name;
    std::getline(file, name);
    return name;
}

}  // namespace

RingUsers UsersOfRing(const std::string& path, int writer) {
    RingUsers found;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        found.error = FailureText(path, errno);
        return found;
    }
    std::error_code error;
    const File file{std::filesystem::canonical(path, error).string(), status.st_ino, status.st_dev};
    for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string digits = entry->path().filename();
        if (digits.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const int process = std::stoi(digits);
        if (process == getpid()) {
            continue;
        }
        switch (LookInto(entry->path(), file)) {
            case Look::kMaps: {
                const std::string name = NameOf(entry->path());
                found.users.push_back({process, name, name == "tarn" || process == writer});
                break;
            }
            case Look::kUnseen:
                ++found.unseen;
                break;
            default:
                break;
        }
    }
    if (error) {
        found.error = "/proc: " + error.message();
    }
    return found;
}

std::string UsersText(const std::vector<RingUser>& users) {
    std::string text;
    for (const RingUser& user : users) {
        text += (text.empty() ? "" : ", ") + user.name + " (" + std::to_string(user.process) + ")";
    }
    return text;
}

}  // namespace tarnctl
