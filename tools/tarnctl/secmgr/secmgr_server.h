#pragma once

// The security manager's end of its command socket: connections come and go, requests are taken one
// at a time, and no connection waits for another.
//
// Threads: one at a time.

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tarnctl/common/socket_file.h"
#include "tarnctl/secmgr/secmgr_answer.h"
#include "tarnctl/secmgr/secmgr_frames.h"

namespace tarnctl {

class SecmgrServer {
  public:
    enum class Result {
        kNothing,    // nothing came within the time, or only a part of a request
        kRequest,    // to be answered with Answer()
        kMalformed,  // a connection was closed for the reason in Error()
    };

    SecmgrServer() = default;
    ~SecmgrServer();
    SecmgrServer(const SecmgrServer&) = delete;
    SecmgrServer& operator=(const SecmgrServer&) = delete;

    // Returns an empty string, or the reason why it failed.
    [[nodiscard]] std::string Open(const std::string& path);

    // Waits up to this long, and not at all when there is something already.
    [[nodiscard]] Result Next(SecmgrRequest& request, std::chrono::milliseconds time);

    // Ends a wait when what this adds to the entries of poll(2) becomes ready.
    void WakeBy(std::function<void(std::vector<pollfd>&)> add) { m_addWakers = std::move(add); }

    // Answers the request of the last call to Next. False when the client does not take it, which
    // closes its connection.
    bool Answer(const SecmgrAnswer& answer);

    [[nodiscard]] const std::string& Error() const { return m_error; }
    // What had come of it and was not taken out.
    [[nodiscard]] std::span<const std::byte> Malformed() const { return m_malformed; }
    [[nodiscard]] size_t Connections() const { return m_clients.size(); }

  private:
    struct Client {
        int fd;  // owned
        SecmgrFrames frames;
        bool isReadable = false;
    };
    using Clients = std::list<Client>;

    [[nodiscard]] Result FromWhatIsThere(SecmgrRequest& request);
    void KeepMalformed(const Client& client, std::string reason);
    void Wait(std::chrono::milliseconds time);
    void Accept();
    // False when the connection has ended.
    [[nodiscard]] static bool Read(Client& client);
    Clients::iterator Close(Clients::iterator client);

    SocketFile m_socket;
    std::function<void(std::vector<pollfd>&)> m_addWakers;
    Clients m_clients;     // the one that was served last is the last
    bool m_asked = false;  // the last client has a request to be answered
    std::string m_error;
    std::vector<std::byte> m_malformed;
};

}  // namespace tarnctl
