// Messages by the million through a ring of the event queue's size, between ShmEventPipe in one
// process and a peer written from the format alone in another, first one way and then the other.
// Every message is checked for its number and its checksum.
//
//   ring_exchange [messages]     ten million when nothing is given

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "ring/shm_event_pipe.h"
#include "support/independent_ring.h"
#include "support/ring_traffic.h"

namespace {

constexpr uint32_t kTenMillion = 10000000;
constexpr uint32_t kFileSize = 0x40000;
constexpr uint32_t kLargest = 60000;
constexpr uint32_t kSeed = 4711;

bool PipeWrites(const std::string& path, uint32_t messages) {
    ShmEventPipe pipe(WRITER, path, kFileSize);
    if (!pipe.Open(true)) {
        return false;
    }
    RingTraffic traffic(kSeed);
    for (uint32_t number = 0; number < messages; ++number) {
        std::vector<unsigned char> message = traffic.Next(kLargest);
        const auto length = static_cast<uint32_t>(message.size());
        const iovec pieces[] = {{message.data(), 8}, {message.data() + 8, length - 8}};
        const auto write = [&] {
            return number % 2 == 0 ? pipe.write(message.data(), &length) : pipe.write(pieces, 2);
        };
        ShmPipeResult result = write();
        while (result == PIPE_FULL) {
            sched_yield();
            result = write();
        }
        if (result != PIPE_OK) {
            return false;
        }
    }
    return true;
}

bool PipeReads(const std::string& path, uint32_t messages) {
    ShmEventPipe pipe(READER, path, kFileSize);
    if (!pipe.Open(true)) {
        return false;
    }
    std::vector<unsigned char> message(kLargest);
    for (uint32_t number = 0; number < messages;) {
        uint32_t size = kLargest;
        uint32_t status = 0;
        if (pipe.read(message.data(), &size, &status) == PIPE_OK) {
            if (!RingTraffic::IsIntact({message.data(), size}, number++)) {
                std::fprintf(stderr, "message %u is not the one that was sent\n", number - 1);
                return false;
            }
        } else if (status == READ_EMPTY) {
            sched_yield();
        } else {
            std::fprintf(stderr, "message %u: read status %u\n", number, status);
            return false;
        }
    }
    return true;
}

bool PeerWrites(const std::string& path, uint32_t messages) {
    IndependentRing peer(path);
    RingTraffic traffic(kSeed);
    for (uint32_t number = 0; number < messages; ++number) {
        const std::vector<unsigned char>& message = traffic.Next(kLargest);
        while (!peer.Put(message)) {
            sched_yield();
        }
    }
    return true;
}

bool PeerReads(const std::string& path, uint32_t messages) {
    IndependentRing peer(path);
    std::vector<unsigned char> message;
    for (uint32_t number = 0; number < messages; ++number) {
        while (!peer.Take(message)) {
            sched_yield();
        }
        if (!RingTraffic::IsIntact(message, number)) {
            std::fprintf(stderr, "message %u is not the one that was sent\n", number);
            return false;
        }
    }
    return true;
}

using Side = bool (*)(const std::string& path, uint32_t messages);

[[noreturn]] void RunAndExit(Side side, const std::string& path, uint32_t messages) {
    try {
        _exit(side(path, messages) ? 0 : 1);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        _exit(1);
    }
}

// Runs each side in a process of its own and returns whether both ended well. A side that fails
// leaves the other one waiting, so the first to end decides for both.
bool Exchange(const char* title, Side writer, Side reader, uint32_t messages) {
    const std::string path =
        std::filesystem::temp_directory_path() / ("ring-exchange-" + std::to_string(getpid()));
    const auto start = std::chrono::steady_clock::now();
    bool sound = ShmEventPipe(WRITER, path, kFileSize).Create();
    std::vector<pid_t> running;
    for (const Side side : {writer, reader}) {
        const pid_t child = sound ? fork() : -1;
        if (child == 0) {
            RunAndExit(side, path, messages);
        }
        sound = child > 0;
        if (sound) {
            running.push_back(child);
        }
    }
    while (!running.empty()) {
        if (!sound) {
            for (const pid_t child : running) {
                kill(child, SIGKILL);
            }
        }
        int status = 0;
        const pid_t child = waitpid(-1, &status, 0);
        if (child == -1) {
            return false;
        }
        std::erase(running, child);
        sound = sound && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    std::filesystem::remove(path);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    std::printf("%s: %u messages, %.1f s, %s\n", title, messages, seconds.count(),
                sound ? "all intact" : "FAILED");
    std::fflush(stdout);
    return sound;
}

}  // namespace

int main(int argc, char** argv) {
    const auto messages =
        argc > 1 ? static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) : kTenMillion;
    bool sound = Exchange("pipe to peer", PipeWrites, PeerReads, messages);
    sound = Exchange("peer to pipe", PeerWrites, PipeReads, messages) && sound;
    return sound ? EXIT_SUCCESS : EXIT_FAILURE;
}
