#pragma once

// A stand-in for the peer of a request and response socket. It listens on a path, takes one
// connection after the other, and lets a script of the test's act on each. The scripts decide
// whether it behaves: answers may be short, long, late, cut or missing.
//
// Threads: scripts run on the stand-in's own; Keep and Requests may be called by any.

#include <linux/sockios.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/bound_socket.h"

class StreamPeer {
  public:
    using Bytes = BoundSocket::Bytes;

    // One connection, closed at the end of its script.
    class Session {
      public:
        Session(int fd, int stop) : m_fd(fd), m_stop(stop) {}

        // Up to length bytes; fewer when the client closes or the stand-in is to end.
        Bytes Read(size_t length) const {
            Bytes bytes;
            while (bytes.size() < length && AwaitInput()) {
                uint8_t piece[4096];
                const size_t rest = length - bytes.size();
                const ssize_t got =
                    recv(m_fd, piece, rest < sizeof(piece) ? rest : sizeof(piece), 0);
                if (got <= 0) {
                    break;
                }
                bytes.insert(bytes.end(), piece, piece + got);
            }
            return bytes;
        }

        // One whole request, header and body.
        Bytes ReadRequest() const {
            Bytes frame = Read(8);
            if (frame.size() == 8) {
                uint32_t length = 0;
                std::memcpy(&length, frame.data() + 4, sizeof(length));
                const Bytes body = Read(length);
                frame.insert(frame.end(), body.begin(), body.end());
            }
            return frame;
        }

        int Descriptor() const { return m_fd; }

        void Send(const Bytes& bytes) const {
            (void)send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);  // a client may be gone
        }
        void SendWords(uint32_t first, uint32_t second) const {
            Bytes bytes(8);
            std::memcpy(bytes.data(), &first, 4);
            std::memcpy(bytes.data() + 4, &second, 4);
            Send(bytes);
        }

        // Waits until the client has taken all that was sent.
        void AwaitTaken() const {
            int pending = 1;
            while (ioctl(m_fd, SIOCOUTQ, &pending) == 0 && pending > 0) {
                std::this_thread::yield();
            }
        }

        // Says nothing more until the client closes or the stand-in is to end.
        void StaySilent() const {
            while (!Read(4096).empty()) {
            }
        }

      private:
        bool AwaitInput() const {
            pollfd fds[] = {{m_fd, POLLIN, 0}, {m_stop, POLLIN, 0}};
            return poll(fds, 2, -1) > 0 && fds[1].revents == 0;
        }

        int m_fd;
        int m_stop;
    };
    using Script = std::function<void(Session&)>;

    // The first connection gets the first script, and so on; the last one serves all that follow.
    StreamPeer(std::string path, std::vector<Script> scripts)
        : m_listener(SOCK_STREAM, std::move(path)), m_scripts(std::move(scripts)) {
        if (listen(m_listener.Descriptor(), 16) != 0) {
            throw std::runtime_error("the stand-in cannot listen");
        }
        m_thread = std::thread([this] { Run(); });
    }
    StreamPeer(std::string path, Script script)
        : StreamPeer(std::move(path), std::vector<Script>{std::move(script)}) {}

    ~StreamPeer() {
        const uint64_t one = 1;
        (void)!write(m_stop, &one, sizeof(one));
        m_thread.join();
        close(m_stop);
    }
    StreamPeer(const StreamPeer&) = delete;
    StreamPeer& operator=(const StreamPeer&) = delete;

    // Keeps a request for the test to look at; for scripts.
    void Keep(Bytes request) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back(std::move(request));
    }
    std::vector<Bytes> Requests() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

  private:
    void Run() {
        for (size_t turn = 0;; ++turn) {
            pollfd fds[] = {{m_listener.Descriptor(), POLLIN, 0}, {m_stop, POLLIN, 0}};
            if (poll(fds, 2, -1) <= 0 || fds[1].revents != 0) {
                return;
            }
            const int fd = accept4(m_listener.Descriptor(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                return;
            }
            Session session(fd, m_stop);
            m_scripts[turn < m_scripts.size() ? turn : m_scripts.size() - 1](session);
            close(fd);
        }
    }

    const BoundSocket m_listener;
    const std::vector<Script> m_scripts;
    int m_stop = eventfd(0, EFD_CLOEXEC);
    mutable std::mutex m_mutex;
    std::vector<Bytes> m_requests;
    std::thread m_thread;
};
