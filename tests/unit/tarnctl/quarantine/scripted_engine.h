#pragma once

// An engine for tests that does what files in a directory say, as it runs in a process of its own:
//
//   changes, queries    every script that it got
//   generation, handle  numbers of the ruleset and of the table; a change raises the first
//   fail, hang, die     how many changes go well before one fails, never ends, or kills the process
//   gone                no element is there
//   longest             how many bytes of a change the kernel takes at once
//   listing             the answer to the question for the whole table
//
// Threads: the worker's process; the files are the test's between two scripts.

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "tarnctl/quarantine/nft_engine.h"

namespace tarnctl {

class ScriptedEngine final : public NftEngine {
  public:
    explicit ScriptedEngine(std::filesystem::path directory) : m_directory(std::move(directory)) {}

    static NftEngineMaker Maker(const std::filesystem::path& directory) {
        return [directory] { return std::make_unique<ScriptedEngine>(directory); };
    }

    NftResult Change(const std::string& script) override {
        Append("changes", script);
        if (IsTurnOf("die")) {
            raise(SIGKILL);
        }
        while (IsTurnOf("hang")) {
            pause();
        }
        if (script.size() > Number("longest", ~0U)) {
            return {.isDone = false, .text = std::string("Error: ") + std::strerror(EMSGSIZE)};
        }
        if (IsTurnOf("fail")) {
            return {.isDone = false, .text = "Error: no such thing\nand more\n"};
        }
        for (const char* const fault : {"die", "hang", "fail"}) {
            if (IsThere(fault)) {
                Write(fault, Number(fault, 0) - 1);
            }
        }
        Write("generation", Number("generation", kFirstGeneration) + 1);
        return {.isDone = true, .text = ""};
    }

    NftResult Query(const std::string& script) override {
        Append("queries", script);
        if (script.starts_with("list tables")) {
            const uint32_t handle = Number("handle", 1);
            return {.isDone = true,
                    .text = R"({"nftables": [{"metainfo": {}}, {"table": {"family": "ip", )"
                            R"("name": "tarn", "handle": 77}}, {"table": {"family": "inet", )"
                            R"("name": "tarn", "handle": )" +
                            std::to_string(handle) + "}}]}"};
        }
        if (script.starts_with("list")) {
            return {.isDone = true, .text = Read("listing")};
        }
        if (IsThere("gone")) {
            return {.isDone = false, .text = std::string("Error: ") + std::strerror(ENOENT)};
        }
        return {.isDone = true, .text = script};
    }

    uint32_t Generation() override { return Number("generation", kFirstGeneration); }

  private:
    static constexpr uint32_t kFirstGeneration = 100;

    bool IsThere(const char* name) const { return std::filesystem::exists(m_directory / name); }
    bool IsTurnOf(const char* fault) const { return IsThere(fault) && Number(fault, 0) == 0; }

    uint32_t Number(const char* name, uint32_t otherwise) const {
        uint32_t number = otherwise;
        std::ifstream(m_directory / name) >> number;
        return IsThere(name) ? number : otherwise;
    }
    std::string Read(const char* name) const {
        std::ifstream file(m_directory / name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void Write(const char* name, uint32_t number) const {
        std::ofstream(m_directory / name) << number;
    }
    void Append(const char* name, const std::string& text) const {
        std::ofstream(m_directory / name, std::ios::app) << text;
    }

    const std::filesystem::path m_directory;
};

}  // namespace tarnctl
