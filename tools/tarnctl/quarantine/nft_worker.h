#pragma once

// A process of its own that carries nft scripts out, so that a script can be given up: whatever the
// kernel or the library waits for, the caller goes on in time.
//
// The process is started at the first script, and again after one was given up or after it died. It
// holds none of the caller's descriptors and ignores the signals of a terminal; it ends with its
// caller.
//
// Threads: one at a time.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tarnctl/quarantine/nft_engine.h"

namespace tarnctl {

// What became of a script.
struct NftAnswer {
    enum class Kind {
        kDone,
        kFailed,   // the engine did not carry it out
        kGivenUp,  // no answer came: it may have been carried out, or may still be
        kNotSent,  // the engine has not seen it
        kStale,    // nor now, as the ruleset has another generation than the caller wanted
    };

    Kind kind = Kind::kNotSent;
    std::string text;     // what a question gave, or the reason
    uint32_t before = 0;  // generation of the ruleset before the script, and
    uint32_t after = 0;   // after it; 0: unknown
};

class NftWorker {
  public:
    using Clock = std::chrono::steady_clock;

    enum class Task : uint32_t { kChange, kQuery };

    explicit NftWorker(NftEngineMaker maker);
    ~NftWorker();
    NftWorker(const NftWorker&) = delete;
    NftWorker& operator=(const NftWorker&) = delete;

    // Has a script carried out, and waits for the answer no longer than until `end`. An empty
    // script asks for the generation only. With `onlyAt` above 0, the script is carried out only if
    // the ruleset has that generation.
    [[nodiscard]] NftAnswer Ask(Task task, std::string_view script, Clock::time_point end,
                                uint32_t onlyAt = 0);

    // The process; -1 while there is none.
    [[nodiscard]] pid_t Process() const { return m_process; }

  private:
    // Both return an empty string, or the reason why there is no process.
    [[nodiscard]] std::string Start();
    [[nodiscard]] std::string AwaitTheGivenUp(Clock::time_point end);

    [[nodiscard]] bool Send(std::string_view bytes, Clock::time_point end);
    [[nodiscard]] bool Receive(void* bytes, size_t length, Clock::time_point end);
    void GiveUp();

    const NftEngineMaker m_maker;
    int m_socket = -1;     // owned; the caller's end
    pid_t m_process = -1;  // owned
    pid_t m_givenUp = -1;  // owned; killed, and not yet gone
};

}  // namespace tarnctl
