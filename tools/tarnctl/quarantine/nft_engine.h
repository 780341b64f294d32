#pragma once

// What carries scripts in the language of nft(8) out. The real one is NftKernel; tests put another
// in its place.
//
// Threads: one at a time. An NftWorker makes and uses it in a process of its own, because an
// operation may take as long as the kernel lets it wait.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tarnctl {

struct NftResult {
    bool isDone = false;
    std::string text;  // what a question gave, or why the script was not carried out
};

class NftEngine {
  public:
    NftEngine() = default;
    virtual ~NftEngine() = default;
    NftEngine(const NftEngine&) = delete;
    NftEngine& operator=(const NftEngine&) = delete;

    // Carries a script out, whole or not at all.
    [[nodiscard]] virtual NftResult Change(const std::string& script) = 0;

    // Carries out a script that changes nothing; the text is JSON.
    [[nodiscard]] virtual NftResult Query(const std::string& script) = 0;

    // The number of the ruleset, which the kernel raises by one with each change of any table. The
    // end of an element's time does not raise it. 0: unknown.
    [[nodiscard]] virtual uint32_t Generation() = 0;
};

// Makes an engine. Runs in the worker's process.
using NftEngineMaker = std::function<std::unique_ptr<NftEngine>()>;

}  // namespace tarnctl
