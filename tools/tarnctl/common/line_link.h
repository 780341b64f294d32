#pragma once

// The client's end of a control socket: a line goes out, and one JSON object a line comes back.
//
// Threads: one at a time.

#include <nlohmann/json.hpp>
#include <string>

namespace tarnctl {

class LineLink {
  public:
    // `server` is what serves there, in a word; `advice` what to do when nobody does.
    LineLink(std::string server, std::string advice);
    // Ends the connection.
    ~LineLink();
    LineLink(const LineLink&) = delete;
    LineLink& operator=(const LineLink&) = delete;

    // An empty text, or the reason.
    [[nodiscard]] std::string Open(const std::string& path);

    // Says a line, which is given without its end, and waits for the answer. An empty text, or the
    // reason.
    [[nodiscard]] std::string Ask(const std::string& line, nlohmann::ordered_json& answer);

  private:
    const std::string m_server;
    const std::string m_advice;
    std::string m_path;
    int m_fd = -1;  // owned
    std::string m_text;
};

}  // namespace tarnctl
