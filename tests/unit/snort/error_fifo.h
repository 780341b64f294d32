#pragma once

// A directory with an error FIFO, a rule file and the CRM's message socket in it, and a reader of
// the three.
//
// Threads: the test's own.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "snort/snort_error_reader.h"
#include "support/temp_dir.h"

class ErrorFifo {
  public:
    ErrorFifo() = default;
    ~ErrorFifo() { CloseWriter(); }
    ErrorFifo(const ErrorFifo&) = delete;
    ErrorFifo& operator=(const ErrorFifo&) = delete;

    [[nodiscard]] std::unique_ptr<SnortErrorReader> MakeReader() const {
        return std::make_unique<SnortErrorReader>(m_path.c_str(), m_socket.c_str(),
                                                  m_rules.c_str());
    }
    void Make() const { (void)mkfifo(m_path.c_str(), 0600); }  // one that is there is as good

    // Snort's end. False while nobody reads the FIFO.
    [[nodiscard]] bool OpenWriter() {
        CloseWriter();
        m_writer = open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        return m_writer != -1;
    }
    void CloseWriter() {
        if (m_writer != -1) {
            close(m_writer);
            m_writer = -1;
        }
    }
    [[nodiscard]] bool Write(const std::string& text) const {
        return write(m_writer, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("errmsgs.fifo");
    const std::string m_socket = m_dir.File("crm");
    const std::string m_rules = m_dir.File("snort.rules");

  private:
    int m_writer = -1;
};
