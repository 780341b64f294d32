#pragma once

// The processes of this machine and what they have open, as /proc shows them at one moment.
//
// A process of another user shows its name and its times to everybody, but its descriptors to the
// superuser only. So whoever asks for the holders of a file also has to ask whether all processes
// could be looked at, before "nobody" is an answer.
//
// Threads: one at a time.

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarnctl {

// The fields of /proc/NUMBER/stat and /proc/NUMBER/task/NUMBER/stat that matter here.
struct ProcessStatus {
    std::string name;
    char state = '?';
    uint64_t flags = 0;       // PF_* of the kernel
    uint64_t cpuTicks = 0;    // user and system time together
    uint64_t startTicks = 0;  // since the machine started
};

// False for a text that is no such line.
[[nodiscard]] bool ParseProcessStatus(std::string_view line, ProcessStatus& status);

struct Holder {
    int process = 0;
    int descriptor = -1;  // -1: the file is mapped
    std::string name;     // of the process

    bool operator==(const Holder&) const = default;
};

class ProcessTable {
  public:
    enum class Access { kAny, kRead, kWrite };

    struct Process {
        int number = 0;
        ProcessStatus status;
        bool isReadable = false;  // its descriptors can be looked at
    };

    // Looks at `root`, which is /proc but in tests.
    explicit ProcessTable(std::string root);

    // False when there is nothing to look at.
    [[nodiscard]] bool IsThere() const { return !m_processes.empty(); }
    [[nodiscard]] const std::vector<Process>& Processes() const { return m_processes; }
    [[nodiscard]] const Process* Find(int number) const;
    // True when the descriptors of every process could be looked at.
    [[nodiscard]] bool IsComplete() const { return m_unreadable == 0; }

    // Who has this file open that way, in the order of the process numbers.
    [[nodiscard]] std::vector<Holder> HoldersOf(const struct stat& file, Access access) const;
    // Who has a socket of this number open.
    [[nodiscard]] std::vector<Holder> HoldersOfSocket(uint64_t inode) const;
    // Who has a file of this number and this last part of its path mapped for writing, each process
    // once.
    [[nodiscard]] std::vector<Holder> MappersOf(const struct stat& file,
                                                const std::string& name) const;

    // "/proc/NUMBER"
    [[nodiscard]] std::string PathOf(int number) const;
    // "/proc/*/fd"
    [[nodiscard]] std::string DescriptorsSource() const { return m_root + "/*/fd"; }

  private:
    struct OpenFile {
        int process = 0;
        int descriptor = -1;
        dev_t device = 0;
        ino_t inode = 0;
        mode_t type = 0;
    };

    void Add(int number);
    [[nodiscard]] bool AddDescriptors(const Process& process);
    [[nodiscard]] bool IsOpenFor(const OpenFile& file, Access access) const;
    [[nodiscard]] std::string NameOf(int number) const;

    const std::string m_root;
    std::vector<Process> m_processes;  // by number
    std::vector<OpenFile> m_files;     // FIFOs, sockets and plain files
    size_t m_unreadable = 0;
};

}  // namespace tarnctl
