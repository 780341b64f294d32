#include "tarnctl/selftest/child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

namespace tarnctl {
namespace {

constexpr std::chrono::milliseconds kPause(5);
constexpr std::chrono::milliseconds kEndPatience(1000);

std::string TextOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

Child::Child(const std::vector<std::string>& words, std::string path) : m_path(std::move(path)) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));  // the callee does not change them
    }
    arguments.push_back(nullptr);
    constexpr mode_t kMode = 0600;
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, (m_path + ".out").c_str(), kFlags,
                                     kMode);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (m_path + ".err").c_str(), kFlags,
                                     kMode);
    // Signals that this process ignores would stay ignored.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const int error = posix_spawn(&m_process, words.front().c_str(), &actions, &attributes,
                                  arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        m_process = -1;
        m_error = words.front() + ": " + std::strerror(error);
    }
}

Child::~Child() {
    (void)End(kEndPatience);
}

bool Child::Reap() {
    if (m_process == -1) {
        return true;
    }
    int status = 0;
    const pid_t ended = waitpid(m_process, &status, WNOHANG);
    if (ended == 0) {
        return false;
    }
    m_status = ended == m_process && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    m_process = -1;
    return true;
}

bool Child::IsAlive() {
    return !Reap();
}

int Child::End(std::chrono::milliseconds patience) {
    if (!Reap()) {
        kill(m_process, SIGTERM);
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!Reap() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(kPause);
        }
        Kill();
    }
    return m_status.value_or(-1);
}

void Child::Kill() {
    if (m_process != -1) {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
        m_process = -1;
        m_status = -1;
    }
}

std::string Child::Output() const {
    return TextOf(m_path + ".out");
}

std::string Child::Messages() const {
    return TextOf(m_path + ".err");
}

}  // namespace tarnctl
