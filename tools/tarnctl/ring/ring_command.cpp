#include "tarnctl/ring/ring_command.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <thread>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/descriptor_output.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/number_checks.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/ring/ring_repair.h"
#include "tarnctl/ring/ring_text.h"
#include "tarnctl/rings/known_rings.h"
#include "tarnctl/rings/ring_state.h"
#include "tarnctl/rings/ring_users.h"

namespace tarnctl {
namespace {

constexpr const char* kExamples =
    R"(show lists what waits and takes nothing. check looks twice and names what can never move
again. repair mends a ring whose reader is stopped; tarn may run. reset empties a ring that nobody
uses. RING is a path, crm or crmN for both rings of channel N (2 where no number is given), crmN-0
or crmN-1 for one of them, or packetlogN. Without a name show and check look at all rings here.

Examples:
  tarnctl ring show
  tarnctl ring show crm3-0 --count 0 --json | jq .listed
  tarnctl ring check                       exit status 1 when a ring is damaged
  tarnctl ring repair crm2-0               after the CRM was killed and takes nothing
  tarnctl ring reset --yes packetlog0      with tarn and the reader stopped)";

constexpr int kExitNotChecked = 2;

using Json = nlohmann::ordered_json;

std::string CheckAction(const std::string& word) {
    const bool isKnown = word == "show" || word == "check" || word == "repair" || word == "reset";
    return isKnown ? "" : word + " is none of show, check, repair and reset";
}

class Rings {
  public:
    Rings(const RingOptions& options, std::ostream& out, std::ostream& err)
        : m_options(options), m_out(out), m_err(err) {}

    int Run() {
        if (!FindPlaces()) {
            return m_options.action == "check" ? kExitNotChecked : kExitFailure;
        }
        if (m_options.action == "show") {
            return ShowAll();
        }
        if (m_options.action == "check") {
            return CheckAll();
        }
        bool isDone = true;
        for (const RingPlace& place : m_places) {
            isDone = (m_options.action == "repair" ? RepairOne(place) : ResetOne(place)) && isDone;
        }
        return isDone ? kExitFine : kExitFailure;
    }

  private:
    void Tell(const std::string& text) { m_err << "tarnctl ring: " << text << std::endl; }

    // Says in front of a text which ring it is about.
    static std::string Of(const RingPlace& place, const std::string& text) {
        return text.starts_with(place.path) ? text : place.path + ": " + text;
    }

    bool FindPlaces() {
        for (const std::string& word : m_options.rings) {
            std::vector<RingPlace> named = RingsNamed(word);
            if (named.empty()) {
                Tell(word + " is no ring: name a path, crmN, crmN-0, crmN-1 or packetlogN");
                return false;
            }
            // The halves of a channel that was named as a whole need not both be there.
            if (named.size() > 1) {
                std::erase_if(named, [](const RingPlace& place) {
                    return access(place.path.c_str(), F_OK) != 0;
                });
                if (named.empty()) {
                    Tell(RingsNamed(word).front().path +
                         ": there is no such ring; start tarn, or check "
                         "the channel");
                    return false;
                }
            }
            m_places.insert(m_places.end(), named.begin(), named.end());
        }
        if (m_places.empty() && m_options.rings.empty()) {
            if (m_options.action == "repair" || m_options.action == "reset") {
                Tell("name the ring to " + m_options.action);
                return false;
            }
            m_places = RingsHere();
            if (m_places.empty()) {
                Tell("there are no rings on this machine; start tarn, which makes them");
                return false;
            }
        }
        return true;
    }

    int ShowAll() {
        bool isFine = true;
        for (const RingPlace& place : m_places) {
            RingWalker walker;
            if (!walker.Open(place.path)) {
                Tell(walker.Error());
                isFine = false;
                continue;
            }
            ShowOne(place, walker);
            if (StopRequested() || IsReaderGone(m_out)) {
                break;
            }
        }
        return isFine ? kExitFine : kExitFailure;
    }

    void ShowOne(const RingPlace& place, RingWalker& walker) {
        const RingState state = LookAtState(walker);
        Json object = RingAsJson(place, state);
        Json listed = Json::array();
        if (!m_options.json) {
            Line(Painted(RingTitle(place), Color::kBold, m_options.color));
            Line("  " + HeadText(state));
            if (state.fault != RingFault::kNone) {
                Line("  " + Painted(FaultText(state), Color::kRed, m_options.color));
            }
        }
        walker.Restart();
        uint64_t shown = 0;
        while ((m_options.count == 0 || shown < m_options.count) && !StopRequested() && m_out &&
               walker.Next() == WalkResult::kMessage) {
            ++shown;
            if (m_options.json) {
                listed.push_back(MessageAsJson(walker.BodyAt(), walker.Body()));
            } else {
                Line(MessageAsLine(place, walker.BodyAt(), walker.Body(), Uncut()));
            }
        }
        if (m_options.json) {
            object["listed"] = std::move(listed);
            m_out << object.dump() << std::endl;
        } else if (state.messages > shown) {
            Line("  and " + std::to_string(state.messages - shown) + " more; --count 0 shows all");
        }
    }

    // The whole line is cut, and not what follows its indent.
    [[nodiscard]] Display Uncut() const {
        const Display& asked = m_options;
        Display display = asked;
        display.wide = true;
        return display;
    }
    void Line(const std::string& text) {
        m_out << CutToWidth(text, m_options.Width()) << std::endl;
    }

    // Looks at all rings, waits, and looks again at those at fault.
    int CheckAll() {
        struct Checked {
            explicit Checked(const RingPlace& itsPlace) : place(itsPlace) {}
            const RingPlace& place;
            RingWalker walker;
            RingState first;
        };
        std::vector<std::unique_ptr<Checked>> suspects;
        int status = kExitFine;
        for (const RingPlace& place : m_places) {
            auto checked = std::make_unique<Checked>(place);
            if (!checked->walker.Open(place.path)) {
                Tell(checked->walker.Error());
                status = kExitNotChecked;
                continue;
            }
            checked->first = LookAtState(checked->walker);
            if (checked->first.fault == RingFault::kNone) {
                ShowChecked(place, checked->first);
            } else {
                suspects.push_back(std::move(checked));
            }
        }
        if (!suspects.empty()) {
            std::this_thread::sleep_for(Interval());
        }
        for (const auto& checked : suspects) {
            RingState second = LookAtState(checked->walker);
            if (!IsSameFault(checked->first, second)) {
                second.fault = RingFault::kNone;  // it moves
            }
            ShowChecked(checked->place, second);
            if (second.fault != RingFault::kNone && status == kExitFine) {
                status = kExitFailure;
            }
        }
        return status;
    }

    void ShowChecked(const RingPlace& place, const RingState& state) {
        if (m_options.json) {
            m_out << RingAsJson(place, state).dump() << std::endl;
            return;
        }
        if (state.fault == RingFault::kNone) {
            Line(place.name + ": fine, " + Counted(state.messages, "message") + " in " +
                 Counted(state.look.used, "byte"));
            return;
        }
        const std::string word = state.IsStuck() ? "stuck" : "damaged";
        Line(place.name + ": " + Painted(word, Color::kRed, m_options.color) + ": " +
             FaultText(state));
        Line("  " + FaultMeaning(state));
        const std::string users = UsersText(UsersOfRing(place.path, m_options.writer).users);
        if (!users.empty()) {
            Line("  mapped by " + users);
        }
        if (state.IsStuck()) {
            Line("  stop the reader and run: tarnctl ring repair " + place.name);
        }
    }

    [[nodiscard]] RepairOptions OptionsOfRepair() const {
        return {Interval(), m_options.writer, m_options.force};
    }

    bool RepairOne(const RingPlace& place) {
        return Report(place, RepairRing(place, OptionsOfRepair()));
    }

    bool ResetOne(const RingPlace& place) {
        if (!m_options.yes && !IsWanted(place)) {
            return false;
        }
        return Report(place, ResetRing(place, OptionsOfRepair()));
    }

    bool IsWanted(const RingPlace& place) {
        if (isatty(STDIN_FILENO) != 1) {
            Tell(place.path + " is not emptied: there is no terminal to ask at; use --yes");
            return false;
        }
        RingWalker walker;
        if (!walker.Open(place.path)) {
            Tell(walker.Error());
            return false;
        }
        m_err << "Empty " << place.path << " with " << HeadText(LookAtState(walker)) << "? [y/N] "
              << std::flush;
        std::string answer;
        std::getline(std::cin, answer);
        if (answer == "y" || answer == "Y" || answer == "yes") {
            return true;
        }
        Tell(place.path + " is left as it is");
        return false;
    }

    // Shows what became of a ring. True unless it was refused.
    bool Report(const RingPlace& place, const Repair& repair) {
        const bool isRefused = repair.outcome == RepairOutcome::kRefused;
        if (m_options.json) {
            Json object = RingAsJson(place, repair.state);
            object["outcome"] = isRefused                                    ? "refused"
                                : repair.outcome == RepairOutcome::kRepaired ? "repaired"
                                                                             : "healthy";
            object["text"] = TextAsJson(repair.text);
            object["lostBytes"] = repair.lostBytes;
            m_out << object.dump() << std::endl;
        }
        if (isRefused) {
            Tell(Of(place, repair.text));
        } else if (!m_options.json) {
            if (repair.state.fault != RingFault::kNone) {
                m_out << place.name << ": " << FaultText(repair.state) << std::endl;
            }
            m_out << place.name << ": " << repair.text << std::endl;
        }
        return !isRefused;
    }

    [[nodiscard]] std::chrono::milliseconds Interval() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::duration<double>(m_options.interval));
    }

    const RingOptions& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    std::vector<RingPlace> m_places;
};

}  // namespace

CLI::App* AddRingCommand(CLI::App& app, RingOptions& options) {
    CLI::App* command =
        app.add_subcommand("ring", "Show, check, repair or reset the rings that tarn writes");
    command->add_option("ACTION", options.action, "What to do")
        ->type_name("show|check|repair|reset")
        ->check(CLI::Validator(CheckAction, "", "action"))
        ->required();
    command->add_option("RING", options.rings, "Path or name of a ring");
    command->add_flag("--json", options.json, "One JSON object a line for each ring");
    command->add_option("--count", options.count, "Messages of each ring that show lists; 0: all")
        ->type_name("N")
        ->check(ZeroOrMore())
        ->capture_default_str();
    command->add_option("--interval", options.interval, "Seconds between the two looks")
        ->type_name("S")
        ->check(ZeroOrMore())
        ->capture_default_str();
    command->add_option("--writer", options.writer, "A process that writes in the place of tarn")
        ->type_name("NUMBER")
        ->check(AboveZero());
    command->add_flag("--yes", options.yes, "Let reset empty the ring without asking");
    command->add_flag("--force", options.force,
                      "Go on where it cannot be seen what other processes have mapped");
    AddWideOption(*command, options);
    command->footer(kExamples);
    return command;
}

int RunRing(const RingOptions& options, std::ostream& out, std::ostream& err) {
    return Rings(options, out, err).Run();
}

}  // namespace tarnctl
