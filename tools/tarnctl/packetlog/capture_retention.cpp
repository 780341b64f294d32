#include "tarnctl/packetlog/capture_retention.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

constexpr time_t kSecondsPerDay = 86400;

// From the newest file of each set on, none is younger than the one before it.
void PutTimesInOrder(std::vector<KeptCapture>& captures, const std::string& directory, time_t now) {
    std::sort(captures.begin(), captures.end(),
              [](const KeptCapture& a, const KeptCapture& b) { return a.name < b.name; });
    const KeptCapture* before = nullptr;
    for (KeptCapture& capture : captures) {
        if (capture.changed > now) {
            capture.changed = now;
            const timespec times[2] = {{0, UTIME_OMIT}, {now, 0}};
            // One that cannot be touched is looked at again the next time.
            (void)utimensat(AT_FDCWD, (directory + "/" + capture.name.Text()).c_str(), times,
                            AT_SYMLINK_NOFOLLOW);
        }
        if (before != nullptr && before->name.event == capture.name.event &&
            before->name.format == capture.name.format) {
            capture.changed = std::min(capture.changed, before->changed);
        }
        before = &capture;
    }
}

bool IsOlder(const KeptCapture& a, const KeptCapture& b) {
    return a.changed != b.changed ? a.changed < b.changed : a.name.age > b.name.age;
}

}  // namespace

KeepOutcome KeepWithin(const KeepLimits& limits, const std::string& directory, time_t now,
                       const std::vector<CaptureName>& inUse) {
    KeepOutcome outcome;
    if (limits.AreNone()) {
        return outcome;
    }
    std::optional<std::vector<KeptCapture>> captures = CapturesIn(directory);
    if (!captures) {
        outcome.error = FailureText(directory, errno);
        return outcome;
    }
    PutTimesInOrder(*captures, directory, now);
    std::stable_sort(captures->begin(), captures->end(), IsOlder);
    uint64_t bytes = 0;
    for (const KeptCapture& capture : *captures) {
        bytes += capture.bytes;
    }
    uint64_t files = captures->size();
    const time_t oldest = limits.days == 0 ? 0 : now - limits.days * kSecondsPerDay;
    for (const KeptCapture& capture : *captures) {
        const bool isOver = capture.changed < oldest ||
                            (limits.bytes != 0 && bytes > limits.bytes) ||
                            (limits.files != 0 && files > limits.files);
        if (!isOver) {
            break;
        }
        if (std::find(inUse.begin(), inUse.end(), capture.name) != inUse.end()) {
            continue;
        }
        const std::string path = directory + "/" + capture.name.Text();
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            outcome.error = FailureText(path, errno);
            continue;
        }
        ++outcome.files;
        outcome.bytes += capture.bytes;
        --files;
        bytes -= capture.bytes;
    }
    return outcome;
}

}  // namespace tarnctl
