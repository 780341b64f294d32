#include "tarnctl/quarantine/nft_quarantine.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "tarnctl/common/text_forms.h"
#include "tarnctl/quarantine/nft_script.h"

namespace tarnctl {
namespace {

// A file in memory, by which text goes in and out of a child whatever its length: with pipes each
// side could wait for the other.
class MemoryFile {
  public:
    explicit MemoryFile(const char* name) : m_fd(memfd_create(name, MFD_CLOEXEC)) {}
    ~MemoryFile() {
        if (m_fd != -1) {
            close(m_fd);
        }
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    [[nodiscard]] int Descriptor() const { return m_fd; }

    [[nodiscard]] bool Fill(const std::string& text) const {
        return m_fd != -1 &&
               write(m_fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
               lseek(m_fd, 0, SEEK_SET) == 0;
    }

    // The first line, shortened if it is very long.
    [[nodiscard]] std::string FirstLine() const {
        std::array<char, 512> bytes = {};
        const ssize_t length = pread(m_fd, bytes.data(), bytes.size(), 0);
        const std::string text(bytes.data(), length < 0 ? 0 : static_cast<std::size_t>(length));
        return ForTerminal(text.substr(0, text.find('\n')));
    }

  private:
    const int m_fd;
};

class SpawnActions {
  public:
    SpawnActions() { posix_spawn_file_actions_init(&m_actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&m_actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;

    void Connect(int from, int to) { posix_spawn_file_actions_adddup2(&m_actions, from, to); }
    [[nodiscard]] const posix_spawn_file_actions_t* Get() const { return &m_actions; }

  private:
    posix_spawn_file_actions_t m_actions = {};
};

}  // namespace

NftQuarantine::NftQuarantine(std::string command) : m_command(std::move(command)) {}

std::string NftQuarantine::Open() {
    m_sets.clear();
    return Run(NftFreshTable());
}

std::string NftQuarantine::Apply(const QuarantineParts& parts, int64_t seconds) {
    const NftElement element = ToNftElement(parts);
    const bool isNewSet = !m_sets.contains(element.set);
    std::string reason =
        Run((isNewSet ? NftAddSet(element) : std::string()) + NftAddElement(element, seconds));
    if (reason.empty()) {
        m_sets.insert(element.set);
    }
    return reason;
}

std::string NftQuarantine::Remove() {
    m_sets.clear();
    return Run(NftNoTable());
}

std::string NftQuarantine::Run(const std::string& script) const {
    const MemoryFile input("nft-script");
    const MemoryFile errors("nft-errors");
    if (!input.Fill(script) || errors.Descriptor() == -1) {
        return std::string("nft: ") + std::strerror(errno);
    }
    SpawnActions actions;
    actions.Connect(input.Descriptor(), STDIN_FILENO);
    actions.Connect(errors.Descriptor(), STDOUT_FILENO);
    actions.Connect(errors.Descriptor(), STDERR_FILENO);
    std::array<std::string, 3> words = {"nft", "-f", "-"};
    std::array<char*, 4> arguments = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    std::string language = "LC_ALL=C";
    std::array<char*, 2> environment = {language.data(), nullptr};

    pid_t child = 0;
    const int error = posix_spawn(&child, m_command.c_str(), actions.Get(), nullptr,
                                  arguments.data(), environment.data());
    if (error != 0) {
        return m_command + ": " + std::strerror(error) + "; install nftables";
    }
    int status = 0;
    while (waitpid(child, &status, 0) == -1) {
        if (errno != EINTR) {
            return std::string("nft: ") + std::strerror(errno);
        }
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return "";
    }
    const std::string told = errors.FirstLine();
    const bool isForbidden = told.find(std::strerror(EPERM)) != std::string::npos;
    return "nft: " + (told.empty() ? "ended without a word" : told) +
           (isForbidden ? "; run this as root or with CAP_NET_ADMIN" : "");
}

}  // namespace tarnctl
