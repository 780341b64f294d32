#pragma once

// The control socket of the feeder: tarnctl/common/feed_words.h has what is said on it.
//
// The socket also keeps two feeders of one bookmark apart.
//
// Threads: one at a time; nothing here waits.

#include <poll.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tarnctl/common/socket_file.h"

namespace tarnctl {

class ControlServer {
  public:
    // Answers a word; the answer is one line without its end.
    using Answer = std::function<std::string(const std::string& word)>;

    ControlServer() = default;
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // An empty text, or the reason.
    [[nodiscard]] std::string Open(const std::string& path);

    // Takes connections and words, and answers them.
    void Serve(const Answer& answer);
    // True while the connection that asked for a hold is there and has not released it.
    [[nodiscard]] bool IsHeld() const { return m_holder != -1; }

    // What poll(2) has to look at.
    void AddTo(std::vector<pollfd>& entries) const;

  private:
    struct Client {
        int fd = -1;  // owned
        std::string text;
    };

    // False when the client is gone.
    bool ServeClient(Client& client, const Answer& answer);
    void Accept();

    SocketFile m_socket;
    std::vector<Client> m_clients;
    int m_holder = -1;  // descriptor of the client that holds
};

}  // namespace tarnctl
