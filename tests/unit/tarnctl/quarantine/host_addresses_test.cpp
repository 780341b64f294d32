#include "tarnctl/quarantine/host_addresses.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

using testing::Contains;
using testing::IsEmpty;
using testing::Not;

namespace tarnctl {
namespace {

constexpr int kCannot = 77;

// Runs a check in a process with a network of its own, which needs privileges. The check's result
// is the line of its first `Want` that did not hold.
template <typename Check>
int InANetworkOfItsOwn(Check check) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(unshare(CLONE_NEWNET) != 0 || access("/usr/sbin/ip", X_OK) != 0 ? kCannot : check());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Ip(const char* words) {
    return std::system((std::string("/usr/sbin/ip ") + words).c_str()) == 0;
}

bool Has(const std::vector<std::string>& texts, const char* text) {
    return testing::Matches(Contains(text))(texts);
}

TEST(HostAddresses, HaveEachAddressAndTheBroadcastsOfItsNetwork) {
    const int result = InANetworkOfItsOwn([] {
        if (!Ip("link add one type veth peer name two") || !Ip("link set one up") ||
            !Ip("address add 10.7.0.1/24 broadcast 10.7.0.77 dev one") ||
            !Ip("address add 10.8.0.0/31 dev one") || !Ip("address add 10.8.1.1/30 dev one") ||
            !Ip("address add 2001:db8::5/64 dev one nodad")) {
            return kCannot;
        }
        const std::vector<std::string> found = HostAddresses();
        int missing = 0;
        for (const char* const text : {"10.7.0.1", "10.7.0.77", "10.7.0.255", "10.8.0.0",
                                       "10.8.1.1", "10.8.1.3", "2001:db8::5"}) {
            missing += Has(found, text) ? 0 : 1;
        }
        return missing + (Has(found, "10.8.0.1") ? 1 : 0);
    });
    if (result == kCannot) {
        GTEST_SKIP() << "no privilege to make a network namespace";
    }
    EXPECT_EQ(0, result);
}

TEST(AddressWatch, HasNewsOfAnAddressOnce) {
    const int result = InANetworkOfItsOwn([] {
        const AddressWatch watch;
        if (!Ip("link set lo up")) {
            return kCannot;
        }
        (void)watch.HasNews();
        const bool hadNone = !watch.HasNews();
        const bool isAdded = Ip("address add 192.0.2.1/32 dev lo");
        const bool hasSome = watch.HasNews();
        const bool hasNoMore = !watch.HasNews();
        return watch.Descriptor() != -1 && hadNone && isAdded && hasSome && hasNoMore ? 0 : 1;
    });
    if (result == kCannot) {
        GTEST_SKIP() << "no privilege to make a network namespace";
    }
    EXPECT_EQ(0, result);
}

}  // namespace
}  // namespace tarnctl
