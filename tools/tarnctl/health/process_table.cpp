#include "tarnctl/health/process_table.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <memory>
#include <sstream>

namespace tarnctl {
namespace {

// Where a field of the line is, counted from the state, which follows the name.
constexpr size_t kFlagsField = 6;
constexpr size_t kUserTimeField = 11;
constexpr size_t kSystemTimeField = 12;
constexpr size_t kStartTimeField = 19;

constexpr uint64_t kKernelThread = 0x00200000;  // PF_KTHREAD

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

// The numbers among the names of a folder. False with errno when it cannot be read.
bool NumbersIn(const std::string& path, std::vector<int>& numbers) {
    const Folder folder(opendir(path.c_str()));
    if (folder == nullptr) {
        return false;
    }
    while (const dirent* const entry = readdir(folder.get())) {
        const std::string_view name = entry->d_name;
        int number = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
        if (error == std::errc() && end == name.data() + name.size()) {
            numbers.push_back(number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return true;
}

}  // namespace

bool ParseProcessStatus(std::string_view line, ProcessStatus& status) {
    // A name may hold blanks and parentheses of its own.
    const size_t begin = line.find('(');
    const size_t end = line.rfind(')');
    if (begin == std::string_view::npos || end == std::string_view::npos || end < begin) {
        return false;
    }
    status.name = line.substr(begin + 1, end - begin - 1);
    std::istringstream rest{std::string(line.substr(end + 1))};
    std::array<uint64_t, kStartTimeField + 1> fields = {};
    if (!(rest >> status.state)) {
        return false;
    }
    for (size_t field = 1; field < fields.size(); ++field) {
        int64_t number = 0;  // the terminal's group may be -1
        if (!(rest >> number)) {
            return false;
        }
        fields[field] = static_cast<uint64_t>(number);
    }
    status.flags = fields[kFlagsField];
    status.cpuTicks = fields[kUserTimeField] + fields[kSystemTimeField];
    status.startTicks = fields[kStartTimeField];
    return true;
}

ProcessTable::ProcessTable(std::string root) : m_root(std::move(root)) {
    std::vector<int> numbers;
    if (!NumbersIn(m_root, numbers)) {
        return;
    }
    for (const int number : numbers) {
        Add(number);
    }
}

std::string ProcessTable::PathOf(int number) const {
    return m_root + "/" + std::to_string(number);
}

void ProcessTable::Add(int number) {
    Process process;
    process.number = number;
    std::string line;
    std::ifstream file(PathOf(number) + "/stat");
    if (!std::getline(file, line) || !ParseProcessStatus(line, process.status)) {
        return;  // it has just ended
    }
    // Neither has descriptors: a thread of the kernel, and a process that has ended and that nobody
    // has waited for yet.
    if ((process.status.flags & kKernelThread) != 0 || process.status.state == 'Z') {
        return;
    }
    process.isReadable = AddDescriptors(process);
    m_unreadable += process.isReadable ? 0U : 1U;
    m_processes.push_back(std::move(process));
}

bool ProcessTable::AddDescriptors(const Process& process) {
    const std::string folder = PathOf(process.number) + "/fd";
    std::vector<int> descriptors;
    if (!NumbersIn(folder, descriptors)) {
        const int error = errno;
        return error != EACCES && error != EPERM;
    }
    for (const int descriptor : descriptors) {
        struct stat status = {};
        if (stat((folder + "/" + std::to_string(descriptor)).c_str(), &status) != 0) {
            continue;  // it has just been closed
        }
        const mode_t type = status.st_mode & S_IFMT;
        if (type == S_IFIFO || type == S_IFSOCK || type == S_IFREG) {
            m_files.push_back({process.number, descriptor, status.st_dev, status.st_ino, type});
        }
    }
    return true;
}

const ProcessTable::Process* ProcessTable::Find(int number) const {
    const auto found =
        std::find_if(m_processes.begin(), m_processes.end(),
                     [number](const Process& process) { return process.number == number; });
    return found == m_processes.end() ? nullptr : &*found;
}

std::string ProcessTable::NameOf(int number) const {
    const Process* const process = Find(number);
    return process == nullptr ? "" : process->status.name;
}

bool ProcessTable::IsOpenFor(const OpenFile& file, Access access) const {
    if (access == Access::kAny) {
        return true;
    }
    std::ifstream info(PathOf(file.process) + "/fdinfo/" + std::to_string(file.descriptor));
    std::string word;
    unsigned flags = 0;
    while (info >> word) {
        if (word == "flags:" && info >> std::oct >> flags) {
            const unsigned mode = flags & O_ACCMODE;
            return mode == O_RDWR || (access == Access::kRead) == (mode == O_RDONLY);
        }
    }
    return false;
}

std::vector<Holder> ProcessTable::HoldersOf(const struct stat& file, Access access) const {
    std::vector<Holder> holders;
    for (const OpenFile& open : m_files) {
        if (open.device == file.st_dev && open.inode == file.st_ino && IsOpenFor(open, access)) {
            holders.push_back({open.process, open.descriptor, NameOf(open.process)});
        }
    }
    return holders;
}

std::vector<Holder> ProcessTable::HoldersOfSocket(uint64_t inode) const {
    std::vector<Holder> holders;
    for (const OpenFile& open : m_files) {
        if (open.type == S_IFSOCK && open.inode == inode) {
            holders.push_back({open.process, open.descriptor, NameOf(open.process)});
        }
    }
    return holders;
}

std::vector<Holder> ProcessTable::MappersOf(const struct stat& file,
                                            const std::string& name) const {
    std::vector<Holder> holders;
    for (const Process& process : m_processes) {
        std::ifstream maps(PathOf(process.number) + "/maps");
        std::string line;
        while (std::getline(maps, line)) {
            // "FROM-TO MODE OFFSET DEVICE INODE PATH". A file system may show another device here
            // than stat does, so the path's last part stands in for it.
            std::istringstream words(line);
            std::string skipped;
            std::string mode;
            uint64_t inode = 0;
            if (words >> skipped >> mode >> skipped >> skipped >> inode && inode == file.st_ino &&
                mode.find('w') != std::string::npos && line.ends_with("/" + name)) {
                holders.push_back({process.number, -1, process.status.name});
                break;
            }
        }
    }
    return holders;
}

}  // namespace tarnctl
