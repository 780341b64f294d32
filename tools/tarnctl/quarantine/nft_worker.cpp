#include "tarnctl/quarantine/nft_worker.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace tarnctl {
namespace {

using Kind = NftAnswer::Kind;
using Clock = NftWorker::Clock;

constexpr int kWorkerSocket = STDERR_FILENO + 1;
constexpr std::chrono::seconds kTimeToDie{1};
constexpr std::chrono::milliseconds kPatienceWithTheGivenUp{100};

// Both ends are this program, so the words need no fixed form.
struct RequestHead {
    NftWorker::Task task;
    uint32_t onlyAt;
    size_t length;
};

struct AnswerHead {
    Kind kind;
    uint32_t before;
    uint32_t after;
    size_t length;
};

int TimeUntil(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

// Waits for the descriptor. False when the time is over.
bool WaitFor(int fd, short events, Clock::time_point end) {
    pollfd entry = {.fd = fd, .events = events, .revents = 0};
    for (;;) {
        const int ready = poll(&entry, 1, TimeUntil(end));
        if (ready != -1 || errno != EINTR) {
            return ready > 0;
        }
    }
}

// Takes the place of the caller's descriptors: only the socket remains, under a number of its own.
bool KeepOnly(int fd) {
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nothing == -1) {
        return false;
    }
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (dup2(nothing, standard) == -1) {
            return false;
        }
    }
    if (fd != kWorkerSocket && dup2(fd, kWorkerSocket) == -1) {
        return false;
    }
    return close_range(kWorkerSocket + 1, ~0U, 0) == 0;
}

// What a terminal or a service manager sends to all processes is for the caller. It
// still needs this one for what it does at its end.
void HeedNoSignal() {
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGHUP, SIGINT, SIGPIPE, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2}) {
        sigaction(number, &action, nullptr);
    }
}

bool ReadAll(void* bytes, size_t length) {
    return length == 0 ||
           recv(kWorkerSocket, bytes, length, MSG_WAITALL) == static_cast<ssize_t>(length);
}

bool WriteAll(const char* bytes, size_t length) {
    while (length > 0) {
        const ssize_t sent = send(kWorkerSocket, bytes, length, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytes += sent;
        length -= static_cast<size_t>(sent);
    }
    return true;
}

// Serves until the caller closes its end.
void ServeCaller(NftEngine& engine) {
    RequestHead request = {};
    while (ReadAll(&request, sizeof(request))) {
        std::string script(request.length, '\0');
        if (!ReadAll(script.data(), script.size())) {
            return;
        }
        AnswerHead answer = {};
        answer.before = engine.Generation();
        NftResult result{.isDone = true, .text = ""};
        const bool isStale = request.onlyAt != 0 && request.onlyAt != answer.before;
        if (!script.empty() && !isStale) {
            result = request.task == NftWorker::Task::kChange ? engine.Change(script)
                                                              : engine.Query(script);
        }
        answer.kind = result.isDone ? Kind::kDone : Kind::kFailed;
        answer.kind = isStale ? Kind::kStale : answer.kind;
        answer.after = engine.Generation();
        answer.length = result.text.size();
        if (!WriteAll(reinterpret_cast<const char*>(&answer), sizeof(answer)) ||
            !WriteAll(result.text.data(), result.text.size())) {
            return;
        }
    }
}

// A caller that is killed takes this process along: its successor makes the table anew, and what
// was still to be done must not come after that.
bool EndsWithCaller(pid_t caller) {
    return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == caller;
}

[[noreturn]] void RunWorker(int fd, const NftEngineMaker& maker, pid_t caller) {
    HeedNoSignal();
    (void)prctl(PR_SET_NAME, "tarnctl-nft");  // a name is a help and nothing more
    if (EndsWithCaller(caller) && KeepOnly(fd)) {
        const std::unique_ptr<NftEngine> engine = maker();
        ServeCaller(*engine);
    }
    _exit(EXIT_SUCCESS);
}

// Waits for a process that was killed. False when it is still there: inside the kernel even a
// killed process goes on until the call is through.
bool HasGone(pid_t process, Clock::time_point end) {
    // The C library declares this call for C only.
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    if (fd != -1) {
        (void)WaitFor(fd, POLLIN, end);  // the wait below has the result
        close(fd);
    }
    return waitpid(process, nullptr, WNOHANG) != 0;
}

}  // namespace

NftWorker::NftWorker(NftEngineMaker maker) : m_maker(std::move(maker)) {}

NftWorker::~NftWorker() {
    const Clock::time_point end = Clock::now() + kTimeToDie;
    if (m_process != -1) {
        close(m_socket);  // by which it ends
        if (!HasGone(m_process, end)) {
            kill(m_process, SIGKILL);
            (void)HasGone(m_process, end + kTimeToDie);
        }
    }
    if (m_givenUp != -1) {
        (void)HasGone(m_givenUp, end);
    }
}

std::string NftWorker::Start() {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return std::strerror(errno);
    }
    const pid_t caller = getpid();
    const pid_t process = fork();
    if (process == 0) {
        RunWorker(ends[1], m_maker, caller);
    }
    const int error = errno;
    close(ends[1]);
    if (process == -1) {
        close(ends[0]);
        return std::strerror(error);
    }
    m_socket = ends[0];
    m_process = process;
    return "";
}

std::string NftWorker::AwaitTheGivenUp(Clock::time_point end) {
    const Clock::time_point patience = std::min(end, Clock::now() + kPatienceWithTheGivenUp);
    if (m_givenUp != -1 && !HasGone(m_givenUp, patience)) {
        return "a change that was given up has not ended yet";
    }
    m_givenUp = -1;
    return "";
}

NftAnswer NftWorker::Ask(Task task, std::string_view script, Clock::time_point end,
                         uint32_t onlyAt) {
    NftAnswer answer;
    if (m_process != -1 && waitpid(m_process, nullptr, WNOHANG) == m_process) {
        close(std::exchange(m_socket, -1));  // it died since the last script; no harm is done
        m_process = -1;
    }
    if (m_process == -1) {
        answer.text = AwaitTheGivenUp(end);
        answer.text = answer.text.empty() ? Start() : answer.text;
        if (!answer.text.empty()) {
            return answer;
        }
    }
    answer.kind = Kind::kGivenUp;
    const RequestHead request = {.task = task, .onlyAt = onlyAt, .length = script.size()};
    std::string bytes(reinterpret_cast<const char*>(&request), sizeof(request));
    AnswerHead head = {};
    const bool isAnswered = Send(bytes.append(script), end) && Receive(&head, sizeof(head), end);
    if (isAnswered) {
        answer.text.resize(head.length);
    }
    if (!isAnswered || !Receive(answer.text.data(), answer.text.size(), end)) {
        answer.text = Clock::now() < end ? "the process that changes the table has ended"
                                         : "no answer of the kernel in time";
        GiveUp();
        return answer;
    }
    answer.kind = head.kind;
    answer.before = head.before;
    answer.after = head.after;
    return answer;
}

bool NftWorker::Send(std::string_view bytes, Clock::time_point end) {
    while (!bytes.empty()) {
        if (!WaitFor(m_socket, POLLOUT, end)) {
            return false;
        }
        const ssize_t sent =
            send(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

bool NftWorker::Receive(void* bytes, size_t length, Clock::time_point end) {
    char* place = static_cast<char*>(bytes);
    while (length > 0) {
        if (!WaitFor(m_socket, POLLIN, end)) {
            return false;
        }
        const ssize_t got = recv(m_socket, place, length, MSG_DONTWAIT);
        if (got <= 0) {
            return false;
        }
        place += got;
        length -= static_cast<size_t>(got);
    }
    return true;
}

// The process is not waited for here: what it is caught in may last.
void NftWorker::GiveUp() {
    close(m_socket);
    kill(m_process, SIGKILL);
    m_givenUp = std::exchange(m_process, -1);
    m_socket = -1;
}

}  // namespace tarnctl
