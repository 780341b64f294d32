#pragma once

// A CRM channel of this test process's own, so that tests beside each other and a daemon on the
// same machine do not meet in one ring. Its ring files are gone when it is.

#include <unistd.h>

#include <string>

#include "config/config.h"
#include "paths.h"

class PrivateChannel {
  public:
    PrivateChannel() : m_former(Config::s_engineCrm), m_id(kFirst + getpid() % kSpan) {
        Config::s_engineCrm = m_id;
    }
    ~PrivateChannel() {
        Config::s_engineCrm = m_former;
        for (const char* const suffix : {"-0", "-1"}) {
            unlink((RingBase() + suffix).c_str());
        }
    }
    PrivateChannel(const PrivateChannel&) = delete;
    PrivateChannel& operator=(const PrivateChannel&) = delete;

    [[nodiscard]] int Id() const { return m_id; }
    // The path of the channel's rings without their suffix.
    [[nodiscard]] std::string RingBase() const {
        return tarn::paths::kEventQueueBase + std::string("CRM") + std::to_string(m_id);
    }

  private:
    static constexpr int kFirst = 100000;
    static constexpr int kSpan = 4194304;  // as many as there are process numbers

    int m_former;
    int m_id;
};
