#include "tarnctl/common/processors.h"

namespace tarnctl {

Processors::Processors() {
    if (sched_getaffinity(0, sizeof(m_allowed), &m_allowed) != 0) {
        CPU_ZERO(&m_allowed);
    }
}

void Processors::KeepOff(pid_t process) const {
    cpu_set_t others = {};
    if (sched_getaffinity(process, sizeof(others), &others) != 0) {
        CPU_ZERO(&others);
    }
    KeepOff(others);
}

void Processors::KeepOff(const cpu_set_t& others) const {
    cpu_set_t common = {};
    cpu_set_t left = {};
    CPU_AND(&common, &m_allowed, &others);
    CPU_XOR(&left, &m_allowed, &common);
    const cpu_set_t& chosen = CPU_COUNT(&left) == 0 ? m_allowed : left;
    if (CPU_COUNT(&chosen) != 0) {
        (void)sched_setaffinity(0, sizeof(chosen), &chosen);  // it runs where it did otherwise
    }
}

}  // namespace tarnctl
