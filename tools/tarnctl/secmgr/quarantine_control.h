#pragma once

// The control socket of a quarantine: tarnctl/quarantine/control_words.h has what is said on it.
//
// Whoever may write to the socket may list and test. Only the superuser and the service's own user
// may change what is in force.
//
// Threads: one at a time; but for the kernel, which is given a second or two, nothing here waits.

#include <poll.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tarnctl/common/line_server.h"
#include "tarnctl/quarantine/control_words.h"
#include "tarnctl/secmgr/rule_enforcer.h"

namespace tarnctl {

// True for the superuser and for the user of this process.
[[nodiscard]] bool IsRootOrOwnUser(uid_t user);

class QuarantineControl {
  public:
    // What was changed by whom goes to `tell`. Both live as long.
    QuarantineControl(RuleEnforcer& enforcer, std::function<void(const std::string&)> tell,
                      std::function<bool(uid_t)> mayChange = IsRootOrOwnUser);

    // The group of the process may write to the socket too. An empty text, or the reason.
    [[nodiscard]] std::string Open(const std::string& path);

    // Takes connections and orders, and answers them.
    void Serve();

    // What poll(2) has to look at; nothing before Open().
    void AddTo(std::vector<pollfd>& entries) const;

  private:
    using Json = nlohmann::ordered_json;

    [[nodiscard]] std::string Answer(const LineClient& client, const std::string& line);
    [[nodiscard]] Json Carry(const std::string& what, const Json& order, uid_t user);
    [[nodiscard]] Json List();
    [[nodiscard]] Json Test(const std::string& address);
    [[nodiscard]] Json Put(const std::string& address, const Json& order, uid_t user);
    [[nodiscard]] Json End(const std::function<bool(const RuleInForce&)>& isWanted, uid_t user);
    [[nodiscard]] Json RulesAsJson(const std::function<bool(const RuleInForce&)>& isWanted);

    RuleEnforcer& m_enforcer;
    const std::function<void(const std::string&)> m_tell;
    const std::function<bool(uid_t)> m_mayChange;
    LineServer m_server{kLongestOrder};
    bool m_isOpen = false;
};

}  // namespace tarnctl
