#pragma once

// One sub-command as the registry (tarnctl/sub_commands.cpp) keeps it: a pair of functions and the
// options that both share.
//
//   CLI::App* AddX(CLI::App& app, XOptions& options)       declares the sub-command with its
//   options int RunX(const XOptions&, std::ostream& out, std::ostream& err)       returns an exit
//   status
//
// Options that derive from Display get `--color` and know their terminal.
//
// Threads: one at a time.

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <memory>
#include <type_traits>

#include "tarnctl/common/display.h"

namespace tarnctl {

class SubCommand {
  public:
    SubCommand() = default;
    virtual ~SubCommand() = default;
    SubCommand(const SubCommand&) = delete;
    SubCommand& operator=(const SubCommand&) = delete;

    // The command belongs to `app`, which must not outlive this object.
    virtual CLI::App* Add(CLI::App& app) = 0;
    // Runs with what was parsed. Returns an exit status.
    [[nodiscard]] virtual int Run(std::ostream& out, std::ostream& err) = 0;
};

template <typename Function>
struct OptionsOfAdd;
template <typename Options>
struct OptionsOfAdd<CLI::App* (*)(CLI::App&, Options&)> {
    using Type = Options;
};

// The sub-command of a pair AddX and RunX.
template <auto AddFunction, auto RunFunction>
std::unique_ptr<SubCommand> MakeSubCommand() {
    using Options = typename OptionsOfAdd<decltype(AddFunction)>::Type;
    static constexpr bool kHasDisplay = std::is_base_of_v<Display, Options>;

    class Pair final : public SubCommand {
      public:
        CLI::App* Add(CLI::App& app) override {
            CLI::App* const command = AddFunction(app, m_options);
            if constexpr (kHasDisplay) {
                AddColorOption(*command, m_options);
            }
            return command;
        }
        int Run(std::ostream& out, std::ostream& err) override {
            if constexpr (kHasDisplay) {
                m_options.Resolve();
            }
            return RunFunction(m_options, out, err);
        }

      private:
        Options m_options;
    };
    return std::make_unique<Pair>();
}

}  // namespace tarnctl
