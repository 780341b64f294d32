#pragma once

// The client's end of a feeder's control socket; tarnctl/common/feed_words.h has what is said.
//
// Threads: one at a time.

#include <nlohmann/json.hpp>
#include <string>

namespace tarnctl {

class FeederLink {
  public:
    FeederLink() = default;
    // Ends a hold, if there is one.
    ~FeederLink();
    FeederLink(const FeederLink&) = delete;
    FeederLink& operator=(const FeederLink&) = delete;

    // An empty text, or the reason.
    [[nodiscard]] std::string Open(const std::string& path);

    // Says a word and waits for the answer. An empty text, or the reason.
    [[nodiscard]] std::string Ask(const std::string& word, nlohmann::ordered_json& answer);

  private:
    std::string m_path;
    int m_fd = -1;  // owned
    std::string m_text;
};

}  // namespace tarnctl
