#pragma once

// The security manager's end of its command socket: connections come and go, requests are taken one
// at a time, and no connection waits for another.
//
// Threads: one at a time.

#include <chrono>
#include <cstddef>
#include <list>
#include <span>
#include <string>
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

    // Ends a wait when this descriptor becomes readable; -1 for none.
    void WakeBy(int fd) { m_wakeBy = fd; }

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
    int m_wakeBy = -1;     // borrowed
    Clients m_clients;     // the one that was served last is the last
    bool m_asked = false;  // the last client has a request to be answered
    std::string m_error;
    std::vector<std::byte> m_malformed;
};

}  // namespace tarnctl
