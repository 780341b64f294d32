#pragma once

// Standard error of the process goes into memory while this object lives.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <string>

class StderrCapture {
  public:
    StderrCapture() : m_memory(memfd_create("stderr", MFD_CLOEXEC)), m_former(dup(STDERR_FILENO)) {
        fflush(stderr);
        dup2(m_memory, STDERR_FILENO);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    ~StderrCapture() {
        fflush(stderr);
        dup2(m_former, STDERR_FILENO);
        close(m_former);
        close(m_memory);
    }

    // All that was written since the capture began.
    std::string Text() const {
        fflush(stderr);
        std::string text;
        char part[4096];
        for (off_t at = 0;;) {
            const ssize_t got = pread(m_memory, part, sizeof part, at);
            if (got <= 0) {
                return text;
            }
            text.append(part, static_cast<size_t>(got));
            at += got;
        }
    }

  private:
    int m_memory;
    int m_former;
};
