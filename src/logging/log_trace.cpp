#include "logging/log_trace.h"

LogTrace::~LogTrace() = default;

void LogTrace::SetLevel(int level) {
    m_level.store(level, std::memory_order_relaxed);
}

int LogTrace::GetLevel() const {
    return m_level.load(std::memory_order_relaxed);
}
