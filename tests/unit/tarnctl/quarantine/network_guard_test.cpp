#include "tarnctl/quarantine/network_guard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

using testing::HasSubstr;
using testing::StartsWith;

namespace tarnctl {
namespace {

// The two variables as the test wants them; afterwards they are as before.
class NetworkGuard : public testing::Test {
  protected:
    NetworkGuard() : m_sandbox(Get(kSandbox)), m_outside(Get(kOutside)) {}
    ~NetworkGuard() override {
        Set(kSandbox, m_sandbox);
        Set(kOutside, m_outside);
    }

    static std::optional<std::string> Get(const char* name) {
        const char* const value = std::getenv(name);
        return value == nullptr ? std::nullopt : std::optional<std::string>(value);
    }
    static void Set(const char* name, const std::optional<std::string>& value) {
        if (value) {
            setenv(name, value->c_str(), 1);
        } else {
            unsetenv(name);
        }
    }

    static constexpr const char* kSandbox = "TARN_SANDBOX";
    static constexpr const char* kOutside = "TARN_SANDBOX_OUTSIDE_NETWORK";
    const std::optional<std::string> m_sandbox;
    const std::optional<std::string> m_outside;
};

TEST_F(NetworkGuard, NamesTheNamespace) {
    EXPECT_THAT(ThisNetwork(), StartsWith("net:["));
}

TEST_F(NetworkGuard, HasNoObjectionOutsideASandbox) {
    Set(kSandbox, std::nullopt);
    Set(kOutside, ThisNetwork());
    EXPECT_EQ("", ObjectionToThisNetwork());
}

TEST_F(NetworkGuard, ObjectsInASandboxThatHasTheNetworkOfTheMachine) {
    Set(kSandbox, "1");
    Set(kOutside, ThisNetwork());
    EXPECT_THAT(ObjectionToThisNetwork(), HasSubstr("--net"));
}

TEST_F(NetworkGuard, HasNoObjectionInASandboxWithANetworkOfItsOwn) {
    Set(kSandbox, "1");
    Set(kOutside, "net:[1]");
    EXPECT_EQ("", ObjectionToThisNetwork());
}

TEST_F(NetworkGuard, ObjectsInASandboxThatDoesNotSayWhereItIs) {
    Set(kSandbox, "1");
    Set(kOutside, std::nullopt);
    EXPECT_THAT(ObjectionToThisNetwork(), HasSubstr("--net"));
    Set(kOutside, "");
    EXPECT_THAT(ObjectionToThisNetwork(), HasSubstr("--net"));
}

}  // namespace
}  // namespace tarnctl
