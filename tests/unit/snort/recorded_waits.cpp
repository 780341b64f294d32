#include "unit/snort/recorded_waits.h"

#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>
#include <mutex>
#include <utility>

namespace {

struct Waits {
    std::mutex mutex;
    bool isRecording = false;
    std::vector<long> sleeps;
    std::vector<long> selects;
};

Waits& TheWaits() {
    static Waits waits;
    return waits;
}

void Record(std::vector<long> Waits::*list, long value) {
    Waits& waits = TheWaits();
    const std::lock_guard<std::mutex> lock(waits.mutex);
    if (waits.isRecording) {
        (waits.*list).push_back(value);
    }
}

std::vector<long> Recorded(std::vector<long> Waits::*list) {
    Waits& waits = TheWaits();
    const std::lock_guard<std::mutex> lock(waits.mutex);
    return waits.*list;
}

void SetRecording(bool isRecording) {
    Waits& waits = TheWaits();
    const std::lock_guard<std::mutex> lock(waits.mutex);
    waits.isRecording = isRecording;
    waits.sleeps.clear();
    waits.selects.clear();
}

std::function<void()>& BeforeSelect() {
    static std::function<void()> action;
    return action;
}

}  // namespace

void BeforeTheNextSelect(std::function<void()> action) {
    BeforeSelect() = std::move(action);
}

RecordedWaits::RecordedWaits() {
    SetRecording(true);
}

RecordedWaits::~RecordedWaits() {
    SetRecording(false);
}

std::vector<long> RecordedWaits::Sleeps() {
    return Recorded(&Waits::sleeps);
}

std::vector<long> RecordedWaits::Selects() {
    return Recorded(&Waits::selects);
}

extern "C" unsigned sleep(unsigned seconds) {
    Record(&Waits::sleeps, static_cast<long>(seconds));
    const timespec wait = {.tv_sec = static_cast<time_t>(seconds), .tv_nsec = 0};
    timespec left{};
    return nanosleep(&wait, &left) == 0 ? 0 : static_cast<unsigned>(left.tv_sec);
}

extern "C" int select(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptionSet,
                      timeval* timeout) {
    if (BeforeSelect()) {
        std::exchange(BeforeSelect(), nullptr)();
    }
    if (timeout == nullptr) {
        return pselect(count, readSet, writeSet, exceptionSet, nullptr, nullptr);
    }
    Record(&Waits::selects, timeout->tv_sec * 1000 + timeout->tv_usec / 1000);
    const timespec wait = {.tv_sec = timeout->tv_sec, .tv_nsec = timeout->tv_usec * 1000};
    return pselect(count, readSet, writeSet, exceptionSet, &wait, nullptr);
}
