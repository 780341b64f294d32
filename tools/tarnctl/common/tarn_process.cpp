#include "tarnctl/common/tarn_process.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace tarnctl {
namespace {

// "NUMBER (NAME) STATE ..." as in /proc/NUMBER/stat. A process that has ended and that nobody has
// waited for yet is in state Z.
bool IsDaemon(const std::string& status) {
    const size_t name = status.find(" (tarn) ");
    constexpr size_t kNameBytes = 8;
    return name != std::string::npos && status.size() > name + kNameBytes &&
           status[name + kNameBytes] != 'Z';
}

}  // namespace

bool IsTarnRunning() {
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        std::ifstream file(entry->path() / "stat");
        std::string status;
        if (std::getline(file, status) && IsDaemon(status)) {
            return true;
        }
    }
    return false;
}

}  // namespace tarnctl
