#include "tarnctl/crm/redis_sink.h"

#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <utility>

#include "tarnctl/common/failure_text.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

// A server that is silent for so long with lines under way is gone, though no packet says so.
constexpr std::chrono::seconds kSilence{5};

struct FreeReply {
    void operator()(redisReply* reply) const { freeReplyObject(reply); }
};

// HOST:PORT or [ADDRESS]:PORT. False when it is neither.
bool SplitServer(std::string_view server, std::string& host, uint16_t& port) {
    const size_t colon = server.rfind(':');
    if (colon == std::string_view::npos || colon == 0) {
        return false;
    }
    std::string_view name = server.substr(0, colon);
    const std::string_view digits = server.substr(colon + 1);
    if (name.front() == '[' && name.back() == ']') {
        name = name.substr(1, name.size() - 2);
    } else if (name.find(':') != std::string_view::npos) {
        return false;  // an address whose last part would pass for a port
    }
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    host = name;
    return error == std::errc() && end == digits.data() + digits.size() && port != 0 &&
           !host.empty();
}

}  // namespace

RedisSink::RedisSink(const std::string& server, std::string stream, uint64_t limit)
    : ReportSink("redis", server + ' ' + stream),
      m_server(server),
      m_stream(std::move(stream)),
      m_limit(std::to_string(limit)) {}

RedisSink::~RedisSink() {
    Disconnect();
}

std::string RedisSink::Open() {
    constexpr std::string_view kSocket = "unix:";
    if (m_server.starts_with(kSocket) && m_server.size() > kSocket.size()) {
        m_host = m_server.substr(kSocket.size());
    } else if (!SplitServer(m_server, m_host, m_port)) {
        return "--redis " + m_server +
               ": name the server as HOST:PORT, [ADDRESS]:PORT or unix:PATH";
    }
    (void)Connect();  // a server that is away is tried again at each offer
    return "";
}

bool RedisSink::Connect() {
    m_context = m_port == 0 ? redisConnectUnixNonBlock(m_host.c_str())
                            : redisConnectNonBlock(m_host.c_str(), m_port);
    if (m_context == nullptr || m_context->err != 0) {
        FailAtConnection();
        return false;
    }
    m_lastAnswer = Clock::now();
    return true;
}

void RedisSink::Disconnect() {
    if (m_context != nullptr) {
        redisFree(m_context);
        m_context = nullptr;
    }
    m_isConnected = false;
    m_isAllSent = true;
    m_underWay.clear();
    m_sent = 0;
}

void RedisSink::Reopen() {
    Disconnect();
    SetWell();
}

void RedisSink::Fail(const std::string& reason) {
    SetAway(Target() + ": " + reason);
    Disconnect();
}

// After a call of the library that has failed; errno is that of the call.
void RedisSink::FailAtConnection() {
    const int error = errno;
    if (m_context == nullptr || m_context->err == REDIS_ERR_IO) {
        if (error == ECONNREFUSED || error == ENOENT) {
            Fail("nobody listens");
        } else if (error == EPIPE || error == ECONNRESET) {
            Fail("the other end has closed");
        } else {
            const std::string text = FailureText(Target(), error);
            Disconnect();
            SetAway(text);
        }
    } else if (m_context->err == REDIS_ERR_EOF) {
        Fail("the other end has closed");
    } else {
        Fail(ForTerminal(m_context->errstr));
    }
}

bool RedisSink::IsConnected(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd entry = {.fd = m_context->fd, .events = POLLOUT, .revents = 0};
    if (!m_isConnected &&
        poll(&entry, 1, static_cast<int>(std::max<int64_t>(0, left.count()))) == 1) {
        int error = 0;
        socklen_t size = sizeof error;
        if (getsockopt(m_context->fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) {
            m_context->err = REDIS_ERR_IO;
            errno = error == 0 ? errno : error;
            FailAtConnection();
            return false;
        }
        m_isConnected = true;
        m_lastAnswer = Clock::now();
    }
    if (!m_isConnected && Clock::now() - m_lastAnswer > kSilence) {
        Fail("no answer to the attempt to connect");
    }
    return m_isConnected;
}

void RedisSink::Send(std::string_view lines) {
    if (m_underWay.empty()) {
        m_lastAnswer = Clock::now();
    }
    while (!lines.empty()) {
        const size_t end = lines.find('\n');
        const std::array<std::string_view, 8> words = {
            "XADD", m_stream, "MAXLEN", "~", m_limit, "*", "eve", lines.substr(0, end)};
        std::array<const char*, words.size()> texts = {};
        std::array<size_t, words.size()> sizes = {};
        for (size_t i = 0; i < words.size(); ++i) {
            texts[i] = words[i].data();
            sizes[i] = words[i].size();
        }
        if (redisAppendCommandArgv(m_context, static_cast<int>(words.size()), texts.data(),
                                   sizes.data()) != REDIS_OK) {
            return;  // no memory; the line stays where it is and is sent later
        }
        m_isAllSent = false;
        m_underWay.push_back(end + 1);
        m_sent += end + 1;
        lines.remove_prefix(end + 1);
    }
}

// Sends and receives what can be without a wait beyond the deadline. False after a failure.
bool RedisSink::Exchange(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd entry = {.fd = m_context->fd,
                    .events = static_cast<short>(m_isAllSent ? POLLIN : POLLIN | POLLOUT),
                    .revents = 0};
    if (poll(&entry, 1, static_cast<int>(std::max<int64_t>(0, left.count()))) != 1) {
        return true;
    }
    int done = 0;
    if ((entry.revents & ~POLLOUT) != 0 && redisBufferRead(m_context) != REDIS_OK) {
        FailAtConnection();
        return false;
    }
    if (!m_isAllSent && redisBufferWrite(m_context, &done) != REDIS_OK) {
        FailAtConnection();
        return false;
    }
    m_isAllSent = m_isAllSent || done != 0;
    return true;
}

// Returns the bytes of the lines whose answers have come. One that the server has refused ends the
// connection, with what is under way behind it: it is offered again, in its order.
size_t RedisSink::TakeAnswers() {
    size_t taken = 0;
    while (!m_underWay.empty()) {
        void* answer = nullptr;
        if (redisGetReplyFromReader(m_context, &answer) != REDIS_OK) {
            FailAtConnection();
            return taken;
        }
        const std::unique_ptr<redisReply, FreeReply> reply(static_cast<redisReply*>(answer));
        if (reply == nullptr) {
            break;
        }
        if (reply->type == REDIS_REPLY_ERROR) {
            Fail(ForTerminal(std::string_view(reply->str, static_cast<size_t>(reply->len))));
            return taken;
        }
        m_lastAnswer = Clock::now();
        taken += m_underWay.front();
        m_sent -= m_underWay.front();
        m_underWay.pop_front();
    }
    return taken;
}

size_t RedisSink::Take(std::string_view lines) {
    const auto deadline = Clock::now() + kPatience;
    if (!IsDue() || (m_context == nullptr && !Connect()) || !IsConnected(deadline)) {
        return 0;
    }
    Send(lines.substr(m_sent));
    size_t taken = 0;
    while (!m_underWay.empty() && Clock::now() < deadline && Exchange(deadline)) {
        taken += TakeAnswers();
    }
    if (m_context == nullptr) {
        return taken;
    }
    if (!m_underWay.empty() && Clock::now() - m_lastAnswer > kSilence) {
        Fail("no answer for " + std::to_string(kSilence.count()) + " seconds");
    } else if (taken != 0) {
        SetWell();
    }
    return taken;
}

}  // namespace tarnctl
