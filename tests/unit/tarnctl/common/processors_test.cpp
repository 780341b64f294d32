#include "tarnctl/common/processors.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

namespace tarnctl {
namespace {

cpu_set_t Allowed() {
    cpu_set_t set = {};
    EXPECT_EQ(0, sched_getaffinity(0, sizeof(set), &set));
    return set;
}

size_t FirstOf(const cpu_set_t& set) {
    size_t cpu = 0;
    while (!CPU_ISSET(cpu, &set)) {
        ++cpu;
    }
    return cpu;
}

// What one thread binds itself to is no other's business.
template <typename Work>
void InAThread(Work work) {
    std::thread(work).join();
}

TEST(Processors, KeepsOffThoseOfAnother) {
    InAThread([] {
        const cpu_set_t all = Allowed();
        if (CPU_COUNT(&all) < 2) {
            GTEST_SKIP() << "this process may use one processor only";
        }
        cpu_set_t first = {};
        CPU_SET(FirstOf(all), &first);
        Processors().KeepOff(first);
        const cpu_set_t left = Allowed();
        EXPECT_EQ(CPU_COUNT(&all) - 1, CPU_COUNT(&left));
        EXPECT_FALSE(CPU_ISSET(FirstOf(all), &left));
    });
}

TEST(Processors, TakesAllAgainWhereNothingWouldBeLeft) {
    InAThread([] {
        const cpu_set_t all = Allowed();
        const Processors processors;
        cpu_set_t first = {};
        CPU_SET(FirstOf(all), &first);
        processors.KeepOff(first);
        processors.KeepOff(getpid());  // whose main thread may run on all of them
        const cpu_set_t now = Allowed();
        EXPECT_TRUE(CPU_EQUAL(&all, &now));
    });
}

TEST(Processors, StaysWhereItIsWhenTheOtherIsGone) {
    InAThread([] {
        const cpu_set_t all = Allowed();
        Processors().KeepOff(pid_t{0x7FFFFFFF});
        const cpu_set_t now = Allowed();
        EXPECT_TRUE(CPU_EQUAL(&all, &now));
    });
}

}  // namespace
}  // namespace tarnctl
