#pragma once

// The serving end of a control socket: lines come in, and each is answered with one line.
//
// Threads: one at a time; nothing here waits. An answer that a client does not read stays here, and
// the client is not heard until it has it.

#include <poll.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tarnctl/common/socket_file.h"

namespace tarnctl {

// Who has said a line.
struct LineClient {
    uint64_t id = 0;  // of the connection; no other one gets it again
    uid_t user = 0;   // of the process that made the connection
};

class LineServer {
  public:
    // The line comes without its end; so does the answer.
    using Answer = std::function<std::string(const LineClient& client, const std::string& line)>;
    using Gone = std::function<void(const LineClient& client)>;

    // A connection with a line of more bytes than this is closed.
    explicit LineServer(size_t longestLine) : m_longestLine(longestLine) {}
    ~LineServer();
    LineServer(const LineServer&) = delete;
    LineServer& operator=(const LineServer&) = delete;

    // The mode is the socket's, as SocketFile has it. An empty text, or the reason.
    [[nodiscard]] std::string Open(const std::string& path,
                                   mode_t mode = SocketFile::kForItsUserOnly);

    // Takes connections and lines, and answers them. Tells of each connection that has ended.
    void Serve(const Answer& answer, const Gone& gone);

    // What poll(2) has to look at.
    void AddTo(std::vector<pollfd>& entries) const;

  private:
    struct Connection {
        int fd = -1;  // owned
        LineClient client;
        std::string text;     // that is no whole line yet
        std::string answers;  // that the client has not read yet
    };

    void Accept();
    // Each is false when the client is gone.
    [[nodiscard]] bool ServeOne(Connection& connection, const Answer& answer);
    [[nodiscard]] bool AnswerLines(Connection& connection, const Answer& answer);
    [[nodiscard]] static bool Send(Connection& connection);

    const size_t m_longestLine;
    SocketFile m_socket;
    std::vector<Connection> m_connections;
    uint64_t m_lastId = 0;
};

}  // namespace tarnctl
