#pragma once

// A process of its own that has a ring mapped, as one of its sides or to look.
//
// Threads: the test's own.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>

class RingSide {
  public:
    // Returns once the file is mapped. `name` is the process's.
    RingSide(const std::string& path, int protection, const char* name) {
        std::array<int, 2> ready = {};
        if (pipe(ready.data()) != 0) {
            throw std::runtime_error("no pipe");
        }
        m_process = fork();
        if (m_process == 0) {
            // The child has no mapping of the test's own.
            prctl(PR_SET_NAME, name);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int fd = open(path.c_str(), (protection & PROT_WRITE) != 0 ? O_RDWR : O_RDONLY);
            const bool isMapped = mmap(nullptr, 4096, protection, MAP_SHARED, fd, 0) != MAP_FAILED;
            (void)!write(ready[1], isMapped ? "y" : "n", 1);
            while (true) {
                pause();
            }
        }
        char answer = 'n';
        (void)!read(ready[0], &answer, 1);
        close(ready[0]);
        close(ready[1]);
        if (answer != 'y') {
            throw std::runtime_error("the process cannot map " + path);
        }
    }
    ~RingSide() {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
    RingSide(const RingSide&) = delete;
    RingSide& operator=(const RingSide&) = delete;

    [[nodiscard]] int Process() const { return m_process; }

  private:
    pid_t m_process = -1;
};
